// A request of the fuzzer's bytes through cgicc (docs/testing.md); fork() fails here.
#include <cgicc/CgiInput.h>
#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include <exception>
#include <map>

#include "cgi/dispatch.h"
#include "fake_daemon.h"

namespace {

struct FuzzInput : cgicc::CgiInput {
  std::map<std::string, std::string> env;
  std::string body;

  size_t read(char* data, size_t length) override {
    size_t n = body.copy(data, length);
    body.erase(0, n);
    return n;
  }
  std::string getenv(const char* name) override { return env[name]; }
};

}  // namespace

extern "C" pid_t fork() {
  errno = EAGAIN;
  return -1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  FuzzInput input;
  input.env["REQUEST_METHOD"] = in.PickValueInArray({"GET", "POST", "post", "PUT", "HEAD"});
  input.env["QUERY_STRING"] = in.ConsumeRandomLengthString();
  const std::string boundary = in.ConsumeRandomLengthString(80);
  const std::string types[] = {"application/x-www-form-urlencoded",
                               "multipart/form-data; boundary=" + boundary, boundary};
  input.env["CONTENT_TYPE"] = in.PickValueInArray(types);
  input.body = in.ConsumeRandomLengthString();
  // The body's own length or any short text, garbage too; no larger claim:
  // cgicc sets it aside first, and the web server's limit refuses those.
  std::string length = in.ConsumeBool() ? in.ConsumeRandomLengthString(12) : "";
  if (length.empty() || atol(length.c_str()) > (1 << 20))
    length = std::to_string(input.body.size());
  input.env["CONTENT_LENGTH"] = length;
  playDaemon(in);
  try {
    dispatchRequest(&input, fakeDaemon());
  } catch (const std::exception&) {
    // main() answers 500 to any exception, and that is all.
  }
  return 0;
}
