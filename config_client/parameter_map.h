// Parameter names and maps of them, as the daemon's client handles them.
#ifndef TZR_CONFIG_CLIENT_PARAMETER_MAP_H_
#define TZR_CONFIG_CLIENT_PARAMETER_MAP_H_

#include <map>
#include <string>

// A slash-separated path in the daemon's configuration tree, such as
// "/configuration/network/ip_addr". Compared byte for byte.
using ParameterPath = std::string;

// Name -> value, ascending by byte-wise comparison of the name.
using ParameterMap = std::map<ParameterPath, std::string>;

#endif  // TZR_CONFIG_CLIENT_PARAMETER_MAP_H_
