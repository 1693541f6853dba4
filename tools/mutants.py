#!/usr/bin/python3
"""Plants single-line faults in the program, one at a time, and runs the test
suite against each: a fault that every test lets pass marks a hole in the
suite. Builds in build-mutants/ and restores every file, also when stopped.

  tools/mutants.py            every mutant
  tools/mutants.py frame      only those whose file or text contains "frame"
"""
import os
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.join(ROOT, "build-mutants")

# (file, text as it stands, text with the fault); the first occurrence changes.
MUTANTS = [
    ("cgi/reply.cpp", "  table['/'] = '/';\n", ""),
    ("cgi/reply.cpp", "table['\\t'] = 't';", "table['\\t'] = 'n';"),
    ("cgi/dispatch.cpp", "read->getStrippedValue()", "read->getValue()"),
    ("cgi/dispatch.cpp", "write != end && value != end", "write != end || value != end"),
    ("cgi/main.cpp", "    writeInternalServerError();\n", ""),
    ("cgi/content_length_guard.cpp", "return length >", "return length >="),
    ("cgi/content_length_guard.cpp", ' && strcasecmp(method, "put") != 0', ""),
    ("config_client/uds_connection.cpp", "MSG_NOSIGNAL", "0"),
    ("config_client/uds_connection.cpp", "if (line.back() != '\\r') ", ""),
    ("config_client/uds_connection.cpp", "reply.size() - (kPrompt.size() - 1)", "reply.size()"),
    ("config_client/uds_connection.cpp", "if (n == 0) waitForever();", "if (n == 0) continue;"),
    ("config_client/uds_connection.cpp", "fail(UdsStatus::ReadFailed, errno);\n      close();",
     "fail(UdsStatus::ReadFailed, errno);"),
    ("config_client/uds_connection.cpp", "reply.resize(p);", "reply.resize(p + 1);"),
    ("config_client/config_client.cpp", "  trimLeft(text);\n", ""),
    ("config_client/config_client.cpp", " || c == '\\0'", ""),
    ("config_client/config_client.cpp", '" \\t\\v\\f"', '" \\t"'),
    ("config_client/config_client.cpp", "    if (!ok) return false;\n", ""),
    ("config_client/config_client.cpp", "      connection_->close();\n", ""),
    ("config_client/config_client.cpp", "    replies += reply;\n", ""),
    ("config_client/map_utils.cpp", "if (it != map.end())", "if (it != map.begin())"),
    ("config_client/map_utils.cpp", "it->second != entry.second", "it->second == entry.second"),
    ("config_client/map_utils.cpp", "base.find(entry.first) == base.end()",
     "base.find(entry.first) != base.end()"),
    ("read_service/read_request.cpp", "name.find(' ')", "name.find('\\t')"),
    ("read_service/read_request.cpp", " &&\n         value != kNoSuchParameter", ""),
    ("read_service/read_request.cpp", "writeText(invalid[i]);", "writeJsonString(invalid[i]);"),
    ("read_service/read_request.cpp", "    if (end == begin) continue;\n", ""),
    ("read_service/read_request.cpp", "  if (memberWritten) writeText", "  writeText"),
    ("write_service/write_request.cpp", '" \\t\\r\\n\\v\\f"', '" \\t\\r\\n"'),
    ("write_service/write_request.cpp", "value = \"\\\"\\\"\";", "value = \"\";"),
    ("write_service/write_request.cpp", "  changes[name] = value;\n", ""),
    ("write_service/write_request.cpp",
     "  changes[name] = value;\n  applyTriggeredRule(client, changes, name, value);\n"
     "  applyFixedSettings(client, changes);\n  applyMuxBitrateRule(client, changes);\n"
     "  applyVideoEncoderRules(client, changes);\n",
     "  applyTriggeredRule(client, changes, name, value);\n"
     "  applyFixedSettings(client, changes);\n  applyMuxBitrateRule(client, changes);\n"
     "  applyVideoEncoderRules(client, changes);\n  changes[name] = value;\n"),
    ("write_service/write_request.cpp", "  setsid();\n", ""),
    ("write_service/write_request.cpp", '  redirectToDevNull("r", stdin);\n', ""),
    ("write_service/write_request.cpp", '  redirectToDevNull("a", stdout);\n', ""),
    ("write_service/write_request.cpp", '  redirectToDevNull("a", stderr);\n', ""),
    ("write_service/write_request.cpp", "if (pid > 0) exit(0);", "if (pid > 0) return;"),
    ("write_service/write_request.cpp", "    writeText(reply);\n", ""),
    ("write_service/write_request.cpp", "if (!reply.empty()) syslog(LOG_INFO, \"Reply from \\\"put",
     "if (reply.empty()) syslog(LOG_INFO, \"Reply from \\\"put"),
    ("write_service/triggered_rule.cpp", "name.compare(29, 16,", "name.compare(28, 16,"),
    ("write_service/triggered_rule.cpp", "name.compare(43, 5,", "name.compare(42, 5,"),
    ("write_service/triggered_rule.cpp", "name.compare(0, 42,", "name.compare(0, 41,"),
    ("write_service/triggered_rule.cpp", "value.substr(7, 1)", "value.substr(6, 1)"),
    ("write_service/triggered_rule.cpp", ' ||\n             name == "/configuration/network/subnet_mask"', ""),
    ("write_service/parameter_access.cpp", "  if (pending != changes.end()) {",
     "  if (false) {"),
    ("write_service/parameter_access.cpp", ": current == expected", ": current != expected"),
    ("write_service/parameter_access.cpp", "syslog(LOG_INFO,", "syslog(LOG_NOTICE,"),
    ("rules/fixed_settings.cpp", '"line"', '"lin"'),
    ("rules/fixed_settings.cpp", '    {"/configuration/inputs/video/in1/deinterlacer/mode", "advanced"},\n', ""),
    ("rules/network_address.cpp", "address.s_addr | ~netmask.s_addr", "address.s_addr & ~netmask.s_addr"),
    ("rules/network_address.cpp", "ip.empty() && !client.get", "!client.get"),
    ("rules/video_encoder.cpp", "copyImage && codecs[0]", "copyImage || codecs[0]"),
    ("rules/video_encoder.cpp", 'yesNo(value != "1")', 'yesNo(value == "1")'),
    ("rules/video_encoder.cpp", "name.substr(0, 41)", "name.substr(0, 40)"),
    ("rules/stream_audio.cpp", 'if (value != "off") ', ""),
    ("rules/single_input.cpp", 'input == "1" ? "2" : "1"', 'input == "2" ? "1" : "2"'),
    ("rules/mux_bitrate.cpp", "times(bitrate, 20) / 19", "times(bitrate, 20) / 20"),
    ("rules/mux_bitrate.cpp", 'mux.hasH264 = text == "h264";', 'mux.hasH264 |= text == "h264";'),
    ("rules/mux_bitrate.cpp", "encoder[4] == '3'", "encoder[4] == '2'"),
    ("rules/mux_bitrate.cpp", "c <= 3", "c <= 2"),
    ("rules/mux_bitrate.cpp", "vbr ? bitrate : times(bitrate, 2)", "times(bitrate, 2)"),
]


