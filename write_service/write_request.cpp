#include "write_service/write_request.h"

#include <stdio.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>

#include "cgi/reply.h"
#include "config_client/config_client.h"
#include "write_service/collect_changes.h"

namespace {

// The daemon's command line takes the value as one word: an empty value
// becomes "" and one with white space is wrapped in double quotes.
void normalise(std::string& value) {
  if (value.empty()) {
    value = "\"\"";
  } else if (value.find_first_of(" \t\r\n\v\f") != std::string::npos) {
    value.insert(0, 1, '"');
    value += '"';
  }
}

void writeReply(bool stored, const ParameterPath& name, const std::string& value,
                const std::string& reply) {
  // The reply leaves in full before the fork: the child must not inherit
  // any of it.
  if (stored) {
    writeJsonHeader();
    writeText("{ \"write\": \"");
    writeJsonString(name);
    writeText("\", \"value\": \"");
    writeJsonString(value);
    writeText("\", \"reply\": \"");
    writeJsonString(reply);
    writeText("\" }\n");
    flushReply();
    if (!reply.empty()) syslog(LOG_INFO, "Reply from \"put\": %s", reply.c_str());
  } else {
    writeInternalServerError();
    writeText(reply);
    writeText("\n");
    flushReply();
  }
}

void redirectToDevNull(const char* mode, FILE* stream) {
  // A child that cannot reopen a stream still applies and saves: it writes
  // nothing to its streams anyway.
  if (freopen("/dev/null", mode, stream) == nullptr) return;
}

// The parent ends so that the web server can finish the response; the child
// lets go of the web server's streams and goes on alone. When fork fails the
// same process goes on, still watched by the web server. True in the child.
bool detach() {
  pid_t pid = fork();
  if (pid > 0) exit(0);
  if (pid < 0) {
    syslog(LOG_WARNING, "Failed to fork child process, continuing in parent process");
    return false;
  }
  setsid();
  redirectToDevNull("r", stdin);
  redirectToDevNull("a", stdout);
  redirectToDevNull("a", stderr);
  return true;
}

// How long the detached child, which nobody waits for, gives the daemon to
// answer apply or save: a daemon that applies slowly still gets there.
constexpr std::chrono::minutes kChildPatience(5);

}  // namespace

bool handleWriteRequest(ParameterPath name, std::string value, const DaemonSetup& daemon) {
  // Held alone from before the rules' first read to after the last put: two
  // writes that met would each compute from the other's old values.
  ConfigClient client(daemon, LockMode::Exclusive);
  if (client.abandoned()) return false;
  if (!client.isConnected()) {
    writeInternalServerError();
    return true;
  }
  std::string reply;
  syslog(LOG_INFO, "Setting parameter %s to %s", name.c_str(), value.c_str());
  normalise(value);

  const ChangeSet changes = collectChanges(client, name, value);
  bool stored = client.put(changes, reply);
  if (client.abandoned()) return false;  // also during the rules' reads
  client.releaseLock();
  writeReply(stored, name, value, reply);
  if (detach()) client.setUnattended(kChildPatience);

  // After a failed put the connection is closed: apply and save send
  // nothing, and the put's answer is logged again under their labels.
  client.apply(reply);
  if (client.abandoned()) return false;  // only where fork failed: the child is unattended
  if (!reply.empty()) syslog(LOG_INFO, "Reply from \"apply\": %s", reply.c_str());
  client.save(reply);
  if (client.abandoned()) return false;
  if (!reply.empty()) syslog(LOG_INFO, "Reply from \"save\": %s", reply.c_str());
  syslog(LOG_INFO, "Applied and saved the parameter settings");
  return true;
}
