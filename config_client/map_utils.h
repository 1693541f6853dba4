// Comparisons between parameter maps, for tools that diff configurations.
#ifndef TZR_CONFIG_CLIENT_MAP_UTILS_H_
#define TZR_CONFIG_CLIENT_MAP_UTILS_H_

#include <string>
#include <utility>
#include <vector>

#include "config_client/parameter_map.h"

using ParameterList = std::vector<std::pair<ParameterPath, std::string>>;

// The entries of `map` whose names are listed; unknown names are skipped.
ParameterMap selectEntries(const ParameterMap& map, const std::vector<ParameterPath>& names);

// The entries of `other`, in its order, that `base` holds with another value.
ParameterList changedEntries(const ParameterMap& base, const ParameterMap& other);

// The entries of `other`, in its order, that `base` does not hold.
ParameterList addedEntries(const ParameterMap& base, const ParameterMap& other);

#endif  // TZR_CONFIG_CLIENT_MAP_UTILS_H_
