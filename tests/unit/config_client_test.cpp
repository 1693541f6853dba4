#include "config_client/config_client.h"

#include <gtest/gtest.h>

#include "support/sim_daemon.h"

namespace {

const ParameterMap kTree = {{"/a", " \t spaced  out \r"}, {"/b", "2"}};

// A CR, LF or NUL in a name would pass the rest off as a command of its own:
// such reads are refused, sending nothing, and the connection goes on.
TEST(ConfigClientTest, GetTrimsAnswersAndRefusesUnframableNames) {
  SimDaemon sim(kTree);
  ConfigClient client(sim.setup());
  const std::tuple<std::string, bool, std::string> rows[] = {
      {"/a", true, "spaced  out"},
      {"/none", true, "No such file or directory"},
      {"/a\rsave", false, "untouched"},
      {"/a\nsave", false, "untouched"},
      {std::string("/a\0save", 7), false, "untouched"},
      {"/b", true, "2"}};
  for (const auto& [name, ok, expected] : rows) {
    SCOPED_TRACE(testing::PrintToString(name));
    std::string value = "untouched";
    EXPECT_EQ(ok, client.get(name, value));
    EXPECT_EQ(expected, value);
  }
  EXPECT_EQ((Strings{R"(ls /a\r)", R"(ls /none\r)", R"(ls /b\r)"}), sim.transcript());
}

// A set goes out in byte order of names; blanks in values, empty values and names too.
TEST(ConfigClientTest, PutSendsTheSetInByteOrderOfNames) {
  SimDaemon sim(kTree);
  ConfigClient client(sim.setup());
  std::string replies = "old";
  EXPECT_TRUE(client.put(ParameterMap{}, replies));
  EXPECT_EQ("", replies);
  EXPECT_TRUE(client.put({{"/b", "two words"}, {"/a", "1\t\v\f"}, {"/B", ""}, {"", "x"}}, replies));
  EXPECT_EQ("Usage: put PATH VALUE\r\n", replies);
  EXPECT_TRUE(client.put("/c", "3", replies));
  EXPECT_EQ("Ready", client.statusText());
  EXPECT_EQ((Strings{R"(put  x\r)", R"(put /B \r)", R"(put /a 1\t\x0B\x0C\r)",
                     R"(put /b two words\r)", R"(put /c 3\r)"}),
            sim.transcript());
}

// A set that cannot go out as one line per entry with a one-word name, or that
// would store the daemon's prompt, is refused whole: nothing is sent, even of
// its sound entries, and the connection is closed as after a failed write.
TEST(ConfigClientTest, PutRefusesASetThatCannotGoOutAsOneLineAnEntry) {
  const std::string nul("\0", 1);
  const ParameterMap rows[] = {
      {{"/a", "single\n2"}},  {{"/a", "single\r2"}},   {{"/a", "x" + nul + "y"}},
      {{"/a\rapply", "x"}},   {{"/a\n", "x"}},         {{"/a" + nul, "x"}},
      {{"/a 10.9.9.9", "x"}}, {{"/a\t10.9.9.9", "x"}}, {{"/a\v1", "x"}},
      {{"/a\f1", "x"}},       {{"/a", "a/> b"}},       {{"/a", "sound"}, {"/b", "x\n"}}};
  for (const ParameterMap& changes : rows) {
    SCOPED_TRACE(testing::PrintToString(changes));
    SimDaemon sim(kTree);
    ConfigClient client(sim.setup());
    std::string replies;
    EXPECT_FALSE(client.put(changes, replies));
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(Strings{}, sim.transcript());
  }
}

}  // namespace
