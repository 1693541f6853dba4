#include "rules/network_address.h"

#include <arpa/inet.h>

#include "write_service/parameter_access.h"

namespace {

const char kAddress[] = "/configuration/network/ip_addr";
const char kMask[] = "/configuration/network/subnet_mask";

bool parse(const std::string& text, in_addr& address) {
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

}  // namespace

void updateBroadcastAddress(ConfigClient& client, ChangeSet& changes, ParameterPath name,
                            std::string value) {
  std::string ip;
  std::string mask;
  if (name == kAddress) {
    ip = value;
  } else if (name == kMask) {
    mask = value;
  }
  // A written empty value arrives as "" and so is never replaced here by the
  // stored one.
  if (ip.empty() && !client.get(kAddress, ip)) return;
  if (mask.empty() && !client.get(kMask, mask)) return;

  in_addr address;
  in_addr netmask;
  if (!parse(ip, address) || !parse(mask, netmask)) return;
  in_addr broadcast;
  broadcast.s_addr = address.s_addr | ~netmask.s_addr;
  char text[64];
  if (inet_ntop(AF_INET, &broadcast, text, sizeof(text)) == nullptr) return;
  setIfChanged(client, changes, "/configuration/network/broadcast_addr", text, "");
}
