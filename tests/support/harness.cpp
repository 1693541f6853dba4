#include "support/harness.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <thread>

namespace {

void check(bool ok, const char* what) {
  if (ok) return;
  fprintf(stderr, "test harness: %s: %s\n", what, strerror(errno));
  abort();
}

[[noreturn]] void execCgi(const CgiRequest& request, int in, int out) {
  dup2(in, 0);
  dup2(out, 1);
  signal(SIGPIPE, SIG_DFL);
  // cgicc needs no more than this; a sanitizer's options pass on.
  std::map<std::string, std::string> variables = {
      {"REQUEST_METHOD", request.method},
      {"QUERY_STRING", request.query},
      {"CONTENT_LENGTH", std::to_string(request.body.size())},
      {"CONTENT_TYPE", request.contentType}};
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS"}) {
    if (getenv(name)) variables[name] = getenv(name);
  }
  for (const auto& [name, value] : request.env) variables[name] = value;
  if (request.forkFails) {
    // An emulated process has a helper thread of the emulator's beside it.
    const rlim_t tasks = std::string(TZR_EMULATOR).empty() ? 1 : 2;
    rlimit limit = {tasks, tasks};
    // A user of the test program's own, above any real one's: the kernel counts a
    // user's processes machine-wide, so the limit holds for the program alone.
    const uid_t alone = 2000000000 + static_cast<uid_t>(getppid());
    check(setrlimit(RLIMIT_NPROC, &limit) == 0 && setgid(alone) == 0 && setuid(alone) == 0,
          "become a user of its own");
#ifdef __SANITIZE_ADDRESS__
    // LeakSanitizer needs a process of its own, which the limit forbids.
    variables["ASAN_OPTIONS"] += ":detect_leaks=0";
#endif
  }
  std::vector<std::string> env;
  std::vector<char*> envp;
  for (const auto& [name, value] : variables) env.push_back(name + "=" + value);
  for (std::string& entry : env) envp.push_back(entry.data());
  envp.push_back(nullptr);
  const char* wrapper = getenv("TZR_CGI_WRAPPER");
  std::istringstream words(std::string(wrapper ? wrapper : "") + " " + TZR_EMULATOR);
  Strings command{std::istream_iterator<std::string>(words), {}};
  command.push_back(TZR_CGI_PATH);
  std::vector<char*> argv;
  for (std::string& word : command) argv.push_back(word.data());
  argv.push_back(nullptr);
  execvpe(argv[0], argv.data(), envp.data());
  _exit(127);
}

// Outside its sandbox a test would meet the machine's own daemon and syslog.
struct Sandboxed : testing::Environment {
  void SetUp() override {
    errno = EPERM;
    check(getenv("TZR_SANDBOX") != nullptr, "run me through tools/sandbox.py run (ctest does)");
    umask(0);  // what the harness makes is open to a program run as another user
  }
};
testing::Environment* const kSandboxed = testing::AddGlobalTestEnvironment(new Sandboxed);

}  // namespace

std::vector<pid_t> children() {
  // An orphan may be handed to any thread of a subreaper: ask every one.
  std::vector<pid_t> pids;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream list(task.path() / "children");
    for (pid_t pid; list >> pid;) pids.push_back(pid);
  }
  return pids;
}

bool asleep(pid_t pid) {
  const auto ticks = [pid] {  // user and system time; -1 once the process is gone
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    const Strings fields{std::istream_iterator<std::string>(stat), {}};
    return fields.size() > 14 ? std::stol(fields[13]) + std::stol(fields[14]) : -1;
  };
  const long before = ticks();
  std::this_thread::sleep_for(Millis(100));
  const long after = ticks();
  return before >= 0 && after >= 0 && after - before <= 1;
}

bool reapAllChildren(Millis limit) {
  return waitUntil(
      [] {
        while (waitpid(-1, nullptr, WNOHANG) > 0) continue;
        return children().empty();
      },
      forProgram(limit));
}

Millis forProgram(Millis limit) { return getenv("TZR_CGI_WRAPPER") ? 20 * limit : limit; }

CgiResult runCgi(const CgiRequest& request, Millis limit) {
  int in[2], out[2];
  check(pipe2(in, O_CLOEXEC) == 0 && pipe2(out, O_CLOEXEC) == 0, "pipe");
  CgiResult result;
  result.pid = fork();
  if (result.pid == 0) execCgi(request, in[0], out[1]);
  close(in[0]);
  close(out[1]);
  // Body and reply move together, neither blocking; one that stops reading must not kill us.
  signal(SIGPIPE, SIG_IGN);
  fcntl(in[1], F_SETFL, O_NONBLOCK);
  fcntl(out[0], F_SETFL, O_NONBLOCK);
  size_t sent = 0;
  waitUntil(
      [&] {
        ssize_t n = 0;
        while (in[1] >= 0 && sent < request.body.size() &&
               (n = write(in[1], request.body.data() + sent, request.body.size() - sent)) > 0) {
          sent += static_cast<size_t>(n);
        }
        if (in[1] >= 0 && (sent == request.body.size() || (n < 0 && errno == EPIPE))) {
          close(in[1]);
          in[1] = -1;
        }
        char buffer[65536];
        while ((n = read(out[0], buffer, sizeof buffer)) > 0) result.output.append(buffer, n);
        return n == 0 || (request.giveUpWhen && request.giveUpWhen(result));
      },
      forProgram(limit));
  if (in[1] >= 0) close(in[1]);
  close(out[0]);
  int status = 0;
  if (!waitUntil([&] { return waitpid(result.pid, &status, WNOHANG) != 0; },
                 forProgram(Millis(2000)))) {
    kill(result.pid, SIGKILL);
    waitpid(result.pid, &status, 0);
  }
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  return result;
}

SyslogCapture::SyslogCapture() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address = {AF_UNIX, "/dev/log"};
  unlink(address.sun_path);
  check(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0, "bind /dev/log");
  chmod(address.sun_path, 0666);  // for a program run as another user
}

SyslogCapture::~SyslogCapture() {
  close(fd_);
  unlink("/dev/log");
}

Log SyslogCapture::of(pid_t pid, bool others) {
  char buffer[65536];
  for (ssize_t n; (n = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT)) >= 0;) {
    const std::string raw(buffer, static_cast<size_t>(n));
    int priority = -1, from = 0, text = 0;  // text: past "]:", once all before it matched
    sscanf(raw.c_str(), "<%d>%*15c tzr4417.cgi[%d]:%n", &priority, &from, &text);
    lines_.push_back({text ? from : 0, {text ? priority : -1, text ? raw.substr(text + 1) : raw}});
  }
  Log log;
  for (const auto& [from, line] : lines_) {
    if ((from == pid) != others) log.push_back(line);
  }
  return log;
}
