// Runs the shipped tzr4417.cgi exactly as a web server does: one process per
// request, a CGI environment and nothing else, the request body on standard
// input, standard output captured byte for byte until every holder of it has
// let go, then the exit status.
#ifndef TZR_TESTS_SUPPORT_CGI_PROCESS_H_
#define TZR_TESTS_SUPPORT_CGI_PROCESS_H_

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

struct CgiRequest {
  std::string method = "GET";
  std::string query;
  std::string body;  // sent on stdin; CONTENT_LENGTH is its size unless set in `env`
  std::string contentType = "application/x-www-form-urlencoded";
  std::vector<std::pair<std::string, std::string>> env;  // added or overriding
  // Runs the program as user nobody, allowed no process beside itself, so
  // that its fork fails. The daemon's socket and /dev/log must let nobody in.
  bool forkFails = false;
};

struct CgiResult {
  std::string output;
  int exitStatus = -1;  // -1 when the process did not exit normally
  int signal = 0;
  bool timedOut = false;
  pid_t pid = 0;
};

// A GET request with `query` as its query string.
CgiRequest getRequest(const std::string& query);
// A POST request with a URL-encoded `body`.
CgiRequest postRequest(const std::string& body);

// Kills the program and reports timedOut when it has not finished within
// `timeoutMs`.
CgiResult runCgi(const CgiRequest& request, int timeoutMs = 5000);

#endif  // TZR_TESTS_SUPPORT_CGI_PROCESS_H_
