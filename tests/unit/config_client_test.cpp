#include "config_client/config_client.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include "support/simulator.h"

namespace {

using Strings = std::vector<std::string>;

const ParameterMap kTree = {{"/a", " \t spaced  out \r"}, {"/b", "2"}};

// A CR, LF or NUL in a name would end the request early and pass the rest
// off as a command of its own: such reads are refused, sending nothing, and
// the connection goes on serving the next one.
TEST(ConfigClientTest, GetTrimsAnswersAndRefusesUnframableNames) {
  Simulator sim(kTree);
  ConfigClient client;
  const std::tuple<std::string, bool, std::string> rows[] = {
      {"/a", true, "spaced  out"},
      {"/none", true, "No such file or directory"},
      {"/a\rsave", false, ""},
      {"/b", true, "2"},
      {"/a\nsave", false, ""},
      {std::string("/a\0save", 7), false, ""},
      {"/b", true, "2"}};
  for (const auto& [name, ok, expected] : rows) {
    SCOPED_TRACE(testing::PrintToString(name));
    std::string value;
    EXPECT_EQ(ok, client.get(name, value));
    EXPECT_EQ(expected, value);
  }
  EXPECT_EQ((Strings{R"(ls /a\r)", R"(ls /none\r)", R"(ls /b\r)", R"(ls /b\r)"}), sim.transcript());
}

// A set with a CR, LF or NUL in any entry is refused whole: nothing is sent
// and the connection is closed. A clean set goes out in byte order of names.
TEST(ConfigClientTest, PutSendsTheWholeSetInByteOrderOrNothing) {
  Simulator sim(kTree);
  const ParameterMap refused[] = {{{"/a", "1"}, {"/b", "x\ry"}},
                                  {{"/a", "1"}, {"/b\n", "2"}},
                                  {{"/a", std::string("1\0", 2)}, {"/b", "2"}}};
  for (const ParameterMap& changes : refused) {
    ConfigClient client;
    std::string replies;
    EXPECT_FALSE(client.put(changes, replies)) << testing::PrintToString(changes);
    EXPECT_FALSE(client.isConnected());
  }
  ConfigClient client;
  std::string replies = "old";
  EXPECT_TRUE(client.put(ParameterMap{}, replies));
  EXPECT_EQ("", replies);
  EXPECT_TRUE(client.put({{"/b", "two words"}, {"/a", "1"}, {"/B", ""}}, replies));
  EXPECT_EQ((Strings{R"(put /B \r)", R"(put /a 1\r)", R"(put /b two words\r)"}), sim.transcript());
}

TEST(ConfigClientTest, PutStopsAtTheFirstFailedExchange) {
  Simulator sim(kTree, {"--reset-at", "2"});
  ConfigClient client;
  std::string replies, reply = "earlier", value = "\t old \r\n";
  // The empty name draws a usage answer, so the collected replies show.
  EXPECT_FALSE(client.put({{"", "1"}, {"/b", "3"}, {"/c", "4"}}, replies));
  EXPECT_EQ("Usage: put PATH VALUE\r\n", replies);
  EXPECT_FALSE(client.isConnected());
  EXPECT_EQ(std::string("UDS read failed: ") + strerror(ECONNRESET), client.statusText());
  EXPECT_FALSE(client.apply(reply));
  EXPECT_FALSE(client.save(reply));
  EXPECT_EQ("earlier", reply);
  EXPECT_FALSE(client.get("/b", value));
  EXPECT_EQ("old", value);
  EXPECT_EQ(Strings{R"(put  1\r)"}, sim.transcript());
}

}  // namespace
