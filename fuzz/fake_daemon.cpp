#include "fake_daemon.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <random>

namespace {

constexpr char kPrompt[] = "/> ";
DaemonScript script;
size_t sent = 0, answered = 0;  // of script.stream, of script.answers
std::minstd_rand chunks;
int listener = -1;
char folder[] = "/tmp/tzr-fuzz-XXXXXX";
std::string socketPath, lockPath, queuePath;  // in `folder`
DaemonSetup setup;

}  // namespace

const DaemonSetup& fakeDaemon() { return setup; }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (mkdtemp(folder) == nullptr) abort();
  socketPath = std::string(folder) + "/cffs_uds";
  lockPath = socketPath + ".lock";
  queuePath = socketPath + ".queue";
  setup = {socketPath.c_str(), lockPath.c_str(), queuePath.c_str(), STDOUT_FILENO};
  atexit([] { std::filesystem::remove_all(folder); });
  sockaddr_un address{AF_UNIX, {}};
  socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
  listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener, 64) != 0 || freopen("/dev/null", "w", stdout) == nullptr) {
    perror("fake daemon: a socket in a private folder");
    abort();
  }
  setlogmask(LOG_MASK(LOG_EMERG));  // a level the program never logs at
  return 0;
}

void playDaemon(DaemonScript next) {
  // Connections are only ever queued: let go of the last run's.
  for (int fd; (fd = accept(listener, nullptr, nullptr)) >= 0;) close(fd);
  script = std::move(next);
  sent = answered = 0;
  chunks.seed(script.seed);
}

DaemonScript answeringScript(FuzzedDataProvider& in) {
  DaemonScript s;
  s.seed = in.ConsumeIntegral<unsigned>();
  s.maxChunk = in.ConsumeIntegralInRange<size_t>(1, 70000);
  s.resetWhenDry = in.ConsumeBool();
  s.stream = in.ConsumeRandomLengthString() + kPrompt;
  while (in.remaining_bytes() > 0) s.answers.push_back(in.ConsumeRandomLengthString());
  return s;
}

// A request is one line sent at once: a carriage return at its end and no
// line break or NUL before, else the daemon would see more than one command;
// and a put's name is one word, else it would store another name.
extern "C" ssize_t send(int, const void* data, size_t size, int) {
  const std::string line(static_cast<const char*>(data), size);
  if (size == 0 || line.find_first_of(std::string("\r\n\0", 3)) != size - 1 || line.back() != '\r')
    abort();
  if (line.compare(0, 4, "put ") == 0 && line.find_first_of("\t\v\f") < line.find(' ', 4)) abort();
  if (answered < script.answers.size()) script.stream += script.answers[answered++] + kPrompt;
  return static_cast<ssize_t>(size);
}

extern "C" ssize_t recv(int, void* buffer, size_t size, int) {
  if (sent == script.stream.size()) {
    if (script.resetWhenDry) {
      errno = ECONNRESET;
      return -1;
    }
    script.stream += kPrompt;  // every reply gets its end: nothing can hang
  }
  size_t n = std::min({size, script.stream.size() - sent, 1 + chunks() % script.maxChunk});
  memcpy(buffer, script.stream.data() + sent, n);
  sent += n;
  return static_cast<ssize_t>(n);
}

// Nobody closes the reply here.
extern "C" int poll(pollfd* fds, nfds_t count, int) {
  for (nfds_t i = 0; i < count; ++i) fds[i].revents = fds[i].fd < 0 ? 0 : fds[i].events;
  return 1;
}
