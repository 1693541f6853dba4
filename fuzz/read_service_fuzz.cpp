// The read service with any list of names and any answers from the daemon.
#include "fake_daemon.h"
#include "read_service/read_request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  std::string names = in.ConsumeRandomLengthString();
  playDaemon(answeringScript(in));
  handleReadRequest(names);
  return 0;
}
