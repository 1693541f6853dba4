#include "support/sim_daemon.h"

#include <fcntl.h>
#include <sys/file.h>
#include <syslog.h>

#include <thread>

// The rules log what they record; outside a sandbox, not into the machine's log.
static const int kQuiet = setlogmask(LOG_MASK(LOG_EMERG));

bool waitUntil(const std::function<bool()>& done, Millis limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(Millis(1));
  }
  return true;
}

ParameterMap defaultTree() {
  ParameterMap tree;
  std::string error;
  EXPECT_TRUE(loadTree(TZR_DEFAULT_CONFIG, tree, error)) << TZR_DEFAULT_CONFIG << ": " << error;
  return tree;
}

bool lockIsFree(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const bool free = fd < 0 || flock(fd, LOCK_EX | LOCK_NB) == 0;
  close(fd);
  return free;
}
