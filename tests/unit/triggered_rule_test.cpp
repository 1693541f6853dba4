// Which rule a written name sets off, and the rules that only carry a value over
// (frame rate, stream audio). On this tree what is recorded names the rule.
#include "write_service/triggered_rule.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/sim_daemon.h"

namespace {

const std::string kMode = "/configuration/inputs/video/mode";
const std::string kEncoders = "/configuration/encoders/venc";
const std::string kStreams = "/configuration/outputs/rtsp/streams/stream";
const std::string kNet = "/configuration/network/";
const std::string kCast = kNet + "broadcast_addr";
const std::string kRtmpAudio = "/configuration/outputs/rtmp/streams/stream1/aenc";
const std::string kMuxAudio = "/configuration/outputs/ts/muxer/mux1/component2/encoder";
// clang-format off
const ParameterMap kSingle2 = {
    {kEncoders + "1/input", "in2"}, {kEncoders + "2/input", "in2"}, {kStreams + "1/aenc", "2"},
    {kMuxAudio, "aenc2"}, {"/configuration/outputs/ts/muxer/mux2/component2/encoder", "aenc2"}};
// clang-format on

TEST(TriggeredRuleTest, AtMostOneRuleByTheWrittenName) {
  ParameterMap tree = defaultTree();
  tree[kCast] = "0.0.0.0";
  tree[kRtmpAudio] = "x";
  tree[kEncoders + "1/frame_ctrl/enable"] = tree[kEncoders + "2/frame_ctrl/enable"] = "x";
  const struct {
    std::string name, value;
    ParameterMap recorded;
    bool throws = false;  // std::out_of_range: the name is too short to compare
  } rows[] = {
      {kMode, "single_2", kSingle2},
      {kMode, "singleX2", kSingle2},   // the separator is not looked at
      {kMode, "single_2x", kSingle2},  // nor what follows the digit
      {kMode, "single", {}, true},
      {kMode, "\"single 2\"", {}},
      {kMode, "dual", {}},
      {kMode + "/", "single_2", {}},
      {kEncoders + "1/frame_ctrl/rate", "1", {{kEncoders + "1/frame_ctrl/enable", "no"}}},
      {kEncoders + "2/frame_ctrl/rate", "01", {{kEncoders + "2/frame_ctrl/enable", "yes"}}},
      {kEncoders + "2/frame_ctrl/rate/x", "1", {{kEncoders + "2/frame_ctrl/enable", "no"}}},
      {kEncoders + "12/frame_ctrl/rate", "1", {}},
      {kEncoders + "1/frame_ctrl/rat", "1", {}},
      {kEncoders, "1", {}, true},
      {kStreams + "2/aenc", "3", {{kRtmpAudio, "3"}, {kMuxAudio, "aenc3"}}},
      {kStreams + "1/aenc/x", "off", {{kRtmpAudio, "off"}, {kMuxAudio, "off"}}},
      {kStreams + "1/aenc", "\"\"", {{kRtmpAudio, "\"\""}, {kMuxAudio, "aenc\"\""}}},
      {kStreams + "12/aenc", "3", {}},
      {kStreams + "1/venc", "3", {}},
      {kRtmpAudio, "3", {}},
      {kStreams, "3", {}, true},
      {kNet + "ip_addr", "10.0.0.5", {{kCast, "10.0.0.255"}}},
      {kNet + "subnet_mask", "255.255.0.0", {{kCast, "192.168.255.255"}}},
      {kNet + "ip_addr2", "10.0.0.5", {}},
      {kNet + "gateway", "10.0.0.5", {}},
  };
  SimDaemon daemon(tree);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name + " = " + row.value);
    ConfigClient client(daemon.setup());
    ChangeSet changes;
    if (row.throws) {
      EXPECT_THROW(applyTriggeredRule(client, changes, row.name, row.value), std::out_of_range);
    } else {
      applyTriggeredRule(client, changes, row.name, row.value);
    }
    EXPECT_EQ(row.recorded, changes);
  }
}

}  // namespace
