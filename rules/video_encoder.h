// Switches of the two video encoders that follow the rest of the
// configuration.
#ifndef TZR_RULES_VIDEO_ENCODER_H_
#define TZR_RULES_VIDEO_ENCODER_H_

#include <string>

#include "config_client/config_client.h"
#include "write_service/change_set.h"

// Runs on every write, last of the rules. When multiplexer 2's first
// component is "venc2", both encoders copy the overlay image, and when both
// are also on "h264" their frame control is automatic; otherwise both
// switches are "no". A failed read ends the rule before anything is recorded.
void applyVideoEncoderRules(ConfigClient& client, ChangeSet& changes);

// Runs when "/configuration/encoders/vencN/frame_ctrl/rate" is written:
// frame control is off ("no") at the rate "1" and on ("yes") at any other.
void applyFrameRateRule(ConfigClient& client, ChangeSet& changes, ParameterPath name,
                        std::string value);

#endif  // TZR_RULES_VIDEO_ENCODER_H_
