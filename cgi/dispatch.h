// Routes one request: the form field "read" selects the read service,
// "write" together with "value" the write service; any other request gets
// no answer at all. Field names match in any letter case; the first
// occurrence wins, and a field of the POST body wins over one of the query
// string.
#ifndef TZR_CGI_DISPATCH_H_
#define TZR_CGI_DISPATCH_H_

namespace cgicc {
class CgiInput;
}

// `input` supplies the environment and the body; nullptr reads the
// process's own environment and standard input, as the web server provides
// them. Exceptions (cgicc's and the services') reach the caller.
void dispatchRequest(cgicc::CgiInput* input);

#endif  // TZR_CGI_DISPATCH_H_
