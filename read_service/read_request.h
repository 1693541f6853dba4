// Answers a read request: `names` is the comma-separated list of parameter
// names from the form field "read". Writes one JSON object that maps each
// name the daemon knows to its value, with the names that could not be read
// listed last under "invalid"; or 500 when the daemon is unreachable, 400
// when the list is empty. The headers leave before the first name is asked
// for, and no write runs while the list is read (daemon_lock.h).
//
// Returns false, having written no more, once nobody waits for the reply
// (the web server gave up while the request waited on the daemon or for its
// turn): the caller ends the request without a word.
#ifndef TZR_READ_SERVICE_READ_REQUEST_H_
#define TZR_READ_SERVICE_READ_REQUEST_H_

#include <string>

#include "config_client/daemon_setup.h"

bool handleReadRequest(std::string names, const DaemonSetup& daemon);

#endif  // TZR_READ_SERVICE_READ_REQUEST_H_
