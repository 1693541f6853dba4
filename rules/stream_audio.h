// An RTSP stream's audio encoder choice ("1", "2", "3" or "off") is carried
// over to RTMP stream 1 and, spelt as an encoder name ("aenc1", or "off"),
// to component 2 of multiplexer 1. The targets are fixed whichever RTSP
// stream was written.
#ifndef TZR_RULES_STREAM_AUDIO_H_
#define TZR_RULES_STREAM_AUDIO_H_

#include <string>

#include "config_client/config_client.h"
#include "write_service/change_set.h"

void applyStreamAudioRule(ConfigClient& client, ChangeSet& changes, std::string value);

#endif  // TZR_RULES_STREAM_AUDIO_H_
