// The simulator's network side: one thread, one poll() loop, any number of
// clients on a Unix-domain stream socket.
//
// All sockets are non-blocking and every pause (--delay-ms, --chunk-gap-ms)
// is a due time in the connection's OutputQueue, never a sleep, so one slow
// or paused client does not hold up the others.  poll() sleeps until the
// earliest due time or the next socket event.
//
// Per connection, with requests counted from 1:
// - --reset-at K: request K is never read.  Requests before it are taken
//   from the socket by peeking first and consuming exactly through their CR;
//   once request K-1 is answered, the first byte of anything else (a lone
//   leading LF aside) closes the connection.  Unread data at close() makes
//   Linux fail the peer's next recv() with ECONNRESET.  Replies still queued
//   at that moment are dropped.
// - --hangup-at K: request K is read and recorded, then no more is read and
//   the connection is closed once replies to earlier requests have gone out:
//   the peer sees end of file.  K = 0 closes right after accept().
// - A request longer than kMaxRequestBytes is answered "Request too long"
//   and not carried out; the transcript keeps its first 64 bytes, "... (",
//   its length and " bytes)". Memory stays bounded while it arrives.
// - A client whose unsent replies pile up past 1 MiB is not read from until
//   it reads some of them.
//
// Every send() uses MSG_NOSIGNAL (and serve() ignores SIGPIPE too); a peer
// that vanishes only ends its own connection.

#ifndef TZR_SIMULATOR_SERVER_H_
#define TZR_SIMULATOR_SERVER_H_

#include "simulator/options.h"
#include "simulator/tree.h"

// Removes a stale socket file at options.socketPath (one that refuses
// connections; a live one makes this fail instead), binds (and unless
// --no-listen listens), prints "ready\n" on stdout and serves until SIGTERM
// or SIGINT, then removes the socket file.  Returns the exit status: 0 after
// a signal, 1 if the socket cannot be set up, 2 if the transcript file
// cannot be opened.
int serve(const Options& options, Tree& tree);

// The same for a test that runs the simulator in a thread of its own: once
// it listens it writes one byte to `readyFd`, and it serves until `stopFd`
// is readable (a pipe's read end whose write end was closed), leaving the
// process's signal handling alone.
int serveInThread(const Options& options, Tree& tree, int readyFd, int stopFd);

#endif  // TZR_SIMULATOR_SERVER_H_
