// The shipped program as a web server runs it, for what only the whole process
// shows. What the rules, the client and the lock do is tabled in unit/.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <future>
#include <optional>
#include <regex>

#include "support/harness.h"

namespace {

const int kInfo = LOG_USER | LOG_INFO, kError = LOG_USER | LOG_ERR;
const std::string kJson = "Content-Type: application/json\n\n";
const std::string k400 = "HTTP/1.1 400 Bad Request\n\n";
const std::string k500 = "HTTP/1.1 500 Internal Server Error\n\n";
const std::string kRefused = k500 + "\n";  // a failed write that the daemon said nothing of
const char kLock[] = "/tmp/cffs_uds.lock", kQueue[] = "/tmp/cffs_uds.queue";  // the program's own
const Log kApplied = {{kInfo, "Applied and saved the parameter settings"}};
const ParameterMap kExtra = {{"/a", "1"},
                             {"/b", "two words"},
                             {"/u", "caf\xC3\xA9\x01"},
                             {"/q", "say \"hi\" \\ back\nx"},
                             {"/n", "no such file or directory"},
                             {"/t\tab", "tabbed"}};

// A request, the reply bytes it gets, what reached the daemon, and what else it does.
struct Row {
  CgiRequest request;
  std::string output;
  Strings sent = {};  // what reached the daemon; for a write, beside the rules' reads
  Log log = {};       // of the request's own process
  Log child = {};     // of the detached child
  std::optional<Options> daemon = Options();  // the simulator's, or none at all
  ParameterMap stored = {};                   // over the default configuration and kExtra
  int exitStatus = 0;
  std::string what = {};                 // for a row that pins a deliberate behaviour
  std::function<void()> lockFiles = {};  // made in place of the program's own, removed after

