#include "config_client/uds_connection.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

namespace {

constexpr char kSocketPath[] = "/tmp/cffs_uds";
constexpr std::string_view kPrompt = "/> ";
constexpr size_t kChunkSize = 65536;
constexpr size_t kGrowth = 8;

const char* messageOf(int status) {
  switch (status) {
    case 0:
      return "Ready";
    case 1:
      return "UDS open failed";
    case 2:
      return "UDS connect failed";
    case 3:
      return "UDS write failed";
    case 4:
      return "UDS wait failed";
    case 5:
      return "UDS read failed";
    default:
      return "";
  }
}

// The first prompt at or after `from`. It looks for the '>', which values
// hold far more rarely than the '/' (every path has many).
size_t findPrompt(std::string_view text, size_t from) {
  for (size_t p = text.find('>', from + 1); p != std::string_view::npos;
       p = text.find('>', p + 1)) {
    if (text.compare(p - 1, kPrompt.size(), kPrompt) == 0) return p - 1;
  }
  return std::string_view::npos;
}

// A daemon that hung up without its prompt leaves the reply unfinished for
// good: every further recv() would return 0 at once. Wait asleep instead of
// spinning on it, until a signal (the web server's time-out) ends us.
[[noreturn]] void waitForever() {
  for (;;) pause();
}

}  // namespace

UdsConnection::UdsConnection()
    : fd_(-1), status_(static_cast<int>(UdsStatus::OpenFailed)), savedErrno_(0) {
  open();
  std::string greeting;
  readReply(greeting);
}

UdsConnection::~UdsConnection() { close(); }

void UdsConnection::fail(UdsStatus status, int error) {
  status_ = static_cast<int>(status);
  savedErrno_ = error;
}

void UdsConnection::open() {
  close();
  fd_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd_ == -1) {
    fail(UdsStatus::OpenFailed, errno);
    return;
  }
  sockaddr_un address;
  memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, kSocketPath, sizeof(kSocketPath));
  if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) < 0) {
    fail(UdsStatus::ConnectFailed, errno);
    close();
    return;
  }
  fail(UdsStatus::Ready, 0);
}

void UdsConnection::close() {
  if (fd_ != -1) {
    ::close(fd_);
    fd_ = -1;
  }
}

bool UdsConnection::sendLine(std::string_view line) {
  if (fd_ == -1) return false;
  if (line.empty()) return true;
  if (line.back() != '\r') {
    line_.assign(line.data(), line.size());
    line_ += '\r';
    line = line_;
  }
  // A short count is taken as success: requests are short single lines.
  if (::send(fd_, line.data(), line.size(), MSG_NOSIGNAL) < 0) {
    fail(UdsStatus::WriteFailed, errno);
    close();
    return false;
  }
  fail(UdsStatus::Ready, 0);
  return true;
}

bool UdsConnection::readReply(std::string& reply) {
  if (fd_ == -1) return false;
  reply.clear();
  char buffer[kChunkSize];
  for (;;) {
    ssize_t n = ::recv(fd_, buffer, kChunkSize, 0);
    if (n < 0) {
      fail(UdsStatus::ReadFailed, errno);
      close();
      return false;
    }
    if (n == 0) waitForever();
    // Only the new bytes and the two before them can hold a prompt that was
    // not there before, so the search stays linear in the reply's length.
    size_t from = reply.size() >= kPrompt.size() - 1 ? reply.size() - (kPrompt.size() - 1) : 0;
    // A reply that outgrows its string is a large one: growing eightfold
    // rather than twofold spares most of the copying and of the page faults
    // on fresh memory; the reserve that is never touched costs address space
    // only.
    if (reply.size() + n > reply.capacity()) {
      reply.reserve(std::max(reply.size() + n, kGrowth * reply.capacity()));
    }
    reply.append(buffer, static_cast<size_t>(n));
    size_t p = findPrompt(reply, from);
    if (p != std::string::npos) {
      reply.resize(p);
      fail(UdsStatus::Ready, 0);
      return true;
    }
  }
}

bool UdsConnection::execute(std::string_view request, std::string& reply) {
  if (!sendLine(request)) return false;
  return readReply(reply);
}

std::string UdsConnection::statusText() const {
  std::string text = messageOf(status_);
  if (savedErrno_ != 0) {
    text += ": ";
    text += strerror(savedErrno_);
  }
  return text;
}
