#include "rules/stream_audio.h"

#include "write_service/parameter_access.h"

void applyStreamAudioRule(ConfigClient& client, ChangeSet& changes, std::string value) {
  setIfChanged(client, changes, "/configuration/outputs/rtmp/streams/stream1/aenc", value, "");
  if (value != "off") value.insert(0, "aenc");
  setIfChanged(client, changes, "/configuration/outputs/ts/muxer/mux1/component2/encoder", value,
               "");
}
