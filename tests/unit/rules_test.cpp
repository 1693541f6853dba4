// Each rule, and the one a written name sets off, against the daemon simulator; the
// stored tree a delta over the default configuration (which agrees with every rule).
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "rules/fixed_settings.h"
#include "rules/mux_bitrate.h"
#include "rules/network_address.h"
#include "rules/single_input.h"
#include "rules/video_encoder.h"
#include "support/sim_daemon.h"
#include "write_service/triggered_rule.h"

namespace {

using Rule = std::function<void(ConfigClient&, ChangeSet&, std::string name, std::string value)>;

const char kGone[] = "\x01";  // as a stored value: the daemon lacks the path

std::string enc(const std::string& p) { return "/configuration/encoders/" + p; }
std::string mux(const std::string& p) { return "/configuration/outputs/ts/muxer/mux" + p; }
std::string out(const std::string& p) { return "/configuration/outputs/" + p; }
std::string net(const std::string& p) { return "/configuration/network/" + p; }

struct Row {
  const char* what;
  ParameterMap stored;
  std::pair<std::string, std::string> write;  // put in the set first, as the write service does
  ParameterMap recorded;                      // std::out_of_range as "thrown"
  ParameterMap pending = {};                  // as if recorded by an earlier rule of the request
  std::string resetAt = {};                   // the path whose read the daemon resets at
};

Rule plain(void (*rule)(ConfigClient&, ChangeSet&)) {
  return [rule](auto& c, auto& s, auto, auto) { rule(c, s); };
}

// `common`: a delta beneath every row's.
void check(const Rule& rule, const std::vector<Row>& rows, ParameterMap common = {}) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    ParameterMap tree = defaultTree(), stored = row.stored;
    stored.insert(common.begin(), common.end());
    for (const auto& [path, value] : stored) {
      if (value != kGone) tree[path] = value;
      if (value == kGone) tree.erase(path);
    }
    SimDaemon daemon(
        tree, row.resetAt.empty() ? Options() : withFault(Fault::Reset, "ls " + row.resetAt));
    ConfigClient client(daemon.setup());
    ChangeSet changes = row.pending;
    if (!row.write.first.empty()) changes.insert(row.write);
    ChangeSet expected = changes;
    for (const auto& [path, value] : row.recorded) expected[path] = value;
    try {
      rule(client, changes, row.write.first, row.write.second);
    } catch (const std::out_of_range&) {
      changes["thrown"] = "out_of_range";
    }
    EXPECT_EQ(changes, expected);
    EXPECT_EQ(!row.resetAt.empty(), daemon.sim.faulted()) << "reset never planted";
  }
}

const std::string kIp = net("ip_addr"), kMask = net("subnet_mask"), kCast = net("broadcast_addr");
const std::string kRtsp1 = out("rtsp/streams/stream1/aenc"),
                  kRtmp1 = out("rtmp/streams/stream1/aenc");
const std::string kAudio1 = mux("1/component2/encoder"), kAudio2 = mux("2/component2/encoder");
const std::string kAuto1 = enc("venc1/frame_ctrl/auto"), kAuto2 = enc("venc2/frame_ctrl/auto");
const std::string kCopy1 = enc("venc1/text_overlay/copy_image");
const std::string kCopy2 = enc("venc2/text_overlay/copy_image");

// clang-format off
TEST(FixedSettingsRule, RestoresDriftedRowsAgainstTheStoredValue) {
  const std::string on = out("recorder/enable"), stream = out("recorder/stream");
  check(plain(applyFixedSettings), {
      {"stored yes keeps the written no", {}, {on, "no"}, {}},
      {"stored off replaces the written no", {{on, "off"}}, {on, "no"}, {{on, "yes"}}},
      {"the daemon lacks a path", {{enc("aenc3/codec"), kGone}}, {},
       {{enc("aenc3/codec"), "aac"}}},
      {"a failed read skips its row", {{stream, "1"}, {on, "no"}}, {}, {{stream, "2"}}, {}, on}});
}

TEST(NetworkAddressRule, BroadcastIsAddressOrNotMask) {
  const ParameterMap bogus = {{kCast, "0.0.0.0"}};  // anything computed would differ
  check(updateBroadcastAddress, {
      {"/24", {{kCast, "192.168.1.0"}}, {kIp, "192.168.1.10"}, {{kCast, "192.168.1.255"}}},
      {"/16, stored address not pending one", {{kIp, "10.1.2.3"}}, {kMask, "255.255.0.0"},
       {{kCast, "10.1.255.255"}}, {{kIp, "10.9.9.9"}}},
      {"mask 0.0.0.0", {{kIp, "10.1.2.3"}}, {kMask, "0.0.0.0"}, {{kCast, "255.255.255.255"}}},
      {"non-contiguous", {{kIp, "10.1.2.3"}}, {kMask, "255.0.255.0"}, {{kCast, "10.255.2.255"}}},
      {"empty address", bogus, {kIp, "\"\""}, {}},
      {"quoted address", bogus, {kIp, "\"192.168.1.10 \""}, {}},
      {"stored mask unparsable", {{kMask, "255.255.255"}, {kCast, "0"}}, {kIp, "10.0.0.5"}, {}},
      {"leading zeros respelt", {{kCast, "192.168.001.255"}}, {kIp, "192.168.1.10"},
       {{kCast, "192.168.1.255"}}}});
}

