#include "write_service/triggered_rule.h"

#include "rules/network_address.h"
#include "rules/single_input.h"
#include "rules/stream_audio.h"
#include "rules/video_encoder.h"

void applyTriggeredRule(ConfigClient& client, ChangeSet& changes, const ParameterPath& name,
                        const std::string& value) {
  // Positional comparisons: compare() throws when the stretch starts past
  // the end of the name, which is how a name without its number fails.
  if (name == "/configuration/inputs/video/mode" && value.compare(0, 6, "single") == 0) {
    applySingleInputRule(client, changes, value.substr(7, 1));
  } else if (name.compare(0, 28, "/configuration/encoders/venc") == 0 &&
             name.compare(29, 16, "/frame_ctrl/rate") == 0) {
    applyFrameRateRule(client, changes, name, value);
  } else if (name.compare(0, 42, "/configuration/outputs/rtsp/streams/stream") == 0 &&
             name.compare(43, 5, "/aenc") == 0) {
    applyStreamAudioRule(client, changes, value);
  } else if (name == "/configuration/network/ip_addr" ||
             name == "/configuration/network/subnet_mask") {
    updateBroadcastAddress(client, changes, name, value);
  }
}
