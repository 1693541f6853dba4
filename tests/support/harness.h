// The shipped program and its daemon for the end-to-end tier, which runs only in
// tools/sandbox.py's namespace (docs/testing.md): /tmp, /dev/log and orphans are ours.
#ifndef TZR_TESTS_SUPPORT_HARNESS_H_
#define TZR_TESTS_SUPPORT_HARNESS_H_

#include "support/sim_daemon.h"

// Live or unreaped children, detached ones included.
std::vector<pid_t> children();

// Reaps children as they end; true once none is left in `limit`.
bool reapAllChildren(Millis limit = Millis(5000));

// Whether `pid` takes no CPU time over a tenth of a second (no spinning wait).
bool asleep(pid_t pid);

// `limit` for something the program does, longer when a checker runs it.
Millis forProgram(Millis limit = Millis(5000));

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
  bool forkFails = false;  // run as a user of its own allowed one process: fork fails
  std::function<bool(const CgiResult& sofar)> giveUpWhen = {};  // asked as it runs
};

// One run of tzr4417.cgi as a web server makes it: stdout read until every holder
// lets go, or the server gives up (after `limit` or giveUpWhen: closes it, waits
// two seconds, kills). TZR_CGI_WRAPPER is a command to run it under (memcheck).
CgiResult runCgi(const CgiRequest& request, Millis limit = Millis(5000));

// `options` on the program's own socket, "/tmp/cffs_uds".
inline Options fixedSocket(Options options = {}) {
  options.socketPath = kApplianceSocket;
  return options;
}

using Log = std::vector<std::pair<int, std::string>>;  // (priority, message)

// Binds /dev/log; parses "<PRI>Mmm dd hh:mm:ss tzr4417.cgi[PID]: TEXT", others whole (-1).
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
