// ChangeSet: the parameters one write request will store, name -> new value.
// One entry per path (a later record replaces the value and keeps its place);
// the map's byte-wise order of paths is the order of the "put" requests.
#ifndef TZR_WRITE_SERVICE_CHANGE_SET_H_
#define TZR_WRITE_SERVICE_CHANGE_SET_H_

#include "config_client/parameter_map.h"

using ChangeSet = ParameterMap;

#endif  // TZR_WRITE_SERVICE_CHANGE_SET_H_
