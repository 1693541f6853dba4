#include "rules/video_encoder.h"

#include "write_service/parameter_access.h"

namespace {

std::string encoderPath(int number, const char* leaf) {
  return "/configuration/encoders/venc" + std::to_string(number) + leaf;
}

const char* yesNo(bool flag) { return flag ? "yes" : "no"; }

}  // namespace

void applyVideoEncoderRules(ConfigClient& client, ChangeSet& changes) {
  std::string mux2Video;
  if (!getEffectiveValue(client, changes, "/configuration/outputs/ts/muxer/mux2/component1/encoder",
                         mux2Video)) {
    return;
  }
  std::string codecs[2];
  for (int n = 1; n <= 2; ++n) {
    if (!getEffectiveValue(client, changes, encoderPath(n, "/codec"), codecs[n - 1])) return;
  }
  bool copyImage = mux2Video == "venc2";
  bool autoFrameControl = copyImage && codecs[0] == "h264" && codecs[1] == "h264";
  for (int n = 1; n <= 2; ++n) {
    setIfChanged(client, changes, encoderPath(n, "/frame_ctrl/auto"), yesNo(autoFrameControl), "");
    setIfChanged(client, changes, encoderPath(n, "/text_overlay/copy_image"), yesNo(copyImage), "");
  }
}

void applyFrameRateRule(ConfigClient& client, ChangeSet& changes, ParameterPath name,
                        std::string value) {
  // The trigger guarantees "/configuration/encoders/vencN/frame_ctrl/" as
  // the first 41 characters.
  ParameterPath target = name.substr(0, 41) + "enable";
  setIfChanged(client, changes, target, yesNo(value != "1"), "");
}
