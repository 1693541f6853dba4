// Gives the test process a system of its own: a private mount namespace with
// a fresh tmpfs on /tmp (so the daemon socket "/tmp/cffs_uds" is ours alone)
// and a /dev holding only the device nodes the programs use plus our own
// /dev/log. Tests run in parallel and never touch a daemon or a syslog that a
// developer has running. Needs root (CAP_SYS_ADMIN).
#ifndef TZR_TESTS_SUPPORT_ISOLATION_H_
#define TZR_TESTS_SUPPORT_ISOLATION_H_

#include <sys/types.h>

#include <chrono>
#include <vector>

// Sets up the private mounts once per process and makes the process a child
// subreaper, so that the write service's detached children come back to it.
// Aborts the test program when that is impossible.
void enterPrivateSystem();

// Processes whose parent is this test process.
std::vector<pid_t> childProcesses();

// Waits for child `pid` to end, up to `limit`; false if it did not.
bool reapChild(pid_t pid, std::chrono::milliseconds limit);

#endif  // TZR_TESTS_SUPPORT_ISOLATION_H_
