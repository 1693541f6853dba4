#include "rules/mux_bitrate.h"

#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "write_service/parameter_access.h"

namespace {

const int32_t kMinimumTotal = 200000;
const int32_t kMaximumTotal = 50000000;

// Two's-complement wrap-around without the undefined behaviour of signed
// overflow.
int32_t wrap(uint32_t bits) { return static_cast<int32_t>(bits); }
int32_t times(int32_t value, uint32_t factor) {
  return wrap(static_cast<uint32_t>(value) * factor);
}
int32_t plus(int32_t a, int32_t b) {
  return wrap(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

struct MuxTotal {
  int32_t total = 0;
  bool hasH264 = false;
};

// Adds one component's share to `mux`. False when a read failed.
bool addComponent(ConfigClient& client, const ChangeSet& changes, const std::string& encoder,
                  bool vbr, MuxTotal& mux) {
  const std::string base = "/configuration/encoders/" + encoder;
  std::string text;
  if (encoder.compare(0, 4, "aenc") == 0) {
    // Audio encoder 3 keeps its bitrate under "aac".
    bool aac = encoder.size() > 4 && encoder[4] == '3';
    if (!getEffectiveValue(client, changes, base + (aac ? "/aac" : "") + "/bitrate", text)) {
      return false;
    }
    int32_t bitrate = atoi(text.c_str());
    mux.total = plus(mux.total, vbr ? bitrate : times(bitrate, 2));
  } else if (encoder.compare(0, 4, "venc") == 0) {
    if (!getEffectiveValue(client, changes, base + "/codec", text)) return false;
    // Assigned, not accumulated: only the last video component decides.
    mux.hasH264 = text == "h264";
    if (mux.hasH264) {
      if (!getEffectiveValue(client, changes, base + "/h264/bitrate", text)) return false;
      int32_t bitrate = atoi(text.c_str());
      mux.total = plus(mux.total, vbr ? times(bitrate, 5) / 6 : times(bitrate, 20) / 19);
    }
  }
  return true;
}

}  // namespace

void applyMuxBitrateRule(ConfigClient& client, ChangeSet& changes) {
  for (int m = 1; m <= 2; ++m) {
    const std::string mux = "/configuration/outputs/ts/muxer/mux" + std::to_string(m);
    MuxTotal sum;
    std::string mode;
    if (!getEffectiveValue(client, changes, mux + "/mode", mode)) return;
    bool vbr = mode == "vbr";
    for (int c = 1; c <= 3; ++c) {
      std::string encoder;
      if (!getEffectiveValue(client, changes, mux + "/component" + std::to_string(c) + "/encoder",
                             encoder)) {
        return;
      }
      if (!addComponent(client, changes, encoder, vbr, sum)) return;
    }
    if (!sum.hasH264) continue;
    if (sum.total < kMinimumTotal) {
      sum.total = kMinimumTotal;
    } else if (sum.total > kMaximumTotal) {
      sum.total = kMaximumTotal;
    }
    setIfChanged(client, changes, mux + "/bitrate", std::to_string(sum.total), "");
  }
}
