#include "read_service/read_request.h"

#include <syslog.h>

#include <string_view>
#include <vector>

#include "cgi/reply.h"
#include "config_client/config_client.h"

namespace {

const char kNoSuchParameter[] = "No such file or directory";

// A name with a blank would be split by the daemon's command line, so it is
// never asked for.
bool readValue(ConfigClient& client, const std::string& name, std::string& value) {
  return name.find(' ') == std::string::npos && client.get(name, value) &&
         value != kNoSuchParameter;
}

}  // namespace

bool handleReadRequest(std::string names, const DaemonSetup& daemon) {
  // Shared with other reads: no write runs while the list is read.
  ConfigClient client(daemon, LockMode::Shared);
  if (client.abandoned()) return false;
  if (!client.isConnected()) {
    writeInternalServerError();
    return true;
  }
  if (names.empty()) {
    syslog(LOG_ERR, "No parameter names in read request");
    writeBadRequest();
    return true;
  }
  writeJsonHeader();
  // The headers leave before the dialogue: should the daemon never answer,
  // the web server still has them when it gives up on us.
  flushReply();

  bool memberWritten = false;
  std::vector<std::string_view> invalid;
  std::string name;
  std::string value;
  for (size_t begin = 0, end; begin < names.size(); begin = end + 1) {
    end = names.find(',', begin);
    if (end == std::string::npos) end = names.size();
    if (end == begin) continue;
    name.assign(names, begin, end - begin);
    if (!readValue(client, name, value)) {
      if (client.abandoned()) return false;
      invalid.emplace_back(names.data() + begin, end - begin);
      continue;
    }
    writeText(memberWritten ? ", \"" : "{ \"");
    writeJsonString(name);
    writeText("\": \"");
    writeJsonString(value);
    writeText("\"");
    memberWritten = true;
  }

  if (!invalid.empty()) {
    writeText(memberWritten ? ", \"invalid\": " : "{ \"invalid\": ");
    // The names go out as the browser sent them, unescaped, on purpose: a
    // quote or backslash in one makes the reply invalid JSON, which the
    // console reports as such.
    for (size_t i = 0; i < invalid.size(); ++i) {
      writeText(i == 0 ? "[ \"" : ", \"");
      writeText(invalid[i]);
      writeText("\"");
    }
    writeText(" ]");
    memberWritten = true;
  }
  if (memberWritten) writeText(" }\n");
  return true;
}
