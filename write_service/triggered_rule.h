// The one rule, if any, that a written parameter sets off. The tests are
// made in this order and the first that matches wins:
//
//   "/configuration/inputs/video/mode" with a value beginning "single":
//       applySingleInputRule with the value's eighth character;
//   "/configuration/encoders/venc" N "/frame_ctrl/rate":
//       applyFrameRateRule;
//   "/configuration/outputs/rtsp/streams/stream" N "/aenc":
//       applyStreamAudioRule;
//   "/configuration/network/ip_addr" or ".../subnet_mask":
//       updateBroadcastAddress.
//
// N is any one character, and what follows the compared stretches of the
// name is not looked at. A name too short for a stretch that is compared
// (and the value "single" alone) throws std::out_of_range before anything is
// recorded.
#ifndef TZR_WRITE_SERVICE_TRIGGERED_RULE_H_
#define TZR_WRITE_SERVICE_TRIGGERED_RULE_H_

#include <string>

#include "config_client/config_client.h"
#include "write_service/change_set.h"

void applyTriggeredRule(ConfigClient& client, ChangeSet& changes, const ParameterPath& name,
                        const std::string& value);

#endif  // TZR_WRITE_SERVICE_TRIGGERED_RULE_H_
