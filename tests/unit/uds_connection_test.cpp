// The client's way to the daemon: the transport, and the lock giving turns.
#include "config_client/uds_connection.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "support/sim_daemon.h"

namespace {

const ParameterMap kTree = {{"/a", "abc"}, {"/g", ">x"}, {"/p", "x/> y"}};

// One CR ends each request unless it has one; a reply ends at the first prompt
// however chunks split it, the rest of its chunk dropped ("/p" holds a prompt).
TEST(UdsConnectionTest, ExchangesRequestsAndReplies) {
  const Strings exchanges = {
      "save",  "",       "ls /a\r", "abc\r\n", "ls /a\n", "No such file or directory\r\n",
      "ls /g", ">x\r\n", "ls /p",   "x"};
  Options trailing, chunked;
  trailing.trailer = "junk/> ";
  chunked.chunk = 1, chunked.chunkGapMs = 1;
  for (const Options& options : {Options(), trailing, chunked}) {
    SCOPED_TRACE(options.trailer + std::to_string(options.chunk));
    SimDaemon sim(kTree, options);
    UdsConnection connection(sim.setup());
    EXPECT_EQ("Ready", connection.statusText());
    EXPECT_TRUE(connection.sendLine(""));  // sends nothing
    std::string reply;
    for (size_t i = 0; i < exchanges.size(); i += 2) {
      EXPECT_TRUE(connection.execute(exchanges[i], reply));
      EXPECT_EQ(exchanges[i + 1], reply);
    }
    EXPECT_EQ((Strings{R"(save\r)", R"(ls /a\r)", R"(ls /a\n\r)", R"(ls /g\r)", R"(ls /p\r)"}),
              sim.transcript());
  }
}

// Every failure closes the connection for good, later exchanges failing without
// touching their reply; a daemon gone is an error, never a SIGPIPE. Unattended, a
// hang-up or silence fails; attended, the web server giving up does (Abandoned).
TEST(UdsConnectionTest, FailuresCloseTheConnectionForGood) {
  const std::string messages[] = {
      "Ready",           "UDS open failed", "UDS connect failed",        "UDS write failed",
      "UDS wait failed", "UDS read failed", "Nobody waits for the reply"};
  signal(SIGPIPE, SIG_DFL);
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const Options silent = delayed("ls", 5000);
  Options notListening;
  notListening.noListen = true;
  const Options hangUp = withFault(Fault::HangUp);
  const struct {
    const char* what;
    Options daemon;
    UdsStatus status;
    int error;
    bool unattended = false;
    bool givenUp = false;       // the web server gave up on the request
    bool givenUpLater = false;  // once the request has let go of the lock
  } rows[] = {
      {"no daemon", {}, UdsStatus::ConnectFailed, ENOENT},
      {"not listening", notListening, UdsStatus::ConnectFailed, ECONNREFUSED},
      {"no descriptor left", {}, UdsStatus::OpenFailed, EMFILE},
      {"reset", withFault(Fault::Reset), UdsStatus::ReadFailed, ECONNRESET},
      {"greets, hangs up", withFault(Fault::HangUpAfterGreeting), UdsStatus::WriteFailed, EPIPE},
      {"unattended hang-up", hangUp, UdsStatus::ReadFailed, 0, true},
      {"unattended, silent", silent, UdsStatus::ReadFailed, ETIMEDOUT, true},
      {"given up while the daemon is silent", silent, UdsStatus::Abandoned, 0, false, true},
      {"given up, unattended", silent, UdsStatus::ReadFailed, ETIMEDOUT, true, true},
      {"given up after a hang-up", hangUp, UdsStatus::Abandoned, 0, false, false, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    SimDaemon sim(kTree, row.daemon);
    ReplyPipe reply;
    DaemonSetup setup = sim.setup(reply.ends[1]);
    if (row.error == ENOENT) setup.socketPath = "/nowhere/cffs_uds";
    // The lowest free descriptor as the limit: the lock file's open fails first.
    rlimit low = {static_cast<rlim_t>(dup(0)), limit.rlim_max};
    close(static_cast<int>(low.rlim_cur));
    if (row.error == EMFILE) setrlimit(RLIMIT_NOFILE, &low);
    UdsConnection connection(setup, LockMode::Shared);
    setrlimit(RLIMIT_NOFILE, &limit);
    if (row.unattended) connection.setUnattended(Millis(50));
    if (row.givenUp) reply.giveUp();
    std::thread server = !row.givenUpLater ? std::thread() : std::thread([&] {
      EXPECT_TRUE(waitUntil([&] { return lockIsFree(setup.lockPath); }));
      reply.giveUp();
    });
    std::string text = "kept";
    EXPECT_FALSE(connection.isOpen() && connection.execute("ls /a", text));
    if (server.joinable()) server.join();
    EXPECT_EQ(row.status, connection.status());
    EXPECT_EQ(row.error, connection.savedErrno());
    const std::string error = row.error ? std::string(": ") + strerror(row.error) : "";
    EXPECT_EQ(messages[static_cast<int>(row.status)] + error, connection.statusText());
    EXPECT_FALSE(connection.isOpen());
    EXPECT_TRUE(row.status != UdsStatus::Abandoned || lockIsFree(setup.lockPath));
    if (connection.isOpen()) continue;
    text = "kept";
    EXPECT_FALSE(connection.execute("ls /a", text));
    EXPECT_FALSE(connection.readReply(text));
    EXPECT_EQ("kept", text);
  }
}

// Reads after a waiting write wait for it (it holds the queue): reads cannot starve
// a write. A lock file not a regular file of ours is refused, never waited on. Each
// row's request is given up on: a wait (an open stuck on a FIFO too) ends with
// ECANCELED at the next signal, every millisecond here; after 5 s the other lets go.
TEST(DaemonLockTest, ModesAndTurns) {
  const LockMode none = LockMode::None, shared = LockMode::Shared, exclusive = LockMode::Exclusive;
  const struct {
    const char* what;
    LockMode held;  // by another request
    LockMode asked;
    int error;                // 0: taken at once; ECANCELED: it would wait
    bool queued = false;      // another request waits for its turn
    bool connection = false;  // a connection asks: its status says
    mode_t planted = 0;       // at the lock path; a FIFO at the queue's
  } rows[] = {{"alone", none, exclusive, 0},
              {"reads share", shared, shared, 0},
              {"a write waits for a read", shared, exclusive, ECANCELED},
              {"a read waits for a write", exclusive, shared, ECANCELED},
              {"a write waits for a write", exclusive, exclusive, ECANCELED},
              {"a read waits behind a queued write", shared, shared, ECANCELED, true},
              {"nothing asked, nothing waited for", exclusive, none, 0, true},
              {"a connection in line: Abandoned", exclusive, shared, ECANCELED, false, true},
              {"a link for a lock file", none, shared, ELOOP, false, false, S_IFLNK},
              {"a directory for a lock file", none, shared, EPERM, false, false, S_IFDIR},
              {"a FIFO for the queue", none, shared, EPERM, false, false, S_IFIFO}};
  struct sigaction tick = {};
  tick.sa_handler = [](int) {};
  sigaction(SIGALRM, &tick, nullptr);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    SimDaemon sim({});
    ReplyPipe reply;
    if (row.planted == S_IFLNK) symlink("/nowhere", sim.lock.c_str());
    if (row.planted == S_IFDIR) mkdir(sim.lock.c_str(), 0755);
    if (row.planted == S_IFIFO) mkfifo(sim.queue.c_str(), 0644);
    DaemonLock other(sim.setup());
    ASSERT_TRUE(other.acquire(row.held));
    int queue = row.queued ? open(sim.setup().queuePath, O_RDONLY | O_CLOEXEC) : -1;
    EXPECT_EQ(0, row.queued ? flock(queue, LOCK_EX) : 0);
    reply.giveUp();
    std::atomic<bool> done = false;
    const pthread_t asker = pthread_self();
    std::thread waker([&] {
      if (waitUntil([&] { return pthread_kill(asker, SIGALRM), done.load(); })) return;
      other.release();
      close(queue);
      queue = -1;
    });
    const int error = [&] {
      if (row.connection) {
        const UdsConnection connection(sim.setup(reply.ends[1]), row.asked);
        return connection.status() == UdsStatus::Abandoned ? ECANCELED : 0;
      }
      DaemonLock lock(sim.setup(reply.ends[1]));
      return lock.acquire(row.asked) ? 0 : errno;
    }();
    done = true;
    waker.join();
    EXPECT_EQ(row.error, error);
    if (queue >= 0) close(queue);
  }
}

}  // namespace