  Row named(std::string why) { return what = why, *this; }
  Row logs(Log lines) { return log = lines, *this; }
  Row childLogs(Log lines) { return child = lines, *this; }
  Row against(std::optional<Options> simulator) { return daemon = simulator, *this; }
  Row over(ParameterMap tree) { return stored = tree, *this; }
  Row exits(int status) { return exitStatus = status, *this; }
  Row finding(std::function<void()> make) { return lockFiles = make, *this; }
};

void check(const Row& row, bool write) {
  SCOPED_TRACE(row.what + " " + row.request.method + " " + row.request.query);
  ParameterMap tree = defaultTree();
  tree.insert(kExtra.begin(), kExtra.end());
  for (const auto& [path, value] : row.stored) tree[path] = value;
  SyslogCapture log;
  if (row.lockFiles) std::remove(kLock), std::remove(kQueue), row.lockFiles();
  {
    std::optional<InProcessSimulator> sim;
    if (row.daemon) sim.emplace(tree, fixedSocket(*row.daemon));
    CgiResult result = runCgi(row.request);
    EXPECT_EQ(row.exitStatus, result.exitStatus);
    EXPECT_EQ(row.output, result.output);
    waitUntil([&] { return log.of(result.pid, true).size() >= row.child.size(); }, forProgram());
    EXPECT_EQ(row.sent, sim ? sim->transcript(!write) : Strings{});
    EXPECT_EQ(row.daemon && row.daemon->fault != Fault::None, sim && sim->faulted());
    EXPECT_EQ(row.log, log.of(result.pid));
    EXPECT_EQ(row.child, log.of(result.pid, true));
  }
  if (row.lockFiles) std::remove(kLock), std::remove(kQueue);
  EXPECT_TRUE(reapAllChildren()) << "a process was left";
}

// main() ends it at once, status 1, before cgicc sets aside the body it claims.
Row tooLong(CgiRequest request) { return Row{request, ""}.exits(1); }

std::string json(const std::string& line) { return kJson + line + "\n"; }

using Env = std::vector<std::pair<std::string, std::string>>;

CgiRequest post(std::string body, Env env = {}, const char* method = "POST",
                const char* query = "") {
  return {query, method, body, "application/x-www-form-urlencoded", env};
}

std::string times(int count, const std::string& text) {
  std::string all;
  while (count-- > 0) all += text;
  return all;
}

TEST(RequestTest, ReadsAndDispatch) {
  const std::string a = json(R"({ "\/a": "1" })");
  const Strings lsA = {R"(ls /a\r)"}, lsAB = {R"(ls /a\r)", R"(ls /b\r)"};
  const Env limit6 = {{"CGICC_MAX_CONTENTLENGTH", "6"}};  // 7 bytes: read=/a
  CgiRequest answered = {"read=/a,/b"};  // given up on once the headers are in and it waits
  answered.giveUpWhen = [](const CgiResult& r) { return !r.output.empty() && asleep(r.pid); };
  const Row rows[] = {
      {{"read=/a,/x+y,/nothing,/t%09ab,/a%zz,/n,/b%2"},
       json(R"({ "\/a": "1", "\/t\tab": "tabbed", "\/n": "no such file or directory", )"
            R"("invalid": [ "/x y", "/nothing", "/a%zz", "/b%2" ] })"),
       {R"(ls /a\r)", R"(ls /nothing\r)", R"(ls /t\tab\r)", R"(ls /a%zz\r)", R"(ls /n\r)",
        R"(ls /b%2\r)"}},
      {{"read=,,"}, kJson},
      {{"read=/a,/a,"}, json(R"({ "\/a": "1", "\/a": "1" })"), {lsA[0], lsA[0]}},
      // Values escaped, raw bytes passed as they are; invalid names as received.
      Row{{"read=/q,/u,/%22x%5C,/%C3%A9%01"},
          json("{ \"\\/q\": \"say \\\"hi\\\" \\\\ back\\nx\", \"\\/u\": \"caf\xC3\xA9\x01\", "
               "\"invalid\": [ \"/\"x\\\", \"/\xC3\xA9\x01\" ] }"),
          {R"(ls /q\r)", R"(ls /u\r)", R"(ls /"x\\\r)", "ls /\xC3\xA9\\x01\\r"}}
          .named("invalid names deliberately as received (invalid JSON)"),
      // Line breaks are stripped from the list; a NUL is never sent.
      {{"read=/a,%0D%0A/b"}, json(R"({ "\/a": "1", "\/b": "two words" })"), lsAB},
      Row{{"read=/b%00save,/a"},
          json(R"({ "\/a": "1", "invalid": [ "/b)" + std::string(1, '\0') + R"(save" ] })"),
          lsA}
          .named("a NUL never sent; the name deliberately as received"),
      {{"read=" + times(10000, "/a,")},
       json("{ " + times(9999, R"("\/a": "1", )") + R"("\/a": "1" })"),
       Strings(10000, lsA[0])},
      {post("read=" + times(200000, "/x+y,")),
       json(R"({ "invalid": [ )" + times(199999, R"("/x y", )") + R"("/x y" ] })")},
      Row{{"read="}, k400}.logs({{kError, "No parameter names in read request"}}),
      Row{{"read="}, k500}.against(std::nullopt),
      // Lock files that another user could have planted: refused at once, and logged
      // (a FIFO, a directory and the queue's file: unit/'s DaemonLockTest).
      Row{{"read=/a"}, k500}
          .finding([] { EXPECT_EQ(0, symlink(kQueue, kLock)); })
          .logs({{kError, "Refusing lock file /tmp/cffs_uds.lock: not a regular file"}}),
      Row{{"read=/a"}, k500}
          .finding([] { EXPECT_EQ(0, mknod(kLock, S_IFREG | 0644, 0) + chown(kLock, 1000, 0)); })
          .logs({{kError, "Refusing lock file /tmp/cffs_uds.lock: owned by uid 1000"}}),
      Row{{"read=/a,/b,/a"}, json(R"({ "\/a": "1", "invalid": [ "/b", "/a" ] })"), lsA}.against(
          withFault(Fault::Reset, "ls /b")),
      // The headers leave before the dialogue, even one that never finishes.
      Row{answered, kJson, lsAB}.against(withFault(Fault::HangUp, "ls /b")),
      // A read goes before a write; a write needs a value; nothing asked, nothing answered.
      {{"read=/a&write=/b&value=c"}, a, lsA},
      {{"value=c"}, ""},
      {{"write=/c"}, ""},
      // CGICC_MAX_CONTENTLENGTH holds for POST or PUT, before cgicc sets memory aside.
      tooLong(post("read=/a", limit6)),
      tooLong(post("read=/a", limit6, "put")),
      {post("read=/a", {{"CGICC_MAX_CONTENTLENGTH", "7"}}), a, lsA},
      {post("read=/a", {{"CGICC_MAX_CONTENTLENGTH", "1"}, {"CONTENT_LENGTH", "99"}}, "GET",
            "read=/a"),
       a, lsA},
      tooLong(
          post("read=/a", {{"CGICC_MAX_CONTENTLENGTH", "100"}, {"CONTENT_LENGTH", "4294967296"}})),
      tooLong(post("read=/a", {{"CGICC_MAX_CONTENTLENGTH", "100"}, {"CONTENT_LENGTH", "-1"}})),
  };
  for (const Row& row : rows) check(row, false);
}

// The reply to a write that went through; the name's '/' escaped, `value` as shown.
std::string written(const std::string& name, const std::string& value, const char* reply = "") {
  return kJson + "{ \"write\": \"" + std::regex_replace(name, std::regex("/"), "\\/") +
         "\", \"value\": \"" + value + "\", \"reply\": \"" + reply + "\" }\n";
}

std::pair<int, std::string> set(const std::string& path, const std::string& value) {
  return {kInfo, "Setting parameter " + path + " to " + value};
}

std::string put(const std::string& p, const std::string& v) { return "put " + p + " " + v + "\\r"; }

// A write that goes through: `value` as in the query, `shown` as in the reply.
Row through(const std::string& name, const std::string& value, const std::string& shown,
            Strings puts, const Log& log) {
  puts.insert(puts.end(), {"apply\\r", "save\\r"});  // the detached child's
  Row row = {{"write=" + name + "&value=" + value}, written(name, shown), puts};
  return row.logs(log).childLogs(kApplied);
}

TEST(RequestTest, Writes) {
  const std::string host = "/configuration/network/hostname", venc = "/configuration/encoders/venc";
  const std::string out = "/configuration/outputs/", mux = out + "ts/muxer/mux1/";
  const std::string rtsp = out + "rtsp/streams/stream1/aenc",
                    rtmp = out + "rtmp/streams/stream1/aenc";
  const std::string total = mux + "bitrate", audio = mux + "component2/encoder";
  const std::string recorder = out + "recorder/enable", autoFc = venc + "1/frame_ctrl/auto";
  const std::string mode = "/configuration/inputs/video/mode";
  const std::string tooShort =
      "basic_string::compare: __pos (which is 29) > this->size() (which is 28)";
  CgiRequest forkFails = {"write=" + host + "&value=studio"};
  forkFails.forkFails = true;
  const auto refused = [&](const std::string& value, const std::string& logged) {
    return Row{{"write=" + mode + "&value=" + value}, kRefused}
        .logs({set(mode, logged)})
        .childLogs(kApplied)
        .named("refused, yet \"Applied and saved\" logged");
  };
  const Row rows[] = {
      through(host, "", R"(\"\")", {put(host, "\"\"")}, {set(host, "")}),
      through(host, "a%20b", R"(\"a b\")", {put(host, "\"a b\"")}, {set(host, "a b")}),
      through(host, "a%0Bb", "\\\"a\vb\\\"", {put(host, "\"a\\x0Bb\"")}, {set(host, "a\vb")}),
      through(host, "a%0Cb", R"(\"a\fb\")", {put(host, "\"a\\x0Cb\"")}, {set(host, "a\fb")}),
      through(host, "a%09b", R"(\"a\tb\")", {put(host, "\"a\\tb\"")}, {set(host, "a\tb")}),
      through(host, "caf%C3%A9%01", "caf\xC3\xA9\x01", {put(host, "caf\xC3\xA9\\x01")},
              {set(host, "caf\xC3\xA9\x01")}),
      // The daemon answers a put too long for it, and the answer is shown;
      // the "Setting" line is too long for the system log, which drops it.
      Row{post("write=" + host + "&value=" + times(1 << 20, "x")),
          written(host, times(1 << 20, "x"), R"(Request too long\r\n)"),
          {"put " + host + " " + times(28, "x") + "... (1048613 bytes)", "apply\\r", "save\\r"}}
          .logs({{kInfo, "Reply from \"put\": Request too long\r\n"}})
          .childLogs(kApplied),
      // The written value is recorded first: a rule may replace it.
      through(autoFc, "no", "no", {put(autoFc, "yes")}, {set(autoFc, "no"), set(autoFc, "yes")})
          .over({{autoFc, "no"}}),
      // Each rule sees what the earlier ones recorded, in the multiplexer's total.
      through(rtsp, "3", "3",
              {put(rtmp, "3"), put(rtsp, "3"), put(total, "4402526"), put(audio, "aenc3")},
              {set(rtsp, "3"), set(rtmp, "3"), set(audio, "aenc3"), set(total, "4402526")}),
      // A failed put answers 500 with the daemon's text; the child sends nothing,
      // logs the put's answer under apply's and save's labels.
      Row{{"write=&value=x"}, k500 + "Usage: put PATH VALUE\r\n\n", {"put  x\\r"}}
          .logs({set("", "x"), set(recorder, "yes")})
          .childLogs({{kInfo, "Reply from \"apply\": Usage: put PATH VALUE\r\n"},
                      {kInfo, "Reply from \"save\": Usage: put PATH VALUE\r\n"},
                      kApplied[0]})
          .against(withFault(Fault::Reset, "put " + recorder))
          .named("a failed put, yet \"Applied and saved\" logged")
          .over({{recorder, "no"}}),
      // When fork fails, the one process applies and saves before it ends.
      Row{forkFails, written(host, "studio"), {put(host, "studio"), "apply\\r", "save\\r"}}.logs(
          {set(host, "studio"),
           {LOG_USER | LOG_WARNING, "Failed to fork child process, continuing in parent process"},
           kApplied[0]}),
      Row{{"write=" + host + "&value=x"}, k500}.against(std::nullopt),
      // Too short for a rule's compare: main() answers 500 and logs the exception.
      Row{{"write=" + venc + "&value=1"}, k500 + "Exception " + tooShort + "\n"}.logs(
          {set(venc, "1"), {kError, "Caught exception " + tooShort}}),
      // A line break is quoted first, so no rule takes "single\n2" for single_2; the client
      // then refuses the value (unit/), the child logs "Applied and saved" all the same.
      refused("single%0A2", "single\n2"),
      refused("single%0D2", "single\r2"),
  };
  for (const Row& row : rows) check(row, true);
}

// A request under way in a thread, until it ends or the server gives up on it.
struct Pending {
  explicit Pending(const std::string& query)
      : result(std::async(std::launch::async, [this, query] {
          CgiRequest request = {query};
          request.giveUpWhen = [this](const CgiResult& sofar) {
            return pid = sofar.pid, givenUp.load();
          };
          return runCgi(request, Millis(60000));
        })) {}
  ~Pending() { givenUp = true; }
  CgiResult giveUp() { return givenUp = true, result.get(); }
  bool comesToSleep() {
    return waitUntil([this] { return pid && asleep(pid); }, forProgram());
  }

  std::atomic<pid_t> pid = 0;
  std::atomic<bool> givenUp = false;
  std::future<CgiResult> result;  // last: it runs once givenUp exists
};

// docs/testing.md, "A daemon that goes away"; that a request asleep lets go of
// the lock is the connection's unit row.
TEST(RequestTest, TheDaemonGoesAwayDuringAWrite) {
  const std::string query = "write=/configuration/network/ip_addr&value=10.0.0.5";
  const std::string reply = written("/configuration/network/ip_addr", "10.0.0.5");
  const std::string sleeping = "", lastPut = "put /configuration/network/ip_addr";
  // clang-format off
  const struct {
    Fault fault;
    std::string at, output;  // `sleeping`: it waits until the web server gives up
  } rows[] = {{Fault::HangUpAfterGreeting, "", kRefused},
              {Fault::Reset, "ls ", kRefused},   {Fault::HangUp, "ls ", sleeping},
              {Fault::Reset, "put ", kRefused},  {Fault::HangUp, "put ", sleeping},
              {Fault::Reset, lastPut, kRefused}, {Fault::HangUp, lastPut, sleeping},
              {Fault::Reset, "apply", reply},    {Fault::HangUp, "apply", reply},
              {Fault::Reset, "save", reply},     {Fault::HangUp, "save", reply}};
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.at + (row.fault == Fault::Reset ? " reset" : " hang-up"));
    InProcessSimulator sim(defaultTree(), fixedSocket(withFault(row.fault, row.at)));
    const bool waits = row.output == sleeping;
    Pending request(query);
    EXPECT_TRUE(!waits || request.comesToSleep()) << "never asleep";
    const CgiResult result = waits ? request.giveUp() : request.result.get();
    EXPECT_EQ(row.output, result.output);
    EXPECT_EQ(0, result.exitStatus) << "killed";
    EXPECT_TRUE(reapAllChildren(Millis(1000)));
    EXPECT_TRUE(sim.faulted());
  }
  // A daemon that does not answer apply: the child waits asleep, in a session
  // of its own, the web server's streams and the lock let go.
  InProcessSimulator sim(defaultTree(), fixedSocket(delayed("apply", 60000)));
  EXPECT_EQ(reply, runCgi({query}).output);
  std::vector<pid_t> left;  // the request was reaped: the child alone
  const auto alone = [&] { return (left = children()).size() == 1 && asleep(left[0]); };
  ASSERT_TRUE(waitUntil(alone, forProgram()));
  const pid_t child = left[0];
  for (const char* fd : {"/fd/0", "/fd/1", "/fd/2"}) {
    EXPECT_EQ("/dev/null", std::filesystem::read_symlink("/proc/" + std::to_string(child) + fd));
  }
  EXPECT_EQ(child, getsid(child));
  EXPECT_TRUE(lockIsFree(kLock));
  kill(child, SIGKILL);
}

