// Selecting single video input N (the input mode "single" plus a separator
// and the digit N): both video encoders take input "inN", and the audio
// selections of RTSP stream 1, RTMP stream 1 and component 2 of both
// multiplexers move from the other input's audio encoder to audio encoder N.
// Selections that point elsewhere, "off" included, stay as they are.
#ifndef TZR_RULES_SINGLE_INPUT_H_
#define TZR_RULES_SINGLE_INPUT_H_

#include <string>

#include "config_client/config_client.h"
#include "write_service/change_set.h"

void applySingleInputRule(ConfigClient& client, ChangeSet& changes, std::string input);

#endif  // TZR_RULES_SINGLE_INPUT_H_
