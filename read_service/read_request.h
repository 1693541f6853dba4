// Answers a read request: `names` is the comma-separated list of parameter
// names from the form field "read". Writes one JSON object that maps each
// name the daemon knows to its value, with the names that could not be read
// listed last under "invalid"; or 500 when the daemon is unreachable, 400
// when the list is empty. The headers leave before the first name is asked
// for, and no write runs while the list is read (daemon_lock.h).
#ifndef TZR_READ_SERVICE_READ_REQUEST_H_
#define TZR_READ_SERVICE_READ_REQUEST_H_

#include <string>

void handleReadRequest(std::string names);

#endif  // TZR_READ_SERVICE_READ_REQUEST_H_
