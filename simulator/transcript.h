// The --transcript file: one escaped line per request received, in arrival
// order across all connections.  Tests read it while the simulator runs, so
// each line goes out in a single write(2) on an O_APPEND descriptor as soon
// as its request is framed; a reader never sees half a line.

#ifndef TZR_SIMULATOR_TRANSCRIPT_H_
#define TZR_SIMULATOR_TRANSCRIPT_H_

#include <string>
#include <string_view>

class Transcript {
 public:
  Transcript() = default;
  Transcript(const Transcript&) = delete;
  Transcript& operator=(const Transcript&) = delete;
  ~Transcript();

  // Opens (creating if needed) `file` for appending.  On failure returns
  // false and sets `error` to the strerror() text.
  bool open(const std::string& file, std::string& error);

  // Appends `request`, its raw bytes with the CR and any leading LF, escaped
  // as in escape.h.  Does nothing if no file is open.  A failed write is
  // reported on stderr once, not treated as fatal: the simulator keeps
  // serving.
  void record(std::string_view request);

 private:
  int fd_ = -1;
  bool warned_ = false;
};

#endif  // TZR_SIMULATOR_TRANSCRIPT_H_
