// The daemon and the web server as the unit tests meet them, as any user.
#ifndef TZR_TESTS_SUPPORT_SIM_DAEMON_H_
#define TZR_TESTS_SUPPORT_SIM_DAEMON_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "config_client/daemon_setup.h"
#include "config_client/parameter_map.h"
#include "simulator/in_process.h"

using Strings = std::vector<std::string>;
using Millis = std::chrono::milliseconds;

// Checks `done` every millisecond until it holds or `limit` has passed.
bool waitUntil(const std::function<bool()>& done, Millis limit = Millis(5000));

ParameterMap defaultTree();  // the appliance's, shipped with the simulator

// Whether another request could have the lock at `path` at once (none without its file).
bool lockIsFree(const std::string& path);

// The simulator with its lock files beside its socket.
struct SimDaemon {
  explicit SimDaemon(const ParameterMap& tree, const Options& options = {})
      : sim(tree, options), lock(sim.socketPath() + ".lock"), queue(sim.socketPath() + ".queue") {}

  DaemonSetup setup(int replyFd = -1) const {
    return {sim.socketPath().c_str(), lock.c_str(), queue.c_str(), replyFd};
  }
  Strings transcript() const { return sim.transcript(); }

  InProcessSimulator sim;
  const std::string lock, queue;
};

// A reply's pipe: a request writes to ends[1]; closing ends[0] gives up on it.
struct ReplyPipe {
  ReplyPipe() { EXPECT_EQ(0, pipe(ends)); }
  ~ReplyPipe() { giveUp(), close(ends[1]); }
  void giveUp() { ends[0] = ends[0] < 0 ? -1 : (close(ends[0]), -1); }
  int ends[2];
};

#endif  // TZR_TESTS_SUPPORT_SIM_DAEMON_H_
