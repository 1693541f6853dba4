// The write service's rules on any written name and value, with any values
// stored in the daemon, then the puts. handleWriteRequest would fork and
// exit, so its steps are taken here in its order.
#include <stdexcept>

#include "fake_daemon.h"
#include "rules/fixed_settings.h"
#include "rules/mux_bitrate.h"
#include "rules/video_encoder.h"
#include "write_service/triggered_rule.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  std::string name = in.ConsumeRandomLengthString();
  std::string value = in.ConsumeRandomLengthString();
  playDaemon(answeringScript(in));
  ConfigClient client;
  ChangeSet changes{{name, value}};
  try {
    applyTriggeredRule(client, changes, name, value);
  } catch (const std::out_of_range&) {
    return 0;  // a name too short for a trigger test: the program answers 500
  }
  applyFixedSettings(client, changes);
  applyMuxBitrateRule(client, changes);
  applyVideoEncoderRules(client, changes);
  std::string replies;
  client.put(changes, replies);
  return 0;
}
