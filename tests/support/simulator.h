// The configuration daemon simulator (tools/cffs_sim) as a child process of
// the test, listening on "/tmp/cffs_uds" of the test's private /tmp (see
// isolation.h), loaded with a tree the test gives, with its transcript of
// raw requests and its saved tree readable afterwards.
#ifndef TZR_TESTS_SUPPORT_SIMULATOR_H_
#define TZR_TESTS_SUPPORT_SIMULATOR_H_

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "config_client/parameter_map.h"

// The default appliance configuration shipped with the simulator.
ParameterMap defaultTree();

class Simulator {
 public:
  // Starts the simulator with `tree` and extra command-line arguments
  // (faults such as "--reset-at", "3"), and waits until it listens.
  explicit Simulator(const ParameterMap& tree, std::vector<std::string> arguments = {});
  ~Simulator();  // stops it and removes its files
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  // Every request received so far, one per element, escaped as the
  // simulator writes them ("save" is the seven characters save\r).
  std::vector<std::string> transcript() const;

  // The transcript without its reads: the puts, applies and saves.
  std::vector<std::string> writes() const;

  // Waits until the transcript holds `count` requests, up to `limit`.
  bool waitForRequests(size_t count, std::chrono::milliseconds limit) const;

  // The tree as last saved to its file.
  ParameterMap savedTree() const;

  pid_t pid() const { return pid_; }

 private:
  std::string directory_;
  pid_t pid_;
};

#endif  // TZR_TESTS_SUPPORT_SIMULATOR_H_
