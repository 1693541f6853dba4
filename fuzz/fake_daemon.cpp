#include "fake_daemon.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr char kPrompt[] = "/> ";
std::string stream;                // what has been due: the greeting, then answers
std::vector<std::string> answers;  // one a request, without the prompt
size_t sent = 0, answered = 0;     // of stream, of answers
size_t maxChunk = 1;
bool resetWhenDry = false;  // with all sent: ECONNRESET, not more prompts
std::minstd_rand chunks;    // draws the chunk sizes, 1..maxChunk
char folder[] = "/tmp/tzr-fuzz-XXXXXX";
std::string lockPath, queuePath;  // in `folder`
DaemonSetup setup;

}  // namespace

const DaemonSetup& fakeDaemon() { return setup; }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (mkdtemp(folder) == nullptr || freopen("/dev/null", "w", stdout) == nullptr) abort();
  atexit([] { std::filesystem::remove_all(folder); });
  lockPath = std::string(folder) + "/cffs_uds.lock";
  queuePath = std::string(folder) + "/cffs_uds.queue";
  setup = {folder, lockPath.c_str(), queuePath.c_str(), STDOUT_FILENO};  // connect() is faked
  setlogmask(LOG_MASK(LOG_EMERG));  // a level the program never logs at
  return 0;
}

void playDaemon(FuzzedDataProvider& in) {
  chunks.seed(in.ConsumeIntegral<unsigned>());
  maxChunk = in.ConsumeIntegralInRange<size_t>(1, 70000);
  resetWhenDry = in.ConsumeBool();
  stream = in.ConsumeRandomLengthString() + kPrompt;
  answers.clear();
  while (in.remaining_bytes() > 0) answers.push_back(in.ConsumeRandomLengthString());
  sent = answered = 0;
}

extern "C" int connect(int, const sockaddr*, socklen_t) { return 0; }

// A request is one line sent at once: a carriage return at its end and no
// line break or NUL before, else the daemon would see more than one command;
// and a put's name is one word, else it would store another name.
extern "C" ssize_t send(int, const void* data, size_t size, int) {
  const std::string line(static_cast<const char*>(data), size);
  if (size == 0 || line.find_first_of(std::string("\r\n\0", 3)) != size - 1 || line.back() != '\r')
    abort();
  if (line.compare(0, 4, "put ") == 0 && line.find_first_of("\t\v\f") < line.find(' ', 4)) abort();
  if (answered < answers.size()) stream += answers[answered++] + kPrompt;
  return static_cast<ssize_t>(size);
}

extern "C" ssize_t recv(int, void* buffer, size_t size, int) {
  if (sent == stream.size()) {
    if (resetWhenDry) {
      errno = ECONNRESET;
      return -1;
    }
    stream += kPrompt;  // every reply gets its end: nothing can hang
  }
  size_t n = std::min({size, stream.size() - sent, 1 + chunks() % maxChunk});
  memcpy(buffer, stream.data() + sent, n);
  sent += n;
  return static_cast<ssize_t>(n);
}

// Nobody closes the reply here.
extern "C" int poll(pollfd* fds, nfds_t count, int) {
  for (nfds_t i = 0; i < count; ++i) fds[i].revents = fds[i].fd < 0 ? 0 : fds[i].events;
  return 1;
}
