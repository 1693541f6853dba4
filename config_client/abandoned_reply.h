// The web server reads a request's reply from our standard output for as
// long as it waits for it, and closes its end when it gives up on the
// request (its time-out, or it stopped). A request that is still waiting,
// on the daemon or on the lock, then has nobody left to answer, and ends
// rather than live for nothing.
#ifndef TZR_CONFIG_CLIENT_ABANDONED_REPLY_H_
#define TZR_CONFIG_CLIENT_ABANDONED_REPLY_H_

#include <poll.h>
#include <unistd.h>

constexpr int kReplyFd = STDOUT_FILENO;

// poll()'s verdict on kReplyFd, asked for no event: the reader has gone. A
// reply that is a file or a terminal never reports it.
inline bool replyAbandoned(short revents) { return (revents & (POLLERR | POLLHUP)) != 0; }

// Whether the web server has stopped waiting, as of now.
bool replyAbandoned();

// Ends the request at once, without a word (exit status 0); the callers let
// go of their lock and their daemon connection first.
[[noreturn]] void endAbandonedRequest();

#endif  // TZR_CONFIG_CLIENT_ABANDONED_REPLY_H_
