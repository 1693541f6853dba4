#include "write_service/collect_changes.h"

#include "rules/fixed_settings.h"
#include "rules/mux_bitrate.h"
#include "rules/video_encoder.h"
#include "write_service/triggered_rule.h"

ChangeSet collectChanges(ConfigClient& client, const ParameterPath& name,
                         const std::string& value) {
  ChangeSet changes;
  changes[name] = value;
  applyTriggeredRule(client, changes, name, value);
  applyFixedSettings(client, changes);
  applyMuxBitrateRule(client, changes);
  applyVideoEncoderRules(client, changes);
  return changes;
}
