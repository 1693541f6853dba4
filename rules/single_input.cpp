#include "rules/single_input.h"

#include "write_service/parameter_access.h"

void applySingleInputRule(ConfigClient& client, ChangeSet& changes, std::string input) {
  // Audio encoder N carries the audio of video input N.
  const std::string other = input == "1" ? "2" : "1";
  for (int encoder = 1; encoder <= 2; ++encoder) {
    setIfChanged(client, changes,
                 "/configuration/encoders/venc" + std::to_string(encoder) + "/input", "in" + input,
                 "");
  }
  // Only the first stream of each output follows the input.
  setIfChanged(client, changes, "/configuration/outputs/rtsp/streams/stream1/aenc", input, other);
  setIfChanged(client, changes, "/configuration/outputs/rtmp/streams/stream1/aenc", input, other);
  for (int mux = 1; mux <= 2; ++mux) {
    setIfChanged(
        client, changes,
        "/configuration/outputs/ts/muxer/mux" + std::to_string(mux) + "/component2/encoder",
        "aenc" + input, "aenc" + other);
  }
}
