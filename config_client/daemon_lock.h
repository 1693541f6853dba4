// Keeps requests that meet from mixing their dialogues with the daemon. A
// write computes its dependent parameters from what it reads and puts them
// all at the end: two writes that overlap would each compute from the
// other's old state, and a read in between would see half a write. So a
// write holds the lock exclusively from before its first read to after its
// last put, and a read shares it for its whole list.
//
// The lock is the kernel's (flock) on a file beside the daemon's socket
// (the appliance's is "/tmp/cffs_uds.lock"; daemon_setup.h), created (mode
// 0644) by the first request that finds it missing: a process that dies
// lets go of it, and one that waits for it holds no daemon connection. A
// request that meets no other takes it at once, and nothing it does changes.
//
// flock() hands a shared lock to a new reader whenever readers hold it, so
// under a steady stream of reads a write would wait for good. Every request
// therefore queues first, on a second file ("/tmp/cffs_uds.queue"), held
// exclusively only while it waits for the lock: a waiting write holds the
// queue, so new reads line up behind it while the earlier ones finish.
//
// Another user can plant either file in /tmp before the first request: only
// a regular file of ours (the effective user's) or root's is taken. Anything
// else is refused at once, with a line in the system log, and never waited
// on (opening a FIFO would wait for a writer).
#ifndef TZR_CONFIG_CLIENT_DAEMON_LOCK_H_
#define TZR_CONFIG_CLIENT_DAEMON_LOCK_H_

#include "config_client/daemon_setup.h"

enum class LockMode { None, Shared, Exclusive };

class DaemonLock {
 public:
  explicit DaemonLock(const DaemonSetup& daemon) : daemon_(daemon) {}
  ~DaemonLock() { release(); }

  DaemonLock(const DaemonLock&) = delete;
  DaemonLock& operator=(const DaemonLock&) = delete;

  // Waits until the lock is ours in `mode` (LockMode::None takes nothing).
  // While it waits it looks once a second whether anybody still waits for
  // the request's reply, and gives up when not: false with errno ECANCELED.
  // False, with errno set, when a lock file cannot be opened or created, or
  // is refused (EPERM, or the kernel's errno where the open failed).
  bool acquire(LockMode mode);

  // Lets go of the lock, if held. Also before a fork: a child would
  // otherwise share it.
  void release();

 private:
  const DaemonSetup daemon_;
  int fd_ = -1;
};

#endif  // TZR_CONFIG_CLIENT_DAEMON_LOCK_H_
