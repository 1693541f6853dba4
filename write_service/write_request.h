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
// fails, the process itself) returns.
#ifndef TZR_WRITE_SERVICE_WRITE_REQUEST_H_
#define TZR_WRITE_SERVICE_WRITE_REQUEST_H_

#include <string>

#include "config_client/parameter_map.h"

void handleWriteRequest(ParameterPath name, std::string value);

#endif  // TZR_WRITE_SERVICE_WRITE_REQUEST_H_
