// Dispatch, and the parts of cgicc's parsing the program relies on: a
// library upgrade that changes one of them fails here.
#include <gtest/gtest.h>
#include <syslog.h>

#include "support/cgi_process.h"
#include "support/simulator.h"
#include "support/syslog_capture.h"

namespace {

using Strings = std::vector<std::string>;
using Env = decltype(CgiRequest::env);

const std::string kJson = "Content-Type: application/json\n\n";
const std::string kReadA = kJson + R"({ "\/a": "1" })" + "\n";
const std::string k500 = "HTTP/1.1 500 Internal Server Error\n\nException ";

const Strings kLsA = {R"(ls /a\r)"};
const Env kOverLimit = {{"CGICC_MAX_CONTENTLENGTH", "6"}};  // the body is 7 bytes

Log caught(const std::string& what) { return {{LOG_USER | LOG_ERR, "Caught exception " + what}}; }

CgiRequest post(Env env = {}, const char* method = "POST", const char* query = "") {
  return {method, query, "read=/a", "application/x-www-form-urlencoded", std::move(env)};
}

CgiRequest multipart(const char* blankLine) {
  CgiRequest request =
      postRequest(std::string("--XyZ\r\nContent-Disposition: form-data; name=\"read\"\r\n") +
                  blankLine + "/a\r\n--XyZ--\r\n");
  request.contentType = "multipart/form-data; boundary=XyZ";
  return request;
}

struct Row {
  CgiRequest request;
  std::string output;
  Strings sent;  // requests the daemon received
  int exitStatus = 0;
  Log log = {};
};

TEST(RequestEntryTest, DispatchesAsCgiccParses) {
  const std::string ab = kJson + R"({ "\/a": "1", "\/b": "2" })" + "\n";
  const Row rows[] = {
      {getRequest("READ=/a"), kReadA, kLsA},
      {getRequest("Read=/a"), kReadA, kLsA},
      {getRequest("read=/a&read=/b"), kReadA, kLsA},
      {getRequest("reads=/a&rea=/b&write=/c"), "", {}},  // names of another length
      {post({}, "POST", "read=/b"), kReadA, kLsA},
      {getRequest("read=/a,%0D%0A/b"), ab, {R"(ls /a\r)", R"(ls /b\r)"}},
      {getRequest("read=/a&write=/b&value=c"), kReadA, kLsA},
      {getRequest("write=/b"), "", {}},
      {getRequest("value=c"), "", {}},
      {post({{"CONTENT_LENGTH", "100"}}), k500 + "I/O error\n", {}, 0, caught("I/O error")},
      {multipart("\r\n"), kReadA, kLsA},
      {multipart(""), k500 + "Malformed input\n", {}, 0, caught("Malformed input")},
      {post(kOverLimit), "", {}, 1},
      {post(kOverLimit, "post"), "", {}, 1},
      {post(kOverLimit, "PUT"), "", {}, 1},
      {post({{"CGICC_MAX_CONTENTLENGTH", "7"}}), kReadA, kLsA},
      {post({{"CGICC_MAX_CONTENTLENGTH", "1"}, {"CONTENT_LENGTH", "99"}}, "GET", "read=/a"), kReadA,
       kLsA},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.request.method + " " + row.request.query + " " + row.request.body);
    Simulator sim(ParameterMap{{"/a", "1"}, {"/b", "2"}});
    SyslogCapture syslog;
    CgiResult result = runCgi(row.request);
    EXPECT_EQ(row.exitStatus, result.exitStatus);
    EXPECT_EQ(row.output, result.output);
    EXPECT_EQ(row.log, syslog.entries());
    EXPECT_EQ(row.sent, sim.transcript());
  }
}

TEST(RequestEntryTest, WriteAndValueGoToTheWriteService) {
  Simulator sim(defaultTree());
  SyslogCapture syslog;
  CgiResult result = runCgi(getRequest("write=/x&value=1"));
  EXPECT_EQ(0, result.exitStatus);
  EXPECT_EQ(kJson + R"({ "write": "\/x", "value": "1", "reply": "" })" + "\n", result.output);
  // The detached child still has apply and save to send: let it finish first.
  EXPECT_TRUE(syslog.waitFor("Applied and saved the parameter settings", std::chrono::seconds(5)));
}

}  // namespace