// A second request started while the first is under way (the daemon slowed to
// widen the window) ends as it would after the first, and so does the
// configuration: else a write computes from old values, a read sees half a write.
TEST(RequestTest, RequestsThatMeetTakeTurns) {
  const std::string net = "write=/configuration/network/";
  const struct {
    std::string first, second;
    Options daemon;
    std::string secondAfter = "";  // the daemon has seen a request that starts so
  } rows[] = {
      {net + "ip_addr&value=10.0.0.5", net + "subnet_mask&value=255.255.0.0", delayed("", 3)},
      {net + "ip_addr&value=10.0.0.5",
       "read=/configuration/network/ip_addr,/configuration/network/broadcast_addr",
       delayed("put", 300), "put /configuration/network/broadcast_addr"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.first + " then " + row.second);
    Strings alone;
    ParameterMap saved;
    {
      InProcessSimulator sim(defaultTree(), fixedSocket());
      for (const std::string& query : {row.first, row.second}) {
        alone.push_back(runCgi({query}).output);
        ASSERT_TRUE(reapAllChildren());
      }
      saved = sim.savedTree();
    }
    InProcessSimulator sim(defaultTree(), fixedSocket(row.daemon));
    Pending first(row.first);
    const auto seen = [&] {
      const Strings sent = sim.transcript();
      return std::any_of(sent.begin(), sent.end(), [&](const std::string& line) {
        return line.rfind(row.secondAfter, 0) == 0;
      });
    };
    EXPECT_TRUE(waitUntil(seen, forProgram()));
    const CgiResult second = runCgi({row.second});
    EXPECT_EQ(alone, (Strings{first.result.get().output, second.output}));
    EXPECT_TRUE(reapAllChildren());
    EXPECT_EQ(saved, sim.savedTree());
  }
}

