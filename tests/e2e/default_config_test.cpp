// The shipped default configuration agrees with every rule: writing any of
// its parameters with the value it already holds puts that one parameter and
// nothing else.
#include <gtest/gtest.h>

#include <thread>

#include "support/cgi_process.h"
#include "support/isolation.h"
#include "support/simulator.h"

namespace {

TEST(DefaultConfig, RewritingAnyParameterPutsOnlyThatParameter) {
  const ParameterMap tree = defaultTree();
  Simulator daemon(tree);
  std::vector<std::string> expected;
  for (const auto& [path, value] : tree) {
    ASSERT_EQ(value.find(' '), std::string::npos) << "would be quoted: " << path;
    EXPECT_EQ(runCgi(getRequest("write=" + path + "&value=" + value)).exitStatus, 0) << path;
    expected.insert(expected.end(), {"put " + path + " " + value + "\\r", "apply\\r", "save\\r"});
    // This write's apply and save come before the next write's puts.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (daemon.writes().size() < expected.size() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  EXPECT_EQ(daemon.writes(), expected);
  EXPECT_EQ(daemon.savedTree(), tree);
  for (pid_t child : childProcesses()) {
    if (child != daemon.pid()) {
      EXPECT_TRUE(reapChild(child, std::chrono::seconds(5)));
    }
  }
}

}  // namespace
