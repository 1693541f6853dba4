// Where a request finds the configuration daemon and the lock that gives
// requests their turns (daemon_lock.h), and how it learns that nobody waits
// for its reply any more. The program's own are fixed (cgi/main.cpp); a test
// puts its daemon and lock in a private temporary folder.
#ifndef TZR_CONFIG_CLIENT_DAEMON_SETUP_H_
#define TZR_CONFIG_CLIENT_DAEMON_SETUP_H_

#include <poll.h>

struct DaemonSetup {
  const char* socketPath;  // the daemon's Unix-domain socket
  const char* lockPath;    // the lock, beside the socket
  const char* queuePath;   // where requests queue for the lock
  // The descriptor the request's reply is written to. Its reader (the web
  // server) closes its end when it gives up on the request: a request that
  // is still waiting, on the daemon or for its turn, then has nobody left to
  // answer. -1: nobody to watch.
  int replyFd;
};

// poll()'s verdict on a reply descriptor, asked for no event: the reader has
// gone. A reply that is a file or a terminal never reports it.
inline bool readerGone(short revents) { return (revents & (POLLERR | POLLHUP)) != 0; }

// Whether the reader of `replyFd` has gone, as of now.
bool replyAbandoned(int replyFd);

#endif  // TZR_CONFIG_CLIENT_DAEMON_SETUP_H_
