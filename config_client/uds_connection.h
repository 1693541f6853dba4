// Transport to the configuration daemon: one Unix-domain stream socket at
// "/tmp/cffs_uds", a strictly lock-step dialogue of one request line (ended
// by a carriage return) and one reply (ended by the prompt "/> ").
//
// Socket errors never throw: each operation records its outcome as a
// UdsStatus plus the errno that came with it, and a failure closes the
// socket for good. Nothing reconnects; there is no time-out.
#ifndef TZR_CONFIG_CLIENT_UDS_CONNECTION_H_
#define TZR_CONFIG_CLIENT_UDS_CONNECTION_H_

#include <string>
#include <string_view>

enum class UdsStatus : int {
  Ready = 0,
  OpenFailed = 1,
  ConnectFailed = 2,
  WriteFailed = 3,
  WaitFailed = 4,  // kept for the message table; nothing sets it
  ReadFailed = 5,
};

class UdsConnection {
 public:
  // Connects and consumes the daemon's greeting. Check isOpen() afterwards.
  UdsConnection();
  ~UdsConnection();

  UdsConnection(const UdsConnection&) = delete;
  UdsConnection& operator=(const UdsConnection&) = delete;

  void open();
  void close();
  bool isOpen() const { return fd_ >= 0; }

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

  UdsStatus status() const { return static_cast<UdsStatus>(status_); }
  int savedErrno() const { return savedErrno_; }

 private:
  void fail(UdsStatus status, int error);

  int fd_;
  int status_;
  int savedErrno_;
  std::string line_;  // the line being sent, kept to reuse its buffer
};

#endif  // TZR_CONFIG_CLIENT_UDS_CONNECTION_H_
