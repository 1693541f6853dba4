#include "support/sim_daemon.h"

#include <fcntl.h>
#include <sys/file.h>
#include <syslog.h>

#include <fstream>
#include <sstream>
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
  std::ostringstream text;
  text << std::ifstream(TZR_DEFAULT_CONFIG, std::ios::binary).rdbuf();
  return parseTree(text.str());
}

int requestNumber(const Strings& transcript, const std::string& start) {
  for (size_t i = 0; i < transcript.size(); ++i) {
    if (transcript[i].rfind(start, 0) == 0) return static_cast<int>(i + 1);
  }
  return 0;
}

bool lockIsFree(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const bool free = fd < 0 || flock(fd, LOCK_EX | LOCK_NB) == 0;
  close(fd);
  return free;
}
