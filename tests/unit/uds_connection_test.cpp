#include "config_client/uds_connection.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "support/simulator.h"

namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

const ParameterMap kTree = {{"/a", "abc"}, {"/p", "x/> y"}};

TEST(UdsConnectionTest, ConnectFailures) {
  for (const auto& [listening, error] : {std::pair(false, ENOENT), std::pair(true, ECONNREFUSED)}) {
    std::unique_ptr<Simulator> sim(listening ? new Simulator(kTree, {"--no-listen"}) : nullptr);
    UdsConnection connection;
    EXPECT_FALSE(connection.isOpen());
    EXPECT_EQ(UdsStatus::ConnectFailed, connection.status());
    EXPECT_EQ(error, connection.savedErrno());
    EXPECT_EQ(std::string("UDS connect failed: ") + strerror(error), connection.statusText());
  }
}

// Each request goes out with one CR unless it has one; each reply ends at the
// first prompt however the chunks split it, and whatever follows the prompt in
// its chunk is dropped ("/p" holds a prompt of its own, so it comes last).
TEST(UdsConnectionTest, ExchangesRequestsAndReplies) {
  const Strings exchanges = {
      "save", "", "ls /a\r", "abc\r\n", "ls /a\n", "No such file or directory\r\n", "ls /p", "x"};
  for (const Strings& arguments : {Strings{}, Strings{"--trailer", "junk/> "},
                                   Strings{"--chunk", "1", "--chunk-gap-ms", "2"}}) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    Simulator sim(kTree, arguments);
    UdsConnection connection;
    EXPECT_EQ("Ready", connection.statusText());
    EXPECT_TRUE(connection.sendLine(""));  // sends nothing
    std::string reply;
    for (size_t i = 0; i < exchanges.size(); i += 2) {
      EXPECT_TRUE(connection.execute(exchanges[i], reply));
      EXPECT_EQ(exchanges[i + 1], reply);
    }
    EXPECT_EQ((Strings{R"(save\r)", R"(ls /a\r)", R"(ls /a\n\r)", R"(ls /p\r)"}), sim.transcript());
  }
}

// A daemon that hangs up without its prompt leaves the reader waiting for
// good, but asleep: recv() returning 0 must not turn into a busy loop.
TEST(UdsConnectionTest, WaitsAsleepAfterAHangupWithoutPrompt) {
  Simulator sim(kTree, {"--hangup-at", "1"});
  pid_t child = fork();
  if (child == 0) {
    UdsConnection connection;
    std::string reply;
    connection.execute("ls /a", reply);
    _exit(0);
  }
  ASSERT_TRUE(sim.waitForRequests(1, 2s));
  std::this_thread::sleep_for(300ms);
  kill(child, SIGKILL);
  int status = 0;
  rusage usage = {};
  wait4(child, &status, 0, &usage);
  EXPECT_TRUE(WIFSIGNALED(status)) << "the read returned";
  EXPECT_LT((usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000 +
                (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000,
            50);  // CPU milliseconds
}

}  // namespace
