// Everything one write stores, in one place: the written parameter itself,
// recorded first and always sent (even when the daemon already holds the
// value; the rules read it back, and may replace it), then what the rules
// derive from it: at most one rule that the written name sets off
// (triggered_rule.h), then, on every write and in this order, the fixed
// settings, the multiplexers' total bitrates and the video encoders'
// switches, each seeing what the earlier ones recorded.
#ifndef TZR_WRITE_SERVICE_COLLECT_CHANGES_H_
#define TZR_WRITE_SERVICE_COLLECT_CHANGES_H_

#include <string>

#include "config_client/config_client.h"
#include "write_service/change_set.h"

// `value` is the written value as normalised for the daemon's command line.
// Throws std::out_of_range for a name too short for a trigger's comparison
// (triggered_rule.h); nothing is stored then.
ChangeSet collectChanges(ConfigClient& client, const ParameterPath& name, const std::string& value);

#endif  // TZR_WRITE_SERVICE_COLLECT_CHANGES_H_
