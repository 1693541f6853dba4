// Receives what the programs under test send to the system log: binds the
// datagram socket /dev/log of the private /dev (see isolation.h) and parses
// each message "<PRI>Mmm dd hh:mm:ss IDENT[PID]: TEXT".
#ifndef TZR_TESTS_SUPPORT_SYSLOG_CAPTURE_H_
#define TZR_TESTS_SUPPORT_SYSLOG_CAPTURE_H_

#include <sys/types.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

// (priority, message) pairs, the form in which tests compare log lines.
using Log = std::vector<std::pair<int, std::string>>;

struct LogLine {
  int priority = -1;  // facility | level, e.g. LOG_USER | LOG_INFO = 14
  std::string ident;
  pid_t pid = 0;
  std::string message;
  std::string raw;
};

class SyslogCapture {
 public:
  SyslogCapture();
  ~SyslogCapture();
  SyslogCapture(const SyslogCapture&) = delete;
  SyslogCapture& operator=(const SyslogCapture&) = delete;

  // Every line received so far, in arrival order (reads what is pending).
  const std::vector<LogLine>& lines();

  // The same lines as (priority, message) pairs.
  Log entries();

  // Waits until a line with exactly `message` has arrived, up to `limit`.
  bool waitFor(const std::string& message, std::chrono::milliseconds limit);

 private:
  void receive(int timeoutMs);

  int fd_;
  std::vector<LogLine> lines_;
};

#endif  // TZR_TESTS_SUPPORT_SYSLOG_CAPTURE_H_
