#include "config_client/map_utils.h"

ParameterMap selectEntries(const ParameterMap& map, const std::vector<ParameterPath>& names) {
  ParameterMap selected;
  for (const ParameterPath& name : names) {
    auto it = map.find(name);
    if (it != map.end()) selected.insert(*it);
  }
  return selected;
}

ParameterList changedEntries(const ParameterMap& base, const ParameterMap& other) {
  ParameterList changed;
  for (const auto& entry : other) {
    auto it = base.find(entry.first);
    if (it != base.end() && it->second != entry.second) changed.push_back(entry);
  }
  return changed;
}

ParameterList addedEntries(const ParameterMap& base, const ParameterMap& other) {
  ParameterList added;
  for (const auto& entry : other) {
    if (base.find(entry.first) == base.end()) added.push_back(entry);
  }
  return added;
}
