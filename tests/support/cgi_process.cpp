#include "support/cgi_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <map>

namespace {

std::map<std::string, std::string> environmentOf(const CgiRequest& request) {
  std::map<std::string, std::string> env = {
      {"GATEWAY_INTERFACE", "CGI/1.1"},
      {"SERVER_PROTOCOL", "HTTP/1.1"},
      {"SERVER_SOFTWARE", "test"},
      {"SERVER_NAME", "127.0.0.1"},
      {"SERVER_PORT", "80"},
      {"REMOTE_ADDR", "127.0.0.1"},
      {"SCRIPT_NAME", "/cgi-bin/tzr4417.cgi"},
      {"PATH", "/usr/bin:/bin"},
      {"REQUEST_METHOD", request.method},
      {"QUERY_STRING", request.query},
  };
  if (!request.body.empty() || request.method == "POST") {
    env["CONTENT_LENGTH"] = std::to_string(request.body.size());
    env["CONTENT_TYPE"] = request.contentType;
  }
  for (const auto& [name, value] : request.env) env[name] = value;
  return env;
}

}  // namespace

CgiRequest getRequest(const std::string& query) {
  CgiRequest request;
  request.query = query;
  return request;
}

CgiRequest postRequest(const std::string& body) {
  CgiRequest request;
  request.method = "POST";
  request.body = body;
  return request;
}

CgiResult runCgi(const CgiRequest& request, int timeoutMs) {
  int in[2];
  int out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) abort();
  std::vector<std::string> env;
  for (const auto& [name, value] : environmentOf(request)) env.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (std::string& entry : env) envp.push_back(entry.data());
  envp.push_back(nullptr);

  CgiResult result;
  result.pid = fork();
  if (result.pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    if (request.forkFails) {
      const uid_t nobody = 65534;
      rlimit one = {1, 1};
      if (setrlimit(RLIMIT_NPROC, &one) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0) {
        _exit(126);
      }
    }
    char* argv[] = {const_cast<char*>(TZR_CGI_PATH), nullptr};
    execve(TZR_CGI_PATH, argv, envp.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  // The body fits the pipe's buffer in every test; a reader that stops early
  // must not kill us.
  signal(SIGPIPE, SIG_IGN);
  if (!request.body.empty() && write(in[1], request.body.data(), request.body.size()) < 0) {
  }
  close(in[1]);

  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  char buffer[4096];
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now())
                    .count();
    pollfd ready = {out[0], POLLIN, 0};
    if (left <= 0 || poll(&ready, 1, static_cast<int>(left)) <= 0) {
      result.timedOut = true;
      kill(result.pid, SIGKILL);
      break;
    }
    ssize_t n = read(out[0], buffer, sizeof(buffer));
    if (n <= 0) break;
    result.output.append(buffer, static_cast<size_t>(n));
  }
  close(out[0]);
  int status = 0;
  waitpid(result.pid, &status, 0);
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}