def run(command):
    return subprocess.run(command, cwd=BUILD, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL).returncode


def main():
    chosen = [m for m in MUTANTS if not sys.argv[1:] or any(
        word in m[0] or word in m[1] for word in sys.argv[1:])]
    os.makedirs(BUILD, exist_ok=True)
    if run(["cmake", "-S", ROOT, "-B", BUILD, "-DCMAKE_BUILD_TYPE=Debug"]) or run(
            ["cmake", "--build", BUILD, "-j2"]) or run(["ctest", "-j2"]):
        sys.exit("the suite does not build and pass as it stands")
    missed = []
    for number, (name, old, new) in enumerate(chosen, 1):
        path = os.path.join(ROOT, name)
        original = open(path).read()
        if old not in original:
            sys.exit(f"{name}: text not found: {old!r}")
        try:
            open(path, "w").write(original.replace(old, new, 1))
            built = run(["cmake", "--build", BUILD, "-j2"]) == 0
            caught = not built or run(["ctest", "-j2", "--timeout", "30"]) != 0
        finally:
            open(path, "w").write(original)
        verdict = "caught" if caught else "MISSED"
        print(f"{number:3}/{len(chosen)} {verdict:7} {name}: {old.strip()[:60]!r}", flush=True)
        if not caught:
            missed.append(name)
    run(["cmake", "--build", BUILD, "-j2"])
    print(f"{len(chosen) - len(missed)} of {len(chosen)} caught")
    sys.exit(1 if missed else 0)


if __name__ == "__main__":
    main()