TEST(VideoEncoderRules, SwitchesFollowMux2AndCodecs) {
  const std::string codec2 = enc("venc2/codec");
  check(plain(applyVideoEncoderRules), {
      {"a drifted switch", {{kCopy1, "no"}}, {}, {{kCopy1, "yes"}}},
      {"venc2 on another codec", {{codec2, "mpeg2"}}, {}, {{kAuto1, "no"}, {kAuto2, "no"}}},
      {"pending codec counts", {{codec2, "mpeg2"}, {kAuto1, "no"}, {kAuto2, "no"}},
       {codec2, "h264"}, {{kAuto1, "yes"}, {kAuto2, "yes"}}},
      {"pending mux2 routing counts", {}, {mux("2/component1/encoder"), "venc1"},
       {{kAuto1, "no"}, {kAuto2, "no"}, {kCopy1, "no"}, {kCopy2, "no"}}},
      {"written switch equal to the computed one stays", {}, {kAuto1, "no"}, {}}});
}

TEST(SingleInputRule, RoutesEncodersAndMovesTheOtherInputsAudio) {
  const std::string in1 = enc("venc1/input"), in2 = enc("venc2/input");
  // The rule is given the input number alone, as the second of the write.
  check([](auto& c, auto& s, auto, auto input) { applySingleInputRule(c, s, input); }, {
      {"input 2", {{kRtmp1, "off"}, {kAudio2, "aenc3"}}, {"", "2"},
       {{in1, "in2"}, {in2, "in2"}, {kRtsp1, "2"}, {kAudio1, "aenc2"}}},
      {"back to input 1", {{in1, "in2"}, {in2, "in2"}, {kRtsp1, "2"}, {kRtmp1, "2"},
       {kAudio1, "aenc2"}, {kAudio2, "off"}}, {"", "1"},
       {{in1, "in1"}, {in2, "in1"}, {kRtsp1, "1"}, {kRtmp1, "1"}, {kAudio1, "aenc1"}}},
      {"stored values decide, not pending ones", {{kRtsp1, "off"}}, {"", "2"},
       {{in1, "in2"}, {in2, "in2"}, {kRtmp1, "2"}, {kAudio1, "aenc2"}, {kAudio2, "aenc2"}},
       {{kRtsp1, "1"}, {kRtmp1, "off"}}},
      {"input 3 takes input 1's audio", {}, {"", "3"}, {{in1, "in3"}, {in2, "in3"},
       {kRtsp1, "3"}, {kRtmp1, "3"}, {kAudio1, "aenc3"}, {kAudio2, "aenc3"}}},
      {"empty input number", {}, {"", ""}, {{in1, "in"}, {in2, "in"}, {kRtsp1, ""},
       {kRtmp1, ""}, {kAudio1, "aenc"}, {kAudio2, "aenc"}}}});
}

