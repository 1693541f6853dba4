#include "simulator/in_process.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "simulator/server.h"

namespace {

std::string readFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

}  // namespace

InProcessSimulator::InProcessSimulator(const Tree& tree, const std::vector<std::string>& arguments)
    : tree_(tree) {
  std::string pattern = (std::filesystem::temp_directory_path() / "cffs-sim-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
  folder_ = pattern;
  std::ofstream(path("tree.conf"), std::ios::binary) << formatTree(tree);
  std::vector<std::string> all = {"--socket",        path("cffs_uds"), "--config",
                                  path("tree.conf"), "--transcript",   path("transcript")};
  all.insert(all.end(), arguments.begin(), arguments.end());
  std::string error;
  int ready[2];
  if (parseOptions(all, options_, error) != ParseResult::Run || ::pipe2(ready, O_CLOEXEC) != 0 ||
      ::pipe2(stop_, O_CLOEXEC) != 0) {
    std::filesystem::remove_all(folder_);
    throw std::runtime_error("cannot start the simulator: " + error);
  }
  thread_ = std::thread([this, ready] {
    // Signals are for the caller's threads (a client's timer must wake them).
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
    serveInThread(options_, tree_, ready[1], stop_[0]);
    ::close(ready[1]);
  });
  char byte;
  const bool started = ::read(ready[0], &byte, 1) == 1;
  ::close(ready[0]);
  if (!started) {
    stop();
    throw std::runtime_error("the simulator did not start on " + options_.socketPath);
  }
}

InProcessSimulator::~InProcessSimulator() { stop(); }

void InProcessSimulator::stop() {
  if (stop_[1] < 0) return;
  ::close(stop_[1]);
  stop_[1] = -1;
  thread_.join();
  ::close(stop_[0]);
  std::filesystem::remove_all(folder_);
}

std::vector<std::string> InProcessSimulator::transcript(bool reads) const {
  std::vector<std::string> requests;
  std::istringstream text(readFile(path("transcript")));
  for (std::string line; std::getline(text, line);) {
    if (reads || line.compare(0, 3, "ls ") != 0) requests.push_back(line);
  }
  return requests;
}

Tree InProcessSimulator::savedTree() const { return parseTree(readFile(path("tree.conf"))); }
