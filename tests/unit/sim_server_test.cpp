// Runs the built cffs-sim and talks to it the way the CGI program does, to
// check the faults it injects are the ones a client really sees.

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "cffs_sim/tree.h"

namespace {

const std::string kGreeting = "Configuration daemon simulator\r\n/> ";

class SimServer : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/sim-server-test.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    socket_ = dir_ + "/uds";
  }

  void TearDown() override {
    for (int fd : clients_) close(fd);
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    std::filesystem::remove_all(dir_);
  }

  // Starts the simulator on a private socket and waits for "ready".
  void Start(std::vector<std::string> args) {
    args.insert(args.begin(), {TZR_SIM_PATH, "--socket", socket_});
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    pid_ = fork();
    ASSERT_GE(pid_, 0);
    if (pid_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      std::vector<char*> argv;
      for (std::string& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(out[1]);
    std::string said;
    char c;
    pollfd p = {out[0], POLLIN, 0};
    while (said.find('\n') == std::string::npos && poll(&p, 1, 5000) == 1 &&
           read(out[0], &c, 1) == 1) {
      said += c;
    }
    close(out[0]);
    ASSERT_EQ(said, "ready\n");
  }

  // SIGTERM must end the simulator with status 0 and take the socket file along.
  void StopCleanly() {
    ASSERT_EQ(kill(pid_, SIGTERM), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid_, &status, 0), pid_);
    pid_ = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_FALSE(std::filesystem::exists(socket_));
  }

  // A connected client with a receive timeout, or -1 with errno set.
  int Connect() {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, socket_.c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      const int saved = errno;
      close(fd);
      errno = saved;
      return -1;
    }
    timeval timeout = {5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    clients_.push_back(fd);
    return fd;
  }

  // Receives until the text ends in the prompt; *pieces gets what each recv()
  // returned.  Returns the last recv() result: > 0 when the prompt came.
  static ssize_t ReadReply(int fd, std::string* text, std::vector<std::string>* pieces = nullptr,
                           size_t trailer = 0) {
    text->clear();
    for (;;) {
      char buffer[4096];
      const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) return n;
      text->append(buffer, n);
      if (pieces) pieces->emplace_back(buffer, n);
      if (text->size() >= 3 + trailer && text->compare(text->size() - 3 - trailer, 3, "/> ") == 0) {
        return n;
      }
    }
  }

  static void Send(int fd, const std::string& request) {
    ASSERT_EQ(send(fd, request.data(), request.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(request.size()));
  }

  std::string Transcript() const {
    std::ifstream in(dir_ + "/transcript");
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  std::string dir_;
  std::string socket_;
  pid_t pid_ = -1;
  std::vector<int> clients_;
};

TEST_F(SimServer, ServesTheTreeSavesItAndRecordsEachRequest) {
  const std::string config = dir_ + "/tree.conf";
  std::string error;
  ASSERT_TRUE(cffs_sim::SaveTree({{"/n/host", "box"}}, config, &error)) << error;
  Start({"--config", config, "--transcript", dir_ + "/transcript"});
  const int fd = Connect();
  ASSERT_GE(fd, 0);
  std::string reply;
  ASSERT_GT(ReadReply(fd, &reply), 0);
  EXPECT_EQ(reply, kGreeting);

  const struct {
    std::string request;
    std::string reply;
  } exchange[] = {
      {"ls /n/host\r", "box\r\n/> "},
      {std::string("put /n/bin \"\0\xff\\\"\r", 17), "/> "},
      {"\nls /n\r", "bin\r\nhost\r\n/> "},
      {"save\r", "/> "},
  };
  for (const auto& step : exchange) {
    Send(fd, step.request);
    ASSERT_GT(ReadReply(fd, &reply), 0);
    EXPECT_EQ(reply, step.reply);
  }
  cffs_sim::Tree saved;
  ASSERT_TRUE(cffs_sim::LoadTree(config, &saved, &error)) << error;
  EXPECT_EQ(saved, (cffs_sim::Tree{{"/n/host", "box"}, {"/n/bin", std::string("\0\xff\\", 3)}}));
  EXPECT_EQ(Transcript(), "ls /n/host\\r\nput /n/bin \"\\x00\xff\\\\\"\\r\n\\nls /n\\r\nsave\\r\n");
  StopCleanly();
}

TEST_F(SimServer, ResetAtFailsTheClientsReadWithConnReset) {
  Start({"--reset-at", "2", "--transcript", dir_ + "/transcript"});
  const int fd = Connect();
  ASSERT_GE(fd, 0);
  std::string reply;
  ASSERT_GT(ReadReply(fd, &reply), 0);
  Send(fd, "ls /a\r\n");  // The LF must not count as request 2.
  ASSERT_GT(ReadReply(fd, &reply), 0);
  EXPECT_EQ(reply, "No such file or directory\r\n/> ");
  Send(fd, "ls /b\r");
  char byte;
  EXPECT_EQ(recv(fd, &byte, 1, 0), -1);
  EXPECT_EQ(errno, ECONNRESET) << std::strerror(errno);
  EXPECT_EQ(Transcript(), "ls /a\\r\n");  // Request 2 was never read.
  StopCleanly();
}

TEST_F(SimServer, HangupAtEndsTheStreamWithoutAReply) {
  const struct {
    const char* k;
    int replies_before;  // Greeting included.
  } cases[] = {{"0", 0}, {"1", 1}, {"3", 3}};
  for (const auto& c : cases) {
    Start({"--hangup-at", c.k});
    const int fd = Connect();
    ASSERT_GE(fd, 0);
    std::string reply;
    for (int i = 0; i < c.replies_before; ++i) {
      ASSERT_GT(ReadReply(fd, &reply), 0) << c.k;
      Send(fd, "apply\r");
    }
    EXPECT_EQ(ReadReply(fd, &reply), 0) << c.k;
    EXPECT_EQ(reply, "") << c.k;
    StopCleanly();
  }
}

TEST_F(SimServer, NoListenRefusesConnections) {
  Start({"--no-listen"});
  struct stat st;
  ASSERT_EQ(stat(socket_.c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(Connect(), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  StopCleanly();
}

TEST_F(SimServer, ChunksSplitThePromptAndTheTrailerRidesTheLastPiece) {
  const struct {
    std::vector<std::string> args;
    std::string trailer;
    std::string last_piece;
  } cases[] = {
      {{"--chunk", "2", "--chunk-gap-ms", "30"}, "", " "},  // 35 bytes: ... "/>", " ".
      {{"--chunk", "4", "--trailer", "JUNK\\r\\n"}, "JUNK\r\n", "/> JUNK\r\n"},
  };
  for (const auto& c : cases) {
    Start(c.args);
    const int fd = Connect();
    ASSERT_GE(fd, 0);
    std::string text;
    std::vector<std::string> pieces;
    ASSERT_GT(ReadReply(fd, &text, &pieces, c.trailer.size()), 0);
    EXPECT_EQ(text, kGreeting + c.trailer);
    EXPECT_EQ(pieces.back(), c.last_piece);
    EXPECT_GT(pieces.size(), 8u) << "pieces were merged";
    StopCleanly();
  }
}

TEST_F(SimServer, DelaysDoNotHoldUpOtherClients) {
  Start({"--delay-ms", "300"});
  const auto start = std::chrono::steady_clock::now();
  std::vector<int> fds;
  for (int i = 0; i < 4; ++i) fds.push_back(Connect());
  for (int fd : fds) {
    std::string reply;
    ASSERT_GT(ReadReply(fd, &reply), 0);
  }
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(elapsed, std::chrono::milliseconds(300));
  EXPECT_LT(elapsed, std::chrono::milliseconds(900));  // One after another would take 1200.
  StopCleanly();
}

}  // namespace
