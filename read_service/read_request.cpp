#include "read_service/read_request.h"

#include <syslog.h>

#include <iostream>
#include <sstream>
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

void handleReadRequest(std::string names) {
  ConfigClient client;
  if (!client.isConnected()) {
    writeInternalServerError();
    return;
  }
  if (names.empty()) {
    syslog(LOG_ERR, "No parameter names in read request");
    writeBadRequest();
    return;
  }
  writeJsonHeader();

  bool memberWritten = false;
  std::vector<std::string> invalid;
  std::istringstream list(names);
  std::string name;
  std::string value;
  while (std::getline(list, name, ',')) {
    if (name.empty()) continue;
    if (!readValue(client, name, value)) {
      invalid.push_back(name);
      continue;
    }
    std::cout << (memberWritten ? ", " : "{ ") << '"' << jsonEscape(name) << "\": \""
              << jsonEscape(value) << '"';
    memberWritten = true;
  }

  if (!invalid.empty()) {
    std::cout << (memberWritten ? ", " : "{ ") << "\"invalid\": ";
    // The names go out as the browser sent them, unescaped.
    for (size_t i = 0; i < invalid.size(); ++i) {
      std::cout << (i == 0 ? "[ " : ", ") << '"' << invalid[i] << '"';
    }
    std::cout << " ]";
    memberWritten = true;
  }
  if (memberWritten) std::cout << " }" << std::endl;
}
