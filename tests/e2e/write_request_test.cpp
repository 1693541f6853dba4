// Write requests through the shipped binary against the daemon simulator: the
// reply, the puts, the log, then the detached child's apply, save and log.
#include <gtest/gtest.h>
#include <syslog.h>

#include "support/cgi_process.h"
#include "support/isolation.h"
#include "support/simulator.h"
#include "support/syslog_capture.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

// The detached child: none (no fork), one on a closed connection, or one that saves.
enum class Child { kNone, kCannotSend, kSaves };

struct Row {
  const char* what;
  std::string name, value;  // the form fields, the value URL-encoded
  ParameterMap stored;      // over the default tree
  std::vector<std::string> faults;
  std::string reply;
  Entries puts;  // in wire order
  Log log;       // of the request's own process
  Child child;
};

const char kApplied[] = "Applied and saved the parameter settings";
const int kInfo = LOG_USER | LOG_INFO;
const std::chrono::seconds kLimit(5);
const std::string k500 = "HTTP/1.1 500 Internal Server Error\n\n";

std::string enc(const std::string& p) { return "/configuration/encoders/" + p; }
std::string mux(const std::string& p) { return "/configuration/outputs/ts/muxer/mux" + p; }
std::string net(const std::string& p) { return "/configuration/network/" + p; }

// The JSON reply to a write of `name`; `value` and `reply` as they appear in it.
std::string json(std::string name, const std::string& value, const std::string& reply = "") {
  for (size_t i = 0; (i = name.find('/', i)) != std::string::npos; i += 2) name.insert(i, "\\");
  return "Content-Type: application/json\n\n{ \"write\": \"" + name + "\", \"value\": \"" + value +
         "\", \"reply\": \"" + reply + "\" }\n";
}

std::pair<int, std::string> set(const std::string& path, const std::string& value) {
  return {kInfo, "Setting parameter " + path + " to " + value};
}

// An out-of-range access of std::string's `what`, as reply and as log line.
std::string thrown(const std::string& what) {
  return k500 + "Exception basic_string::" + what + "\n";
}
std::pair<int, std::string> caught(const std::string& what) {
  return {LOG_USER | LOG_ERR, "Caught exception basic_string::" + what};
}

// What the daemon stores for a put: the value without one pair of quotes.
std::string unquote(const std::string& v) {
  return v.size() >= 2 && v.front() == '"' && v.back() == '"' ? v.substr(1, v.size() - 2) : v;
}

void check(const Row& row) {
  SCOPED_TRACE(row.what);
  ParameterMap tree = defaultTree();
  for (const auto& [path, value] : row.stored) tree[path] = value;
  SyslogCapture log;
  Simulator daemon(tree, row.faults);
  CgiResult result = runCgi(getRequest("write=" + row.name + "&value=" + row.value));
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.output, row.reply);
  EXPECT_TRUE(row.child == Child::kNone || log.waitFor(kApplied, kLimit));

  // Beside the reads: the puts, then apply and save when the child could send them.
  std::vector<std::string> expected;
  ParameterMap saved = tree;
  for (const auto& [path, value] : row.puts) {
    expected.push_back("put " + path + " " + value + "\\r");
    if (row.child == Child::kSaves && !path.empty()) saved[path] = unquote(value);
  }
  if (row.child == Child::kSaves) expected.insert(expected.end(), {"apply\\r", "save\\r"});
  EXPECT_EQ(daemon.writes(), expected);
  EXPECT_EQ(daemon.savedTree(), saved);

  Log own, child;
  pid_t childPid = 0;
  for (const LogLine& line : log.lines()) {
    (line.pid == result.pid ? own : child).emplace_back(line.priority, line.message);
    if (line.pid != result.pid) childPid = line.pid;
  }
  EXPECT_EQ(own, row.log);
  EXPECT_EQ(child, (row.child == Child::kNone ? Log{} : Log{{kInfo, kApplied}}));
  EXPECT_TRUE(childPid == 0 || reapChild(childPid, kLimit));
  EXPECT_EQ(childProcesses(), std::vector<pid_t>{daemon.pid()});  // no zombie either
}

const std::string kIp = net("ip_addr"), kCast = net("broadcast_addr"), kMask = net("subnet_mask");
const std::string kHost = net("hostname"), kTotal = mux("1/bitrate");
const std::string kVideo = enc("venc1/h264/bitrate"), kInput = "/configuration/inputs/video/mode";

