#include "rules/fixed_settings.h"

#include <string>
#include <utility>
#include <vector>

#include "write_service/parameter_access.h"

void applyFixedSettings(ConfigClient& client, ChangeSet& changes) {
  const std::string logo = "/opt/encsrv/vendor/logos/logo.ppm";
  std::vector<std::pair<ParameterPath, std::string>> pinned;
  for (int input = 1; input <= 2; ++input) {
    pinned.emplace_back(
        "/configuration/inputs/video/in" + std::to_string(input) + "/logo/imagefile", logo);
  }
  pinned.insert(pinned.end(), {
                                  {"/configuration/inputs/audio/analog_in1/input", "line"},
                                  {"/configuration/inputs/audio/analog_in1/micboost", "no"},
                                  {"/configuration/encoders/aenc3/codec", "aac"},
                                  {"/configuration/inputs/video/in1/deinterlacer/mode", "advanced"},
                                  {"/configuration/outputs/rtsp/streams/stream1/venc", "1"},
                                  {"/configuration/outputs/rtmp/streams/stream1/venc", "1"},
                                  {"/configuration/outputs/recorder/stream", "2"},
                                  {"/configuration/outputs/recorder/enable", "yes"},
                              });
  // Each row is compared with the daemon's stored value, not a pending one,
  // and a row that cannot be read is skipped alone.
  for (const auto& [path, value] : pinned) setIfChanged(client, changes, path, value, "");
}
