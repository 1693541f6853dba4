// What the tests run the program and its daemon in. ctest starts each test
// program in a sandbox of its own (tools/sandbox.py run): its own /tmp, so
// "/tmp/cffs_uds" is ours alone, its own /dev/log, and as a child subreaper,
// so detached children come back to it. Started any other way, it stops.
#ifndef TZR_TESTS_SUPPORT_HARNESS_H_
#define TZR_TESTS_SUPPORT_HARNESS_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "config_client/parameter_map.h"

using Strings = std::vector<std::string>;
using Millis = std::chrono::milliseconds;

// Checks `done` every millisecond until it holds or `limit` has passed.
bool waitUntil(const std::function<bool()>& done, Millis limit = Millis(5000));

// Live or unreaped children, detached ones included.
std::vector<pid_t> children();

// Reaps children as they end; true once none but `keep` is left in `limit`.
bool reapAllChildren(pid_t keep = 0, Millis limit = Millis(5000));

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
  // As user nobody allowed no second process, so that fork fails.
  bool forkFails = false;
  // Asked, with the output so far, while the program runs.
  std::function<bool(const CgiResult& sofar)> giveUpWhen = {};
};

// The server gives up when the output has not ended within `limit`.
CgiResult runCgi(const CgiRequest& request, Millis limit = Millis(5000));

// The default appliance configuration shipped with the simulator.
ParameterMap defaultTree();

// The daemon simulator on "/tmp/cffs_uds", with arguments such as faults.
class Simulator {
 public:
  explicit Simulator(const ParameterMap& tree, Strings arguments = {});
  ~Simulator();

  // The requests received, escaped as recorded: "save" arrives as save\r;
  // without the reads ("ls ...") unless `reads`.
  Strings transcript(bool reads = true) const;
  ParameterMap savedTree() const;
  pid_t pid() const { return pid_; }

 private:
  std::string directory_;  // tree.conf, transcript
  pid_t pid_;
};

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