TEST(MuxBitrateRule, TotalsScaledClampedAndWrapped) {
  const std::string total = mux("1/bitrate"), mode = mux("1/mode"), codec2 = enc("venc2/codec");
  const std::string first = mux("1/component1/encoder"), last = mux("1/component3/encoder");
  const std::string rate = enc("venc1/h264/bitrate");
  check(plain(applyMuxBitrateRule), {
      {"cbr: 4000000*20/19 + 2*128000", {{total, "0"}}, {}, {{total, "4466526"}}},
      {"the written rate counts", {}, {rate, "5000000"}, {{total, "5519157"}}},
      {"vbr: 4000000*5/6 + 128000", {{mode, "vbr"}}, {}, {{total, "3461333"}}},
      {"VBR is cbr", {{mode, "VBR"}, {total, "0"}}, {}, {{total, "4466526"}}},
      {"157894 raised", {{rate, "150000"}, {kAudio1, "off"}}, {}, {{total, "200000"}}},
      {"52887578 lowered", {{rate, "50000000"}}, {}, {{total, "50000000"}}},
      {"60000000*5/6 stays", {{mode, "vbr"}, {rate, "60000000"}, {kAudio1, "off"}}, {},
       {{total, "50000000"}}},
      {"h264, then other codec: kept", {{last, "venc2"}, {codec2, "mpeg2"}, {total, "0"}}, {}, {}},
      {"another codec, then h264", {{first, "venc2"}, {codec2, "mpeg2"}, {last, "venc1"},
       {total, "0"}}, {}, {{total, "4466526"}}},
      {"aenc3 from aac/bitrate", {{kAudio1, "aenc3"}}, {}, {{total, "4402526"}}},
      {"audio only: left alone", {{first, "aenc2"}, {total, "0"}}, {}, {}},
      // 107374183*20 = 2^31+12 wraps to -2147483636; /19 = -113025454;
      // + 256000 = -112769454, raised (unwrapped it would be lowered).
      {"cbr product wraps", {{rate, "107374183"}}, {}, {{total, "200000"}}},
      // 860193460*5 = 2^32+6000004 wraps to 6000004; /6 = 1000000.
      {"vbr product wraps", {{mode, "vbr"}, {rate, "860193460"}, {kAudio1, "off"}}, {},
       {{total, "1000000"}}},
      {"failed read in mux2 keeps mux1", {{total, "0"}, {mux("2/bitrate"), "0"}}, {},
       {{total, "4466526"}}, {}, mux("2/mode")}});
}
// Which rule a name sets off, the frame-rate and stream-audio rules only carrying
// the value over; a name too short to compare (or "single" alone) throws.
TEST(TriggeredRule, AtMostOneRuleByTheWrittenName) {
  const std::string mode = "/configuration/inputs/video/mode";
  const std::string on1 = enc("venc1/frame_ctrl/enable"), on2 = enc("venc2/frame_ctrl/enable");
  const std::string rtsp = out("rtsp/streams/stream");
  const ParameterMap thrown = {{"thrown", "out_of_range"}}, single2 = {{enc("venc1/input"), "in2"},
      {enc("venc2/input"), "in2"}, {kRtsp1, "2"}, {kAudio1, "aenc2"}, {kAudio2, "aenc2"}};
  check(applyTriggeredRule, {
      {"single_2", {}, {mode, "single_2"}, single2},
      {"neither separator nor what follows looked at", {}, {mode, "singleX2x"}, single2},
      {"single alone", {}, {mode, "single"}, thrown},
      {"quoted", {}, {mode, "\"single 2\""}, {}},
      {"dual", {}, {mode, "dual"}, {}},
      {"longer mode name", {}, {mode + "/", "single_2"}, {}},
      {"rate 1", {}, {enc("venc1/frame_ctrl/rate"), "1"}, {{on1, "no"}}},
      {"rate 01", {}, {enc("venc2/frame_ctrl/rate"), "01"}, {{on2, "yes"}}},
      {"longer rate name", {}, {enc("venc2/frame_ctrl/rate/x"), "1"}, {{on2, "no"}}},
      {"venc12", {}, {enc("venc12/frame_ctrl/rate"), "1"}, {}},
      {"rat", {}, {enc("venc1/frame_ctrl/rat"), "1"}, {}},
      {"no encoder number", {}, {enc("venc"), "1"}, thrown},
      {"stream 2", {}, {rtsp + "2/aenc", "3"}, {{kRtmp1, "3"}, {kAudio1, "aenc3"}}},
      {"longer aenc name", {}, {rtsp + "1/aenc/x", "off"}, {{kRtmp1, "off"}, {kAudio1, "off"}}},
      {"empty", {}, {rtsp + "1/aenc", "\"\""}, {{kRtmp1, "\"\""}, {kAudio1, "aenc\"\""}}},
      {"stream12", {}, {rtsp + "12/aenc", "3"}, {}},
      {"venc of a stream", {}, {rtsp + "1/venc", "3"}, {}},
      {"rtmp", {}, {kRtmp1, "3"}, {}},
      {"no stream number", {}, {rtsp, "3"}, thrown},
      {"address", {}, {kIp, "10.0.0.5"}, {{kCast, "10.0.0.255"}}},
      {"mask", {}, {kMask, "255.255.0.0"}, {{kCast, "192.168.255.255"}}},
      {"longer address name", {}, {kIp + "2", "10.0.0.5"}, {}}},
      // Drifted: a rule set off by mistake would record them.
      {{kCast, "0.0.0.0"}, {kRtmp1, "x"}, {on1, "x"}, {on2, "x"}});
}
// clang-format on

// The shipped default configuration holds the pinned values.
TEST(FixedSettingsRule, PinsExactlyTenParametersToTheirDefaultValues) {
  ParameterMap drifted = defaultTree();
  for (auto& entry : drifted) entry.second += "x";
  SimDaemon daemon(drifted);
  ConfigClient client(daemon.setup());
  ChangeSet changes;
  applyFixedSettings(client, changes);
  EXPECT_EQ(10u, changes.size());
  for (const auto& [path, value] : changes) EXPECT_EQ(defaultTree().at(path), value) << path;
}

}  // namespace
