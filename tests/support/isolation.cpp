#include "support/isolation.h"

#include <dirent.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

namespace {

[[noreturn]] void die(const char* what) {
  fprintf(stderr, "test isolation: %s: %s\n", what, strerror(errno));
  abort();
}

void bindDevice(const std::string& name) {
  std::string target = "/dev/" + name;
  FILE* file = fopen(target.c_str(), "w");
  if (file == nullptr) die("create device mount point");
  fclose(file);
  std::string source = "/tmp/.host-dev/" + name;
  if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) die("bind device");
}

}  // namespace

void enterPrivateSystem() {
  static bool entered = false;
  if (entered) return;
  if (unshare(CLONE_NEWNS) != 0) die("unshare(CLONE_NEWNS)");
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) die("make / private");
  if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) die("tmpfs on /tmp");
  if (mkdir("/tmp/.host-dev", 0700) != 0) die("mkdir /tmp/.host-dev");
  if (mount("/dev", "/tmp/.host-dev", nullptr, MS_BIND | MS_REC, nullptr) != 0) die("keep /dev");
  if (mount("tmpfs", "/dev", "tmpfs", 0, "mode=755") != 0) die("tmpfs on /dev");
  for (const char* name : {"null", "zero", "urandom", "random"}) bindDevice(name);
  if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) die("PR_SET_CHILD_SUBREAPER");
  entered = true;
}

std::vector<pid_t> childProcesses() {
  std::vector<pid_t> children;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return children;
  const pid_t self = getpid();
  while (dirent* entry = readdir(proc)) {
    pid_t pid = atoi(entry->d_name);
    if (pid <= 0) continue;
    std::ifstream stat("/proc/" + std::string(entry->d_name) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) continue;
    // The command name may hold blanks and parentheses: fields resume after
    // the last ')'. Field 4 is the parent's PID.
    size_t close = line.rfind(')');
    if (close == std::string::npos) continue;
    char state = 0;
    int parent = 0;
    if (sscanf(line.c_str() + close + 1, " %c %d", &state, &parent) == 2 && parent == self) {
      children.push_back(pid);
    }
  }
  closedir(proc);
  return children;
}

bool reapChild(pid_t pid, std::chrono::milliseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    int status = 0;
    pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid || (done < 0 && errno == ECHILD)) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}
