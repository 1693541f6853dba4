// What the end-to-end tests run the shipped program and its daemon in. ctest
// starts each such test program in a sandbox of its own (tools/sandbox.py
// run, as root): its own /tmp, so "/tmp/cffs_uds", the program's fixed
// socket, is ours alone, its own /dev/log, and as a child subreaper, so
// detached children come back to it. Started any other way, it stops. The
// simulator runs in the test's own process.
#ifndef TZR_TESTS_SUPPORT_HARNESS_H_
#define TZR_TESTS_SUPPORT_HARNESS_H_

#include <utility>

#include "support/sim_daemon.h"

// Live or unreaped children, detached ones included.
std::vector<pid_t> children();

// Reaps children as they end; true once none is left in `limit`.
bool reapAllChildren(Millis limit = Millis(5000));

// Whether `pid` takes no CPU time over a tenth of a second (no spinning wait).
bool asleep(pid_t pid);

// `limit` for something the program does, longer when a checker runs it.
Millis forProgram(Millis limit);

// One run of the shipped tzr4417.cgi as a web server makes it: a CGI
// environment, the body on stdin, stdout until every holder lets go of it or
// the server gives up: it closes stdout, gives the program two seconds to end,
// then kills it. TZR_CGI_WRAPPER is a command to run it under (memcheck).
struct CgiResult {
  std::string output;
  int exitStatus = -1;  // unless it exited normally
  pid_t pid = 0;
};

struct CgiRequest {
  std::string query = {};
  std::string method = "GET";
  std::string body = {};  // CONTENT_LENGTH is its size unless `env` sets one
  std::string contentType = "application/x-www-form-urlencoded";
  std::vector<std::pair<std::string, std::string>> env = {};
  // As a user that no other process is, allowed no second process: fork fails.
  bool forkFails = false;
  // Asked, with the output so far, while the program runs.
  std::function<bool(const CgiResult& sofar)> giveUpWhen = {};
};

// The server gives up when the output has not ended within `limit`.
CgiResult runCgi(const CgiRequest& request, Millis limit = Millis(5000));

// `options` (such as a fault) on the program's own socket, "/tmp/cffs_uds":
// InProcessSimulator sim(tree, fixedSocket(withFault(...))).
Options fixedSocket(Options options = {});

// (priority, message) pairs, e.g. (LOG_USER | LOG_INFO, "Setting ...").
using Log = std::vector<std::pair<int, std::string>>;

// Binds /dev/log and parses "<PRI>Mmm dd hh:mm:ss tzr4417.cgi[PID]: TEXT"
// (any other datagram whole, priority -1).
class SyslogCapture {
 public:
  SyslogCapture();
  ~SyslogCapture();

  // The lines of process `pid`, or of every other process.
  Log of(pid_t pid, bool others = false);

 private:
  int fd_;
  std::vector<std::pair<pid_t, Log::value_type>> lines_;  // by process
};

#endif  // TZR_TESTS_SUPPORT_HARNESS_H_
