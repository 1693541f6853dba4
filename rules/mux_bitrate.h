// The total bitrate of each transport-stream multiplexer, recomputed on
// every write from the encoders that feed its three components:
//
//   component          "vbr" mode        any other mode
//   audio encoder      bitrate           bitrate x 2
//   video, h264        bitrate x 5 / 6   bitrate x 20 / 19
//
// then clamped to [200000, 50000000]. The arithmetic is 32-bit and wraps
// before the division, as the appliance's encoders expect. A multiplexer
// whose last video component is not on "h264" (or that has none) keeps its
// bitrate. A failed read ends the whole rule.
#ifndef TZR_RULES_MUX_BITRATE_H_
#define TZR_RULES_MUX_BITRATE_H_

#include "config_client/config_client.h"
#include "write_service/change_set.h"

void applyMuxBitrateRule(ConfigClient& client, ChangeSet& changes);

#endif  // TZR_RULES_MUX_BITRATE_H_
