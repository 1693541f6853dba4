#include "config_client/uds_connection.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "support/harness.h"

namespace {

const ParameterMap kTree = {{"/a", "abc"}, {"/g", ">x"}, {"/p", "x/> y"}};

// One CR ends each request unless it has one; a reply ends at the first prompt
// however chunks split it, the rest of its chunk dropped ("/p" holds a prompt).
TEST(UdsConnectionTest, ExchangesRequestsAndReplies) {
  const Strings exchanges = {
      "save",  "",       "ls /a\r", "abc\r\n", "ls /a\n", "No such file or directory\r\n",
      "ls /g", ">x\r\n", "ls /p",   "x"};
  for (const Strings& arguments : {Strings{}, Strings{"--trailer", "junk/> "},
                                   Strings{"--chunk", "1", "--chunk-gap-ms", "1"}}) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    Simulator sim(kTree, arguments);
    UdsConnection connection;
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

// Every failure closes the connection for good: later exchanges fail without
// touching their reply; a daemon gone is an error, never a SIGPIPE. Unattended,
// a hang-up or a silent daemon fails the exchange too.
TEST(UdsConnectionTest, FailuresCloseTheConnectionForGood) {
  signal(SIGPIPE, SIG_DFL);
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const struct {
    Strings daemon;  // the simulator's arguments, if one runs
    UdsStatus status;
    int error;
    std::string text;
    bool unattended = false;
  } rows[] = {{{}, UdsStatus::ConnectFailed, ENOENT, "UDS connect failed"},
              {{"--no-listen"}, UdsStatus::ConnectFailed, ECONNREFUSED, "UDS connect failed"},
              {{}, UdsStatus::OpenFailed, EMFILE, "UDS open failed"},  // no descriptor left
              {{}, UdsStatus::OpenFailed, ELOOP, "UDS open failed"},   // a link for a lock file
              {{"--reset-at", "1"}, UdsStatus::ReadFailed, ECONNRESET, "UDS read failed"},
              {{}, UdsStatus::WriteFailed, EPIPE, "UDS write failed"},  // greets, hangs up
              {{"--hangup-at", "1"}, UdsStatus::ReadFailed, 0, "UDS read failed", true},
              {{"--delay-command", "ls", "--delay-ms", "60000"},
               UdsStatus::ReadFailed,
               ETIMEDOUT,
               "UDS read failed",
               true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text + " " + strerror(row.error));
    std::unique_ptr<Simulator> sim(row.daemon.empty() ? nullptr : new Simulator(kTree, row.daemon));
    std::thread daemon;
    if (row.error == EPIPE) {
      int listener = socket(AF_UNIX, SOCK_STREAM, 0);
      sockaddr_un address = {AF_UNIX, "/tmp/cffs_uds"};
      ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
      ASSERT_EQ(0, listen(listener, 1));
      daemon = std::thread([listener] {
        const int peer = accept(listener, nullptr, nullptr);
        send(peer, "/> ", 3, 0);
        close(peer);
        close(listener);
        unlink("/tmp/cffs_uds");
      });
    }
    // The lowest free descriptor as the limit leaves no room for the socket.
    rlimit low = {static_cast<rlim_t>(dup(0)), limit.rlim_max};
    close(static_cast<int>(low.rlim_cur));
    if (row.error == EMFILE) setrlimit(RLIMIT_NOFILE, &low);
    if (row.error == ELOOP) symlink("/nowhere", "/tmp/cffs_uds.lock");
    UdsConnection connection(row.error == ELOOP ? LockMode::Shared : LockMode::None);
    setrlimit(RLIMIT_NOFILE, &limit);
    unlink("/tmp/cffs_uds.lock");
    if (daemon.joinable()) daemon.join();
    if (row.unattended) connection.setUnattended(Millis(50));
    std::string reply = "kept";
    EXPECT_FALSE(connection.isOpen() && connection.execute("ls /a", reply));
    EXPECT_EQ(row.status, connection.status());
    EXPECT_EQ(row.error, connection.savedErrno());
    EXPECT_EQ(row.error ? row.text + ": " + strerror(row.error) : row.text,
              connection.statusText());
    EXPECT_FALSE(connection.isOpen());
    reply = "kept";
    EXPECT_FALSE(connection.execute("ls /a", reply));
    EXPECT_FALSE(connection.readReply(reply));
    EXPECT_EQ("kept", reply);
  }
}

}  // namespace
