// The simulator's network side: one thread, one poll() loop, any number of
// clients on a Unix-domain stream socket.
//
// All sockets are non-blocking and every pause (--delay-ms, --chunk-gap-ms)
// is a due time in the connection's OutputQueue, never a sleep, so one slow
// or paused client does not hold up the others.  poll() sleeps until the
// earliest due time or the next socket event.
//
// The planted fault (options.h) happens once:
// - Fault::Reset: while it waits, requests are taken from the socket by
//   peeking first and consuming exactly through their CR, and only once a
//   whole request is in sight and is not the one; the one is left unread
//   and the connection closed: unread data at close() makes Linux fail the
//   peer's next recv() with ECONNRESET.  Replies still queued at that
//   moment are dropped.
// - Fault::HangUp: the request is read and recorded, then no more is read
//   and the connection is closed once replies to earlier requests have gone
//   out: the peer sees end of file.
// - Fault::HangUpAfterGreeting: the connection is shut for reading at once,
//   so that the peer's every send() fails with EPIPE, and closed once its
//   greeting has gone out.
//
// Per connection:
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
#include "simulator/transcript.h"
#include "simulator/tree.h"

// Removes a stale socket file at options.socketPath (one that refuses
// connections; a live one makes this fail instead), binds (and unless
// --no-listen listens), prints "ready\n" on stdout and serves until SIGTERM
// or SIGINT, then removes the socket file.  Returns the exit status: 0 after
// a signal, 1 if the socket cannot be set up, 2 if the transcript file
// cannot be opened.
int serve(const Options& options, Tree& tree);

// The same for a program that runs the simulator in a thread of its own,
// recording into `transcript` (options.transcriptFile is not looked at):
// once it listens it writes one byte to `readyFd`, and it serves until
// `stopFd` is readable (a pipe's read end whose write end was closed),
// leaving the process's signal handling alone.
int serveInThread(const Options& options, Tree& tree, Transcript& transcript, int readyFd,
                  int stopFd);

#endif  // TZR_SIMULATOR_SERVER_H_
