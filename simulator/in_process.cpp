#include "simulator/in_process.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
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

InProcessSimulator::InProcessSimulator(const Tree& tree, const Options& options)
    : options_(options), tree_(tree) {
  std::string pattern = (std::filesystem::temp_directory_path() / "cffs-sim-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
  folder_ = pattern;
  std::ofstream(path("tree.conf"), std::ios::binary) << formatTree(tree);
  if (options_.socketPath.empty()) options_.socketPath = path("cffs_uds");
  options_.configFile = path("tree.conf");
  options_.transcriptFile.clear();
  int ready[2];
  if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(stop_, O_CLOEXEC) != 0) {
    std::filesystem::remove_all(folder_);
    throw std::runtime_error("cannot start the simulator: no pipe");
  }
  thread_ = std::thread([this, ready] {
    // Signals are for the caller's threads (a client's timer must wake them).
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
    serveInThread(options_, tree_, transcript_, ready[1], stop_[0]);
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
  std::vector<std::string> requests = transcript_.lines();
  if (!reads) {
    requests.erase(
        std::remove_if(requests.begin(), requests.end(),
                       [](const std::string& line) { return line.rfind("ls ", 0) == 0; }),
        requests.end());
  }
  return requests;
}

Tree InProcessSimulator::savedTree() const { return parseTree(readFile(path("tree.conf"))); }
