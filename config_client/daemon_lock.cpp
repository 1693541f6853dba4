#include "config_client/daemon_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

namespace {

// Whether the file at `path`, of `file`, is not one to take turns on (see
// daemon_lock.h): then it logs why, in one line, and sets errno to EPERM.
bool refused(const char* path, const struct stat& file) {
  const uid_t owner = file.st_uid;
  if (S_ISREG(file.st_mode) && (owner == 0 || owner == ::geteuid())) return false;
  if (!S_ISREG(file.st_mode)) {
    syslog(LOG_ERR, "Refusing lock file %s: not a regular file", path);
  } else {
    syslog(LOG_ERR, "Refusing lock file %s: owned by uid %u", path, static_cast<unsigned>(owner));
  }
  errno = EPERM;
  return true;
}

// Opened for reading only: flock() needs no more, so a file that root created
// stays usable. Whatever is at the path, the open never waits (a FIFO's would,
// for a writer), follows a symbolic link or takes a terminal for ours; what it
// opened is checked after.
int openLockFile(const char* path) {
  const int flags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  int fd = ::open(path, flags);
  if (fd < 0 && errno == ENOENT) fd = ::open(path, flags | O_CREAT, 0644);
  struct stat file;
  if (fd < 0) {
    // What the kernel refused (a link, a socket, another's file it keeps us
    // from reading) is told in the log as well, with the kernel's errno.
    const int error = errno;
    if (::lstat(path, &file) == 0) refused(path, file);
    errno = error;
  } else if (::fstat(fd, &file) != 0 || refused(path, file)) {
    ::close(fd);
    fd = -1;
  }
  return fd;
}

void onTick(int) {}

// Blocks in flock() for an immediate hand-off, but a timer interrupts the
// wait once a second to see whether anybody still waits for the request;
// once nobody does, it gives up with ECANCELED.
bool waitFor(int fd, int operation, int replyFd) {
  struct sigaction tick = {}, saved;
  tick.sa_handler = onTick;  // and no SA_RESTART, so that flock() returns
  sigemptyset(&tick.sa_mask);
  ::sigaction(SIGALRM, &tick, &saved);
  const itimerval everySecond = {{1, 0}, {1, 0}}, stopped = {};
  ::setitimer(ITIMER_REAL, &everySecond, nullptr);
  int result;
  while ((result = ::flock(fd, operation)) != 0 && errno == EINTR) {
    if (replyAbandoned(replyFd)) {
      errno = ECANCELED;
      break;
    }
  }
  const int error = errno;
  ::setitimer(ITIMER_REAL, &stopped, nullptr);
  ::sigaction(SIGALRM, &saved, nullptr);
  errno = error;
  return result == 0;
}

// Takes `operation` on `lock` once first in the queue: taken at once when
// nobody queues and nobody is in the way, else after those ahead.
bool takeInTurn(int lock, int queue, int operation, int replyFd) {
  if (::flock(queue, LOCK_EX | LOCK_NB) == 0 && ::flock(lock, operation | LOCK_NB) == 0) {
    return true;
  }
  return waitFor(queue, LOCK_EX, replyFd) && waitFor(lock, operation, replyFd);
}

}  // namespace

bool DaemonLock::acquire(LockMode mode) {
  release();
  if (mode == LockMode::None) return true;
  fd_ = openLockFile(daemon_.lockPath);
  const int queue = fd_ < 0 ? -1 : openLockFile(daemon_.queuePath);
  const bool taken =
      queue >= 0 &&
      takeInTurn(fd_, queue, mode == LockMode::Shared ? LOCK_SH : LOCK_EX, daemon_.replyFd);
  const int error = errno;
  if (queue >= 0) ::close(queue);  // and with it the place in the queue
  if (!taken) release();
  errno = error;
  return taken;
}

void DaemonLock::release() {
  if (fd_ < 0) return;
  // Unlocked before it is closed: a copy of the descriptor that a child
  // inherited would otherwise keep the lock.
  ::flock(fd_, LOCK_UN);
  ::close(fd_);
  fd_ = -1;
}
