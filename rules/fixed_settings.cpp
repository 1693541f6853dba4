#include "rules/fixed_settings.h"

#include "write_service/parameter_access.h"

namespace {

const char kLogo[] = "/opt/encsrv/vendor/logos/logo.ppm";

// In the order they are checked, which is also the order of their log lines.
const struct {
  const char* path;
  const char* value;
} kPinned[] = {
    {"/configuration/inputs/video/in1/logo/imagefile", kLogo},
    {"/configuration/inputs/video/in2/logo/imagefile", kLogo},
    {"/configuration/inputs/audio/analog_in1/input", "line"},
    {"/configuration/inputs/audio/analog_in1/micboost", "no"},
    {"/configuration/encoders/aenc3/codec", "aac"},
    {"/configuration/inputs/video/in1/deinterlacer/mode", "advanced"},
    {"/configuration/outputs/rtsp/streams/stream1/venc", "1"},
    {"/configuration/outputs/rtmp/streams/stream1/venc", "1"},
    {"/configuration/outputs/recorder/stream", "2"},
    {"/configuration/outputs/recorder/enable", "yes"},
};

}  // namespace

void applyFixedSettings(ConfigClient& client, ChangeSet& changes) {
  // Each row is compared with the daemon's stored value, not a pending one,
  // and a row that cannot be read is skipped alone.
  for (const auto& pinned : kPinned) setIfChanged(client, changes, pinned.path, pinned.value, "");
}
