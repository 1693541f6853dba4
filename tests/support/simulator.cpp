#include "support/simulator.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "cffs_sim/tree.h"

namespace {

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

ParameterMap toMap(const cffs_sim::Tree& tree) { return ParameterMap(tree.begin(), tree.end()); }

}  // namespace

ParameterMap defaultTree() { return toMap(cffs_sim::ParseTree(readFile(TZR_DEFAULT_CONFIG))); }

Simulator::Simulator(const ParameterMap& tree, std::vector<std::string> arguments) : pid_(-1) {
  char pattern[] = "/tmp/sim-XXXXXX";
  if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
  directory_ = pattern;
  std::ofstream(directory_ + "/tree.conf", std::ios::binary)
      << cffs_sim::FormatTree(cffs_sim::Tree(tree.begin(), tree.end()));

  std::vector<std::string> args = {TZR_SIM_PATH, "--config", directory_ + "/tree.conf",
                                   "--transcript", directory_ + "/transcript"};
  args.insert(args.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);

  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  pid_ = fork();
  if (pid_ == 0) {
    // A test program that dies must not leave its simulator behind.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    dup2(ready[1], 1);
    execv(TZR_SIM_PATH, argv.data());
    _exit(127);
  }
  close(ready[1]);
  std::string line;
  char c;
  pollfd in = {ready[0], POLLIN, 0};
  while (line != "ready\n" && poll(&in, 1, 5000) > 0 && read(ready[0], &c, 1) == 1) line += c;
  close(ready[0]);
  if (line != "ready\n") throw std::runtime_error("simulator did not start");
}

Simulator::~Simulator() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  for (const char* name : {"/tree.conf", "/transcript"}) unlink((directory_ + name).c_str());
  rmdir(directory_.c_str());
}

std::vector<std::string> Simulator::transcript() const {
  std::vector<std::string> requests;
  std::istringstream text(readFile(directory_ + "/transcript"));
  for (std::string line; std::getline(text, line);) requests.push_back(line);
  return requests;
}

std::vector<std::string> Simulator::writes() const {
  std::vector<std::string> requests;
  for (const std::string& request : transcript()) {
    if (request.compare(0, 3, "ls ") != 0) requests.push_back(request);
  }
  return requests;
}

bool Simulator::waitForRequests(size_t count, std::chrono::milliseconds limit) const {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (transcript().size() < count) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

ParameterMap Simulator::savedTree() const {
  return toMap(cffs_sim::ParseTree(readFile(directory_ + "/tree.conf")));
}
