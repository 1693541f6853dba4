// The simulator's faults as its command line plants them, met by a client of
// this file's own (nothing of the program's), and how it paces its replies.
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "simulator/in_process.h"
#include "simulator/output_queue.h"
#include "simulator/protocol.h"

namespace {

using Strings = std::vector<std::string>;

// Sends `request` (unless empty) on `fd`; what came back up to the prompt, or how it ended.
std::string exchange(int fd, const std::string& request) {
  const std::string line = request + "\r";
  if (!request.empty() && send(fd, line.data(), line.size(), MSG_NOSIGNAL) < 0) {
    return strerror(errno);
  }
  std::string reply;
  char buffer[256];
  pollfd ready = {fd, POLLIN, 0};
  while (reply.find(kPrompt) == std::string::npos) {
    const ssize_t n = poll(&ready, 1, 5000) == 1 ? recv(fd, buffer, sizeof buffer, 0) : -1;
    if (n <= 0) return reply + (n == 0 ? "<end of file>" : strerror(errno));
    reply.append(buffer, static_cast<size_t>(n));
  }
  return reply;
}

int connectTo(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {AF_UNIX, {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  close(fd);
  return -errno;
}

// Each fault happens once, at the first request that begins with its text (a
// leading LF not counted), and a later connection is served as usual.
TEST(FaultTest, EachFaultOnceAtTheFirstRequestThatBeginsSo) {
  const std::string greeting(kGreeting), one = "1\r\n/> ", eof = "<end of file>";
  const struct {
    Strings arguments;
    Strings exchanges;  // a request, then what came back
    Strings transcript;
    bool faulted = true;
  } rows[] = {
      {{}, {"ls /a", one}, {R"(ls /a\r)"}, false},
      {{"--reset-on", "ls /b"}, {"ls /a", one, "ls /bc", strerror(ECONNRESET)}, {R"(ls /a\r)"}},
      {{"--reset-on", R"(ls\x20/b)"},
       {"ls /a\rls /a\r\nls /b", strerror(ECONNRESET)},
       {R"(ls /a\r)", R"(ls /a\r)"}},
      {{"--hangup-on", "ls /b"}, {"ls /a\r\nls /b", one, "", eof}, {R"(ls /a\r)", R"(\nls /b\r)"}},
      {{"--hangup-after-greeting"}, {"ls /a", strerror(EPIPE)}, {}},
      {{"--hangup-on", "save"}, {"ls /a", one}, {R"(ls /a\r)"}, false},
      {{"--no-listen"}, {}, {}, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    Options options;
    std::string error;
    ASSERT_EQ(ParseResult::Run, parseOptions(row.arguments, options, error)) << error;
    InProcessSimulator sim({{"/a", "1"}}, options);
    const int fd = connectTo(sim.socketPath());
    EXPECT_EQ(options.noListen, fd == -ECONNREFUSED);
    if (fd < 0) continue;
    EXPECT_EQ(greeting, exchange(fd, ""));
    for (size_t i = 0; i < row.exchanges.size(); i += 2) {
      EXPECT_EQ(row.exchanges[i + 1], exchange(fd, row.exchanges[i])) << row.exchanges[i];
    }
    close(fd);
    EXPECT_EQ(row.transcript, sim.transcript());
    EXPECT_EQ(row.faulted, sim.faulted());
    const int later = connectTo(sim.socketPath());
    EXPECT_EQ(greeting, exchange(later, ""));
    EXPECT_EQ(one, exchange(later, "ls /a"));
    close(later);
  }
  Options options;
  std::string error;
  EXPECT_EQ(ParseResult::Error,
            parseOptions({"--reset-on", "a", "--hangup-on", "b"}, options, error));
  EXPECT_EQ("one fault at a time", error);
}

// Replies in pieces of at most `chunk` bytes a gap apart, the trailer riding
// in the last piece, the next reply no sooner than a gap after it.
TEST(OutputQueueTest, CutsRepliesIntoPacedPieces) {
  OutputQueue queue(Pacing{2, std::chrono::milliseconds(10)});
  queue.push("abcde", "/> ", Clock::time_point());
  queue.push("f", "", Clock::time_point());
  EXPECT_EQ(9u, queue.bytes());
  for (const auto& [bytes, due] : {std::pair("ab", 0), {"cd", 10}, {"e/> ", 20}, {"f", 30}}) {
    ASSERT_FALSE(queue.empty());
    EXPECT_EQ(bytes, queue.front().bytes);
    EXPECT_EQ(Clock::time_point() + std::chrono::milliseconds(due), queue.front().due);
    queue.consume(queue.front().bytes.size());
  }
  EXPECT_TRUE(queue.empty());
}

}  // namespace
