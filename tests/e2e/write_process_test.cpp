// The processes of writes: the detached child lets go of the web server, and
// a long run of writes leaves the daemon's saved tree as it should.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <thread>

#include "support/harness.h"

namespace {

const char kWrite[] = "write=/configuration/network/hostname&value=studio";
const std::string kReply =
    "Content-Type: application/json\n\n{ \"write\": \"\\/configuration\\/network\\/hostname\", "
    "\"value\": \"studio\", \"reply\": \"\" }\n";

// The reply must reach the web server while the child still works: the child
// is in a session of its own with its standard streams on /dev/null. Here it
// waits for good on a daemon that hung up at "apply" (after 33 reads and a
// put), and waits asleep.
TEST(WriteProcessTest, TheReplyEndsWhileTheDetachedChildWaits) {
  auto daemon = std::make_unique<Simulator>(defaultTree(), Strings{"--hangup-at", "35"});
  CgiResult result = runCgi({kWrite}, Millis(2000));
  EXPECT_FALSE(result.timedOut);
  EXPECT_EQ(kReply, result.output);
  ASSERT_TRUE(waitUntil([&] { return daemon->writes().size() == 2; }));
  std::vector<pid_t> orphans = children();
  orphans.erase(std::find(orphans.begin(), orphans.end(), daemon->pid()));
  ASSERT_EQ(1u, orphans.size());
  const pid_t child = orphans[0];
  EXPECT_EQ(child, getsid(child));
  for (const char* fd : {"0", "1", "2"}) {
    char target[64] = {};
    readlink(("/proc/" + std::to_string(child) + "/fd/" + fd).c_str(), target, sizeof target - 1);
    EXPECT_STREQ("/dev/null", target) << "descriptor " << fd;
  }
  // Asleep, not spinning: no CPU time over a third of a second.
  const auto cpuTicks = [child] {
    std::ifstream stat("/proc/" + std::to_string(child) + "/stat");
    const Strings fields{std::istream_iterator<std::string>(stat), {}};
    return std::stol(fields.at(13)) + std::stol(fields.at(14));  // user and system time
  };
  const long before = cpuTicks();
  std::this_thread::sleep_for(Millis(300));
  EXPECT_LE(cpuTicks() - before, 1);
  kill(child, SIGKILL);
  daemon.reset();
  EXPECT_TRUE(reapAllChildren());
}

// The shipped default configuration agrees with every rule: writing any of its
// parameters with the value it holds puts that one parameter and nothing else.
TEST(WriteProcessTest, RewritingAnyDefaultParameterPutsOnlyThatParameter) {
  const ParameterMap tree = defaultTree();
  Simulator daemon(tree);
  Strings expected;
  for (const auto& [path, value] : tree) {
    EXPECT_EQ(0, runCgi({"write=" + path + "&value=" + value}).exitStatus);
    expected.insert(expected.end(), {"put " + path + " " + value + "\\r", "apply\\r", "save\\r"});
    // This write's apply and save come before the next write's puts.
    ASSERT_TRUE(waitUntil([&] { return daemon.writes().size() >= expected.size(); })) << path;
  }
  EXPECT_EQ(expected, daemon.writes());
  EXPECT_EQ(tree, daemon.savedTree());
}

}  // namespace
