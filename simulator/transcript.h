// What the simulator went through: one escaped line (escape.h) per request
// received, its raw bytes with the CR and any leading LF, in arrival order
// across all connections; and whether the planted fault (options.h) has
// happened.
//
// The lines go to a file (--transcript), which tests read while the
// simulator runs: each goes out in a single write(2) on an O_APPEND
// descriptor as soon as its request is framed, so a reader never sees half
// a line. Or they are kept in memory for the program that runs the
// simulator in a thread (in_process.h), which may read them from another.

#ifndef TZR_SIMULATOR_TRANSCRIPT_H_
#define TZR_SIMULATOR_TRANSCRIPT_H_

#include <atomic>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

class Transcript {
 public:
  // InFile: only in the file that open() opened, if any.
  enum class Keep { InFile, InMemory };
  explicit Transcript(Keep keep = Keep::InFile) : inMemory_(keep == Keep::InMemory) {}
  Transcript(const Transcript&) = delete;
  Transcript& operator=(const Transcript&) = delete;
  ~Transcript();

  // Opens (creating if needed) `file` for appending.  On failure returns
  // false and sets `error` to the strerror() text.
  bool open(const std::string& file, std::string& error);

  // Appends `request`.  A failed write is reported on stderr once, not
  // treated as fatal: the simulator keeps serving.
  void record(std::string_view request);
  // The lines kept in memory so far.
  std::vector<std::string> lines() const;

  void recordFault() { faulted_ = true; }
  bool faulted() const { return faulted_; }

 private:
  const bool inMemory_;
  int fd_ = -1;
  bool warned_ = false;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;  // guarded by mutex_
  std::atomic<bool> faulted_ = false;
};

#endif  // TZR_SIMULATOR_TRANSCRIPT_H_
