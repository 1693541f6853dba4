#include "support/syslog_capture.h"

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>

namespace {

const char kLogPath[] = "/dev/log";

LogLine parse(const std::string& raw) {
  LogLine line;
  line.raw = raw;
  size_t close = raw.find('>');
  if (raw.empty() || raw[0] != '<' || close == std::string::npos) return line;
  line.priority = atoi(raw.c_str() + 1);
  // "Mmm dd hh:mm:ss " is 16 characters.
  size_t ident = close + 1 + 16;
  size_t open = raw.find('[', ident);
  size_t end = raw.find("]: ", ident);
  if (open == std::string::npos || end == std::string::npos || end < open) return line;
  line.ident = raw.substr(ident, open - ident);
  line.pid = atoi(raw.c_str() + open + 1);
  line.message = raw.substr(end + 3);
  return line;
}

}  // namespace

SyslogCapture::SyslogCapture() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address;
  memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, kLogPath);
  unlink(kLogPath);
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    throw std::runtime_error(std::string("cannot bind /dev/log: ") + strerror(errno));
  }
}

SyslogCapture::~SyslogCapture() {
  close(fd_);
  unlink(kLogPath);
}

void SyslogCapture::receive(int timeoutMs) {
  pollfd ready = {fd_, POLLIN, 0};
  char buffer[8192];
  while (poll(&ready, 1, timeoutMs) > 0) {
    ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
    if (n < 0) break;
    lines_.push_back(parse(std::string(buffer, static_cast<size_t>(n))));
    timeoutMs = 0;
  }
}

const std::vector<LogLine>& SyslogCapture::lines() {
  receive(0);
  return lines_;
}

Log SyslogCapture::entries() {
  Log log;
  for (const LogLine& line : lines()) log.emplace_back(line.priority, line.message);
  return log;
}

bool SyslogCapture::waitFor(const std::string& message, std::chrono::milliseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    for (const LogLine& line : lines())
      if (line.message == message) return true;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    receive(static_cast<int>(left.count()));
  }
}
