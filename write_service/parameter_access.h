// How the write service and its rules read and record parameters.
#ifndef TZR_WRITE_SERVICE_PARAMETER_ACCESS_H_
#define TZR_WRITE_SERVICE_PARAMETER_ACCESS_H_

#include <string>

#include "config_client/config_client.h"
#include "write_service/change_set.h"

// The value `path` will have once `changes` is stored: the pending value if
// there is one (the daemon is not asked), otherwise the daemon's.
bool getEffectiveValue(ConfigClient& client, const ChangeSet& changes, const ParameterPath& path,
                       std::string& value);

// Records `newValue` for `path` when the daemon's stored value calls for it,
// and logs "Setting parameter %s to %s". With an empty `expected`, when the
// stored value differs from `newValue`; otherwise when the stored value
// equals `expected` (a conditional replacement). The stored value is always
// the daemon's: a value pending in `changes` is deliberately not consulted.
// Returns false only when the stored value could not be read.
bool setIfChanged(ConfigClient& client, ChangeSet& changes, const ParameterPath& path,
                  const std::string& newValue, const std::string& expected);

#endif  // TZR_WRITE_SERVICE_PARAMETER_ACCESS_H_
