// Ten parameters the appliance keeps at fixed values: the logo image of both
// video inputs, analogue audio input 1's type and microphone boost, audio
// encoder 3's codec, video input 1's deinterlacer, the video encoder of
// stream 1 of the RTSP and RTMP outputs, and the recorder's stream and
// switch. Runs on every write and records each one whose stored value has
// drifted.
#ifndef TZR_RULES_FIXED_SETTINGS_H_
#define TZR_RULES_FIXED_SETTINGS_H_

#include "config_client/config_client.h"
#include "write_service/change_set.h"

void applyFixedSettings(ConfigClient& client, ChangeSet& changes);

#endif  // TZR_RULES_FIXED_SETTINGS_H_