// A request stuck on a silent daemon, and the one waiting its turn, each end by
// themselves once the web server gives up on them; the next write goes through.
TEST(RequestTest, RequestsThatNobodyWaitsForEndAndPassTheirTurnOn) {
  // Silent from the first read on, long before the write is done.
  std::optional<InProcessSimulator> silent(std::in_place, defaultTree(),
                                           fixedSocket(delayed("ls", 600000)));
  const std::string write = "write=/configuration/network/hostname&value=";
  Pending stuck(write + "stuck");
  ASSERT_TRUE(waitUntil([&] { return !silent->transcript().empty(); }, forProgram()));
  Pending queued(write + "queued");
  ASSERT_TRUE(queued.comesToSleep());
  // It waits for its turn before connecting: no daemon connection, no socket.
  for (const auto& fd :
       std::filesystem::directory_iterator("/proc/" + std::to_string(queued.pid) + "/fd")) {
    std::error_code gone;  // a descriptor that an emulator closed meanwhile
    EXPECT_EQ(std::string::npos, std::filesystem::read_symlink(fd, gone).string().find("socket:"));
  }
  EXPECT_EQ(0, queued.giveUp().exitStatus) << "killed";
  EXPECT_EQ(0, stuck.giveUp().exitStatus) << "killed";
  silent.reset();
  InProcessSimulator sim(defaultTree(), fixedSocket());
  EXPECT_EQ(written("/configuration/network/hostname", "next"), runCgi({write + "next"}).output);
  EXPECT_TRUE(reapAllChildren());
  EXPECT_EQ("next", sim.savedTree().at("/configuration/network/hostname"));
}

}  // namespace
