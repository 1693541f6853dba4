// Answers a write request: stores parameter `name` with `value` together
// with every parameter the rules derive from it (collect_changes.h), in one
// pass of "put" requests; replies with one JSON line (or 500); then forks,
// and the detached child asks the daemon to apply and to save.
//
// The write holds the daemon alone (daemon_lock.h) from before its first
// read to after its last put; apply and save run without it. The child,
// which nobody waits for, gives up on a daemon that hangs up or does not
// answer within five minutes.
//
// Whenever the daemon was reached, the process the web server started ends
// here with exit(0) once its reply is flushed; only the child (or, when fork
// fails, the process itself) returns. It returns false, having written and
// logged no more, once nobody waits for the reply (the web server gave up
// while the request waited on the daemon or for its turn): the caller ends
// the request without a word.
//
// The last log line, "Applied and saved the parameter settings", is written
// whether or not apply and save succeeded: their replies are logged before
// it, and nobody is left to tell of a failure.
#ifndef TZR_WRITE_SERVICE_WRITE_REQUEST_H_
#define TZR_WRITE_SERVICE_WRITE_REQUEST_H_

#include <string>

#include "config_client/daemon_setup.h"
#include "config_client/parameter_map.h"

bool handleWriteRequest(ParameterPath name, std::string value, const DaemonSetup& daemon);

#endif  // TZR_WRITE_SERVICE_WRITE_REQUEST_H_
