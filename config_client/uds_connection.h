// Transport to the configuration daemon: one Unix-domain stream socket (the
// appliance's is "/tmp/cffs_uds"; daemon_setup.h), a strictly lock-step
// dialogue of one request line (ended by a carriage return) and one reply
// (ended by the prompt "/> ").
//
// Socket errors never throw: each operation records its outcome as a
// UdsStatus plus the errno that came with it, and a failure closes the
// socket for good. Nothing reconnects.
//
// How long a reply is waited for depends on who waits for it:
// - Attended (the request the web server runs, the default): for as long as
//   the web server waits, that is, while it keeps its end of the reply open
//   (DaemonSetup::replyFd). Once it closes it, the exchange (or the wait for
//   the lock) ends as UdsStatus::Abandoned, with the socket and the lock let
//   go: ending the request is the caller's business. A daemon that hangs up
//   mid-reply can never finish it: the connection lets go of its lock and
//   sleeps until the web server gives up.
// - Unattended (the detached child, which nobody waits for): a hang-up
//   fails the exchange at once (UdsStatus::ReadFailed, no errno), and so
//   does a daemon that sends nothing for the given time (ETIMEDOUT).
#ifndef TZR_CONFIG_CLIENT_UDS_CONNECTION_H_
#define TZR_CONFIG_CLIENT_UDS_CONNECTION_H_

#include <chrono>
#include <string>
#include <string_view>

#include "config_client/daemon_lock.h"

enum class UdsStatus : int {
  Ready = 0,
  OpenFailed = 1,  // also before the first open, and when the lock file cannot be opened
  ConnectFailed = 2,
  WriteFailed = 3,
  WaitFailed = 4,  // kept for the message table; nothing sets it
  ReadFailed = 5,
  Abandoned = 6,  // nobody waits for the reply any more
};

class UdsConnection {
 public:
  // Takes the lock in `lock` mode (daemon_lock.h), connects and consumes the
  // daemon's greeting. Check isOpen() afterwards. `daemon`'s paths must
  // outlive the connection.
  explicit UdsConnection(const DaemonSetup& daemon, LockMode lock = LockMode::None);
  ~UdsConnection();

  UdsConnection(const UdsConnection&) = delete;
  UdsConnection& operator=(const UdsConnection&) = delete;

  void close();  // the socket only: the lock is held until releaseLock()
  bool isOpen() const { return fd_ >= 0; }

  void releaseLock() { lock_.release(); }

  // From now on nobody waits for this process's replies (see above).
  void setUnattended(std::chrono::milliseconds limit);

  // Sends `line` with a carriage return appended unless it already ends in
  // one. An empty line sends nothing and succeeds.
  bool sendLine(std::string_view line);

  // Collects the daemon's answer up to the first prompt; `reply` receives the
  // text before it. On a closed connection `reply` is left untouched.
  bool readReply(std::string& reply);

  // sendLine, then readReply only if the send succeeded.
  bool execute(std::string_view request, std::string& reply);

  // "Ready", or the failure's message and, when an errno was saved, ": " and
  // its strerror text.
  std::string statusText() const;

  UdsStatus status() const { return status_; }
  int savedErrno() const { return savedErrno_; }

 private:
  // Only the constructor opens: it alone reads the greeting that follows.
  void open();
  void setStatus(UdsStatus status, int error);
  bool awaitReply();
  bool awaitAbandonment();
  bool abandon();  // the socket and the lock let go; false

  int fd_;
  UdsStatus status_;
  int savedErrno_;
  const DaemonSetup daemon_;
  const LockMode lockMode_;
  DaemonLock lock_;
  int unattendedLimitMs_ = -1;  // poll()'s time-out: -1 while attended
  std::string line_;            // the line being sent, kept to reuse its buffer
};

#endif  // TZR_CONFIG_CLIENT_UDS_CONNECTION_H_
