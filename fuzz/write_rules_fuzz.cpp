// The rules on any written name, value and stored values, then the puts.
#include <stdexcept>

#include "fake_daemon.h"
#include "write_service/collect_changes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  std::string name = in.ConsumeRandomLengthString();
  std::string value = in.ConsumeRandomLengthString();
  playDaemon(in);
  ConfigClient client(fakeDaemon());
  try {
    std::string replies;
    client.put(collectChanges(client, name, value), replies);
  } catch (const std::out_of_range&) {
    // a name too short for a trigger test: the program answers 500
  }
  return 0;
}
