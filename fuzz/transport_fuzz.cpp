// UdsConnection's reply reader under any bytes from the daemon, cut into any
// chunks, the daemon ending in prompts or in a reset.
#include <stdlib.h>

#include "config_client/uds_connection.h"
#include "fake_daemon.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  DaemonScript script;
  int requests = in.ConsumeIntegralInRange(0, 8);
  script.seed = in.ConsumeIntegral<unsigned>();
  script.maxChunk = in.ConsumeIntegralInRange<size_t>(1, 70000);
  script.resetWhenDry = in.ConsumeBool();
  script.stream = in.ConsumeRemainingBytesAsString();
  playDaemon(std::move(script));

  UdsConnection connection;
  std::string reply;
  for (int i = 0; i < requests && connection.isOpen(); ++i) {
    // A reply is the text before the first prompt: it never holds one.
    if (connection.execute("ls /x", reply) && reply.find("/> ") != std::string::npos) abort();
  }
  return 0;
}
