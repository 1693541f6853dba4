// The broadcast address follows the IP address and the subnet mask: after a
// write of either, broadcast = address | ~mask (the mask is used as it is,
// contiguous or not). `name` and `value` are the written parameter and its
// normalised value; the other input is the daemon's stored one. An input
// that does not parse as dotted-decimal IPv4 ends the rule silently.
#ifndef TZR_RULES_NETWORK_ADDRESS_H_
#define TZR_RULES_NETWORK_ADDRESS_H_

#include <string>

#include "config_client/config_client.h"
#include "write_service/change_set.h"

void updateBroadcastAddress(ConfigClient& client, ChangeSet& changes, ParameterPath name,
                            std::string value);

#endif  // TZR_RULES_NETWORK_ADDRESS_H_
