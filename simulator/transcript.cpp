#include "simulator/transcript.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "simulator/escape.h"

Transcript::~Transcript() {
  if (fd_ >= 0) ::close(fd_);
}

bool Transcript::open(const std::string& file, std::string& error) {
  fd_ = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd_ >= 0) return true;
  error = std::strerror(errno);
  return false;
}

void Transcript::record(std::string_view request) {
  if (inMemory_) {
    std::lock_guard<std::mutex> hold(mutex_);
    lines_.push_back(escape(request));
  }
  if (fd_ < 0) return;
  const std::string line = escape(request) + "\n";
  ssize_t n;
  do {
    n = ::write(fd_, line.data(), line.size());
  } while (n < 0 && errno == EINTR);
  if (n == static_cast<ssize_t>(line.size()) || warned_) return;
  warned_ = true;
  std::fprintf(stderr, "cffs-sim: transcript write failed: %s\n",
               n < 0 ? std::strerror(errno) : "short write");
}

std::vector<std::string> Transcript::lines() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return lines_;
}
