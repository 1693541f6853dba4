#include "write_service/write_request.h"

#include <stdio.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include <iostream>

#include "cgi/reply.h"
#include "config_client/config_client.h"
#include "rules/fixed_settings.h"
#include "rules/mux_bitrate.h"
#include "rules/network_address.h"
#include "rules/single_input.h"
#include "rules/stream_audio.h"
#include "rules/video_encoder.h"
#include "write_service/change_set.h"

namespace {

// The daemon's command line takes the value as one word: an empty value
// becomes "" and one with white space is wrapped in double quotes.
void normalise(std::string& value) {
  if (value.empty()) {
    value = "\"\"";
  } else if (value.find_first_of(" \t\r\n\v\f") != std::string::npos) {
    value.insert(0, 1, '"');
    value += '"';
  }
}

// At most one rule follows from the written name, the first whose test
// matches. The tests compare fixed stretches of the name by position, and a
// name too short for a stretch that is compared throws std::out_of_range,
// as a write of "single" alone to the input mode does.
void applyTriggeredRule(ConfigClient& client, ChangeSet& changes, const ParameterPath& name,
                        const std::string& value) {
  if (name == "/configuration/inputs/video/mode" && value.compare(0, 6, "single") == 0) {
    applySingleInputRule(client, changes, value.substr(7, 1));
  } else if (name.compare(0, 28, "/configuration/encoders/venc") == 0 &&
             name.compare(29, 16, "/frame_ctrl/rate") == 0) {
    applyFrameRateRule(client, changes, name, value);
  } else if (name.compare(0, 42, "/configuration/outputs/rtsp/streams/stream") == 0 &&
             name.compare(43, 5, "/aenc") == 0) {
    applyStreamAudioRule(client, changes, value);
  } else if (name == "/configuration/network/ip_addr" ||
             name == "/configuration/network/subnet_mask") {
    updateBroadcastAddress(client, changes, name, value);
  }
}

void writeReply(bool stored, const ParameterPath& name, const std::string& value,
                const std::string& reply) {
  if (stored) {
    writeJsonHeader();
    std::cout << "{ \"write\": \"" << jsonEscape(name) << "\", \"value\": \"" << jsonEscape(value)
              << "\", \"reply\": \"" << jsonEscape(reply) << "\" }\n"
              << std::flush;
    if (!reply.empty()) syslog(LOG_INFO, "Reply from \"put\": %s", reply.c_str());
  } else {
    writeInternalServerError();
    std::cout << reply << '\n' << std::flush;
  }
}

void redirectToDevNull(const char* mode, FILE* stream) {
  // A child that cannot reopen a stream still applies and saves: it writes
  // nothing to its streams anyway.
  if (freopen("/dev/null", mode, stream) == nullptr) return;
}

// The parent ends so that the web server can finish the response; the child
// lets go of the web server's streams and goes on alone. When fork fails the
// same process goes on.
void detach() {
  pid_t pid = fork();
  if (pid > 0) exit(0);
  if (pid < 0) {
    syslog(LOG_WARNING, "Failed to fork child process, continuing in parent process");
    return;
  }
  setsid();
  redirectToDevNull("r", stdin);
  redirectToDevNull("a", stdout);
  redirectToDevNull("a", stderr);
}

}  // namespace

void handleWriteRequest(ParameterPath name, std::string value) {
  ConfigClient client;
  if (!client.isConnected()) {
    writeInternalServerError();
    return;
  }
  std::string reply;
  syslog(LOG_INFO, "Setting parameter %s to %s", name.c_str(), value.c_str());
  normalise(value);

  ChangeSet changes;
  // Always sent, even when the daemon already holds the value.
  changes[name] = value;
  applyTriggeredRule(client, changes, name, value);
  applyFixedSettings(client, changes);
  applyMuxBitrateRule(client, changes);
  applyVideoEncoderRules(client, changes);

  bool stored = client.put(changes, reply);
  writeReply(stored, name, value, reply);
  detach();

  // After a failed put the connection is closed: apply and save send
  // nothing, and the put's answer is logged again under their labels.
  client.apply(reply);
  if (!reply.empty()) syslog(LOG_INFO, "Reply from \"apply\": %s", reply.c_str());
  client.save(reply);
  if (!reply.empty()) syslog(LOG_INFO, "Reply from \"save\": %s", reply.c_str());
  syslog(LOG_INFO, "Applied and saved the parameter settings");
}
