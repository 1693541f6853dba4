#include "write_service/parameter_access.h"

#include <syslog.h>

bool getEffectiveValue(ConfigClient& client, const ChangeSet& changes, const ParameterPath& path,
                       std::string& value) {
  auto pending = changes.find(path);
  if (pending != changes.end()) {
    value = pending->second;
    return true;
  }
  return client.get(path, value);
}

bool setIfChanged(ConfigClient& client, ChangeSet& changes, const ParameterPath& path,
                  const std::string& newValue, const std::string& expected) {
  std::string current;
  if (!client.get(path, current)) return false;
  bool record = expected.empty() ? current != newValue : current == expected;
  if (record) {
    changes[path] = newValue;
    syslog(LOG_INFO, "Setting parameter %s to %s", path.c_str(), newValue.c_str());
  }
  return true;
}
