// The simulator for a program that links it, such as a test: served from a
// thread of the caller's own process, with a private temporary folder of its
// own for its tree (tree.conf, which "save" rewrites) and, by default, its
// socket (cffs_uds), beside which clients keep their lock files. What it
// receives it keeps in memory. Nothing needs root, and nothing outlives the
// object.

#ifndef TZR_SIMULATOR_IN_PROCESS_H_
#define TZR_SIMULATOR_IN_PROCESS_H_

#include <string>
#include <thread>
#include <vector>

#include "simulator/options.h"
#include "simulator/transcript.h"
#include "simulator/tree.h"

class InProcessSimulator {
 public:
  // Serves `tree` as `options` say (options.h): a fault, pacing, another
  // socket. Its configuration file is its own, and it keeps no transcript
  // file. Throws std::runtime_error when it cannot start.
  explicit InProcessSimulator(const Tree& tree, const Options& options = {});
  ~InProcessSimulator();
  InProcessSimulator(const InProcessSimulator&) = delete;
  InProcessSimulator& operator=(const InProcessSimulator&) = delete;

  // FOLDER/NAME, in its private folder.
  std::string path(const std::string& name) const { return folder_ + "/" + name; }
  const std::string& socketPath() const { return options_.socketPath; }

  // The requests received, escaped as recorded (transcript.h): "save"
  // arrives as save\r; without the reads ("ls ...") unless `reads`.
  std::vector<std::string> transcript(bool reads = true) const;
  // Whether the planted fault has happened.
  bool faulted() const { return transcript_.faulted(); }
  // The tree as last saved.
  Tree savedTree() const;

 private:
  void stop();

  std::string folder_;
  Options options_;
  Tree tree_;
  Transcript transcript_{Transcript::Keep::InMemory};
  int stop_[2] = {-1, -1};
  std::thread thread_;
};

#endif  // TZR_SIMULATOR_IN_PROCESS_H_
