// Routes one request: the form field "read" selects the read service,
// "write" together with "value" the write service; any other request gets
// no answer at all. Field names match in any letter case; the first
// occurrence wins, and a field of the POST body wins over one of the query
// string.
#ifndef TZR_CGI_DISPATCH_H_
#define TZR_CGI_DISPATCH_H_

#include "config_client/daemon_setup.h"

namespace cgicc {
class CgiInput;
}

// `input` supplies the environment and the body; nullptr reads the
// process's own environment and standard input, as the web server provides
// them. `daemon`: where the services find the daemon, and whose reader's
// hang-up means that nobody waits for the reply. Exceptions (cgicc's and the
// services') reach the caller. False once nobody waits for the reply: the
// caller ends the request without a word.
bool dispatchRequest(cgicc::CgiInput* input, const DaemonSetup& daemon);

#endif  // TZR_CGI_DISPATCH_H_
