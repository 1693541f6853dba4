#include "config_client/uds_connection.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

namespace {

constexpr std::string_view kPrompt = "/> ";
constexpr size_t kChunkSize = 65536;
constexpr size_t kGrowth = 8;

const char* messageOf(UdsStatus status) {
  switch (status) {
    case UdsStatus::Ready:
      return "Ready";
    case UdsStatus::OpenFailed:
      return "UDS open failed";
    case UdsStatus::ConnectFailed:
      return "UDS connect failed";
    case UdsStatus::WriteFailed:
      return "UDS write failed";
    case UdsStatus::WaitFailed:
      return "UDS wait failed";
    case UdsStatus::ReadFailed:
      return "UDS read failed";
    case UdsStatus::Abandoned:
      return "Nobody waits for the reply";
  }
  return "";
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

}  // namespace

UdsConnection::UdsConnection(const DaemonSetup& daemon, LockMode lock)
    : fd_(-1),
      status_(UdsStatus::OpenFailed),
      savedErrno_(0),
      daemon_(daemon),
      lockMode_(lock),
      lock_(daemon) {
  open();
  std::string greeting;
  readReply(greeting);
}

UdsConnection::~UdsConnection() { close(); }

void UdsConnection::setStatus(UdsStatus status, int error) {
  status_ = status;
  savedErrno_ = error;
}

void UdsConnection::setUnattended(std::chrono::milliseconds limit) {
  unattendedLimitMs_ = static_cast<int>(limit.count());
}

void UdsConnection::open() {
  close();
  // Before connecting: a request that waits for the lock holds no
  // connection of the daemon's.
  if (!lock_.acquire(lockMode_)) {
    if (errno == ECANCELED) {
      setStatus(UdsStatus::Abandoned, 0);
    } else {
      setStatus(UdsStatus::OpenFailed, errno);
    }
    return;
  }
  fd_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd_ == -1) {
    setStatus(UdsStatus::OpenFailed, errno);
    return;
  }
  sockaddr_un address;
  memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  const size_t length = strlen(daemon_.socketPath);
  if (length >= sizeof(address.sun_path)) {
    setStatus(UdsStatus::ConnectFailed, ENAMETOOLONG);
    close();
    return;
  }
  memcpy(address.sun_path, daemon_.socketPath, length + 1);
  if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) < 0) {
    setStatus(UdsStatus::ConnectFailed, errno);
    close();
    return;
  }
  setStatus(UdsStatus::Ready, 0);
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
  // A short count is success: blocking, it comes only of a hang-up mid-line, which recv() meets.
  if (::send(fd_, line.data(), line.size(), MSG_NOSIGNAL) < 0) {
    setStatus(UdsStatus::WriteFailed, errno);
    close();
    return false;
  }
  setStatus(UdsStatus::Ready, 0);
  return true;
}

// Sleeps until the daemon has sent something (true). False, with the status
// set, when nobody waits for the reply any more, or, unattended, when the
// time limit has passed without a byte.
bool UdsConnection::awaitReply() {
  const bool attended = unattendedLimitMs_ < 0;
  pollfd fds[2] = {{fd_, POLLIN, 0}, {attended ? daemon_.replyFd : -1, 0, 0}};
  for (;;) {
    const int ready = ::poll(fds, 2, unattendedLimitMs_);
    if (ready == 0) {
      setStatus(UdsStatus::ReadFailed, ETIMEDOUT);
      close();
      return false;
    }
    if (ready < 0) {
      if (errno == EINTR) continue;
      return true;  // recv() then blocks and reports what is wrong
    }
    if (readerGone(fds[1].revents)) return abandon();
    if (fds[1].revents & POLLNVAL) fds[1].fd = -1;  // no output at all to watch
    if (fds[0].revents != 0) return true;
  }
}

bool UdsConnection::abandon() {
  setStatus(UdsStatus::Abandoned, 0);
  close();
  lock_.release();
  return false;
}

// A daemon that hung up can never finish the reply, so the request can
// never go on: it lets the others have the lock, and sleeps (never spins on
// the socket's end of file) until the web server gives up on it.
bool UdsConnection::awaitAbandonment() {
  lock_.release();
  pollfd reply = {daemon_.replyFd, 0, 0};
  for (;;) {
    if (::poll(&reply, 1, -1) < 0) continue;
    if (readerGone(reply.revents)) return abandon();
    if (reply.revents & POLLNVAL) reply.fd = -1;  // then only a signal ends us
  }
}

bool UdsConnection::readReply(std::string& reply) {
  if (fd_ == -1) return false;
  reply.clear();
  char buffer[kChunkSize];
  for (;;) {
    if (!awaitReply()) return false;
    ssize_t n = ::recv(fd_, buffer, kChunkSize, 0);
    if (n < 0) {
      setStatus(UdsStatus::ReadFailed, errno);
      close();
      return false;
    }
    if (n == 0) {
      if (unattendedLimitMs_ < 0) return awaitAbandonment();
      setStatus(UdsStatus::ReadFailed, 0);
      close();
      return false;
    }
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
      setStatus(UdsStatus::Ready, 0);
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