// clang-format off
TEST(WriteRequest, StoresTheValueAndWhatFollowsFromIt) {
  const std::string rtsp = "/configuration/outputs/rtsp/streams/stream1/aenc";
  const std::string rtmp = "/configuration/outputs/rtmp/streams/stream1/aenc";
  const std::string in1 = enc("venc1/input"), in2 = enc("venc2/input");
  const std::string audio = mux("1/component2/encoder");
  const Row rows[] = {
      {"broadcast follows the address", kIp, "10.0.0.5", {}, {}, json(kIp, "10.0.0.5"),
       {{kCast, "10.0.0.255"}, {kIp, "10.0.0.5"}}, {set(kIp, "10.0.0.5"), set(kCast, "10.0.0.255")},
       Child::kSaves},
      {"empty value", kHost, "", {}, {}, json(kHost, "\\\"\\\""), {{kHost, "\"\""}},
       {set(kHost, "")}, Child::kSaves},
      {"value with a blank", kHost, "a%20b", {}, {}, json(kHost, "\\\"a b\\\""),
       {{kHost, "\"a b\""}}, {set(kHost, "a b")}, Child::kSaves},
      {"mux1 total, cbr", kVideo, "4000000", {{kTotal, "1"}}, {}, json(kVideo, "4000000"),
       {{kVideo, "4000000"}, {kTotal, "4466526"}},
       {set(kVideo, "4000000"), set(kTotal, "4466526")}, Child::kSaves},
      {"non-contiguous mask", kMask, "255.0.255.0", {{kIp, "10.1.2.3"}}, {},
       json(kMask, "255.0.255.0"), {{kCast, "10.255.2.255"}, {kMask, "255.0.255.0"}},
       {set(kMask, "255.0.255.0"), set(kCast, "10.255.2.255")}, Child::kSaves},
      // aenc2 now feeds mux1: 4210526 + 2*64000.
      {"single input 2", kInput, "single_2", {{rtmp, "off"}, {mux("2/component2/encoder"), "aenc3"},
       {mux("2/bitrate"), "1762666"}, {enc("aenc2/bitrate"), "64000"}}, {},
       json(kInput, "single_2"),
       {{in1, "in2"}, {in2, "in2"}, {kInput, "single_2"}, {rtsp, "2"}, {kTotal, "4338526"},
        {audio, "aenc2"}},
       {set(kInput, "single_2"), set(in1, "in2"), set(in2, "in2"), set(rtsp, "2"),
        set(audio, "aenc2"), set(kTotal, "4338526")}, Child::kSaves},
      // The simulator answers a put without a path with its usage text.
      {"the daemon's answer to put", "", "x", {}, {}, json("", "x", "Usage: put PATH VALUE\\r\\n"),
       {{"", "x"}}, {set("", "x"), {kInfo, "Reply from \"put\": Usage: put PATH VALUE\r\n"}},
       Child::kSaves}};
  for (const Row& row : rows) check(row);
}

TEST(WriteRequest, FailuresAnswer500) {
  const std::string venc = enc("venc"), stream = "/configuration/outputs/rtsp/streams/stream";
  const std::string at29 = "compare: __pos (which is 29) > this->size() (which is 28)";
  const std::string at43 = "compare: __pos (which is 43) > this->size() (which is 42)";
  const std::string at7 = "substr: __pos (which is 7) > this->size() (which is 6)";
  const Row rows[] = {
      {"venc without a number", venc, "1", {}, {}, thrown(at29), {},
       {set(venc, "1"), caught(at29)}, Child::kNone},
      {"stream without a number", stream, "1", {}, {}, thrown(at43), {},
       {set(stream, "1"), caught(at43)}, Child::kNone},
      {"single without an input", kInput, "single", {}, {}, thrown(at7), {},
       {set(kInput, "single"), caught(at7)}, Child::kNone},
      // 35 reads, then the broadcast address's put, then the address's.
      {"second put fails", kIp, "10.0.0.5", {}, {"--reset-at", "37"}, k500 + "\n",
       {{kCast, "10.0.0.255"}}, {set(kIp, "10.0.0.5"), set(kCast, "10.0.0.255")},
       Child::kCannotSend},
      {"daemon unreachable", kIp, "10.0.0.5", {}, {"--no-listen"}, k500, {}, {}, Child::kNone},
      {"line feed in the value", kHost, "x%0Ay", {}, {}, k500 + "\n", {}, {set(kHost, "x\ny")},
       Child::kCannotSend}};
  for (const Row& row : rows) check(row);
}
// clang-format on

}  // namespace
