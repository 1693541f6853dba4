// The read path through the shipped program, one request per row.
#include <gtest/gtest.h>
#include <syslog.h>

#include <memory>

#include "support/cgi_process.h"
#include "support/simulator.h"
#include "support/syslog_capture.h"

namespace {

using Strings = std::vector<std::string>;

const Strings kNoDaemon = {"(none)"};
const std::string k500 = "HTTP/1.1 500 Internal Server Error\n\n";
const Strings kLsA = {R"(ls /a\r)"}, kLsAB = {R"(ls /a\r)", R"(ls /b\r)"};
const ParameterMap kTree = {{"/configuration/network/ip_addr", "192.168.1.10"},
                            {"/a", "1"},
                            {"/b", "two words"},
                            {"/q", "say \"hi\" \\ back\nx"},
                            {"/n", "no such file or directory"},
                            {"/t\tab", "tabbed"}};

std::string json(const std::string& body) {
  return "Content-Type: application/json\n\n" + body + (body.empty() ? "" : "\n");
}

struct Row {
  std::string query;
  std::string output;
  Strings sent;         // requests the daemon received
  Strings daemon = {};  // simulator arguments, or kNoDaemon
  Log log = {};
};

TEST(ReadRequestTest, AnswersThroughTheBinary) {
  const std::string ab = json(R"({ "\/a": "1", "\/b": "two words" })");
  const Row rows[] = {
      {"read=/configuration/network/ip_addr,/x+y,/nothing",
       json(R"({ "\/configuration\/network\/ip_addr": "192.168.1.10", )"
            R"("invalid": [ "/x y", "/nothing" ] })"),
       {R"(ls /configuration/network/ip_addr\r)", R"(ls /nothing\r)"}},
      {"read=,,", json(""), {}},
      {"read=/a,/a,", json(R"({ "\/a": "1", "\/a": "1" })"), {kLsA[0], kLsA[0]}},
      {"read=/a,%20/b", json(R"({ "\/a": "1", "invalid": [ " /b" ] })"), kLsA},
      {"read=/t%09ab", json(R"({ "\/t\tab": "tabbed" })"), {R"(ls /t\tab\r)"}},
      {"read=/q,/%22x%5C",
       json(R"({ "\/q": "say \"hi\" \\ back\nx", "invalid": [ "/"x\" ] })"),
       {R"(ls /q\r)", R"(ls /"x\\\r)"}},
      {"read=/n", json(R"({ "\/n": "no such file or directory" })"), {R"(ls /n\r)"}},
      {"read=", k500, {}, kNoDaemon},
      {"read=",
       "HTTP/1.1 400 Bad Request\n\n",
       {},
       {},
       {{LOG_USER | LOG_ERR, "No parameter names in read request"}}},
      {"read=/a", k500, {}, {"--no-listen"}},
      {"read=/a,/b,/a",
       json(R"({ "\/a": "1", "invalid": [ "/b", "/a" ] })"),
       kLsA,
       {"--reset-at", "2"}},
      {"read=/a,/b", ab, kLsAB, {"--chunk", "1", "--chunk-gap-ms", "2"}},
      {"read=/a,/b", ab, kLsAB, {"--trailer", "junk/> "}},
      // Only a NUL survives the stripping of "read"; the client refuses to send it.
      {"read=/b%00save,/a",
       json(R"({ "\/a": "1", "invalid": [ "/b)" + std::string(1, '\0') + R"(save" ] })"), kLsA},
      {"read=/nothing%0D%0Aapply,/a",
       json(R"({ "\/a": "1", "invalid": [ "/nothingapply" ] })"),
       {R"(ls /nothingapply\r)", R"(ls /a\r)"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.query + " " + testing::PrintToString(row.daemon));
    std::unique_ptr<Simulator> sim(row.daemon == kNoDaemon ? nullptr
                                                           : new Simulator(kTree, row.daemon));
    SyslogCapture syslog;
    CgiResult result = runCgi(getRequest(row.query));
    EXPECT_EQ(0, result.exitStatus);
    EXPECT_EQ(row.output, result.output);
    EXPECT_EQ(row.log, syslog.entries());
    EXPECT_EQ(row.sent, sim ? sim->transcript() : Strings{});
  }
}

}  // namespace
