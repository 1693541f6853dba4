#!/usr/bin/python3
"""Plants single-line faults in the program, one at a time, and runs the test
suite against each: a fault that every test lets pass marks a hole in the
suite. Builds in build-mutants/ and restores every file, also when stopped.

  tools/mutants.py            every mutant
  tools/mutants.py frame      only those whose file or text contains "frame"
  tools/mutants.py --unit     against the unit tier alone (ctest -L unit), as
                              any user and in seconds a mutant: which faults
                              the in-process tests catch without the binary
  tools/mutants.py --label L  against the tiers ctest -L L picks ('unit|e2e')

A mutant that does not build is reported apart, never as caught: it tells
nothing of the suite. Warnings are not errors here, since a fault the
compiler only warns of still makes a program to test.
"""
import re, subprocess, sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
BUILD = ROOT / "build-mutants"
# Every test but lighttpd's server test, which waits out its CGI time-out
# (no fault of the program's changes that) and would double each run; its
# rows run behind busybox httpd too.
CTEST = ["ctest", "-j2", "--timeout", "60", "-E", "web.server.lighttpd"]
ARGS = sys.argv[1:]
LABEL = "unit" if "--unit" in ARGS else None
if "--label" in ARGS[:-1]:
    at = ARGS.index("--label")
    LABEL, ARGS = ARGS[at + 1], ARGS[:at] + ARGS[at + 2 :]
if LABEL:
    CTEST = ["ctest", "-j2", "--timeout", "60", "-L", LABEL]

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
    (
        "config_client/uds_connection.cpp",
        "setStatus(UdsStatus::ReadFailed, errno);\n      close();",
        "setStatus(UdsStatus::ReadFailed, errno);",
    ),
    ("config_client/uds_connection.cpp", "reply.resize(p);", "reply.resize(p + 1);"),
    ("config_client/config_client.cpp", "  trimLeft(text);\n", ""),
    ("config_client/config_client.cpp", " || c == '\\0'", ""),
    ("config_client/config_client.cpp", '" \\t\\v\\f"', '" \\t"'),
    ("config_client/config_client.cpp", "    if (!ok) return false;\n", ""),
    ("config_client/config_client.cpp", "      connection_->close();\n", ""),
    ("config_client/config_client.cpp", "    replies += reply;\n", ""),
    ("config_client/map_utils.cpp", "if (it != map.end())", "if (it != map.begin())"),
    ("config_client/map_utils.cpp", "it->second != entry.second", "it->second == entry.second"),
    ("config_client/map_utils.cpp", "base.find(entry.first) == base.end()", "base.find(entry.first) != base.end()"),
    ("read_service/read_request.cpp", "name.find(' ')", "name.find('\\t')"),
    ("read_service/read_request.cpp", " &&\n         value != kNoSuchParameter", ""),
    ("read_service/read_request.cpp", "writeText(invalid[i]);", "writeJsonString(invalid[i]);"),
    ("read_service/read_request.cpp", "    if (end == begin) continue;\n", ""),
    ("read_service/read_request.cpp", "  if (memberWritten) writeText", "  writeText"),
    ("write_service/write_request.cpp", 'value = "\\"\\"";', 'value = "";'),
    ("write_service/write_request.cpp", "  setsid();\n", ""),
    ("write_service/write_request.cpp", '  redirectToDevNull("r", stdin);\n', ""),
    ("write_service/write_request.cpp", '  redirectToDevNull("a", stdout);\n', ""),
    ("write_service/write_request.cpp", '  redirectToDevNull("a", stderr);\n', ""),
    ("write_service/write_request.cpp", "if (pid > 0) exit(0);", "if (pid > 0) return false;"),
    ("write_service/write_request.cpp", "    writeText(reply);\n", ""),
    (
        "write_service/write_request.cpp",
        'if (!reply.empty()) syslog(LOG_INFO, "Reply from \\"put',
        'if (reply.empty()) syslog(LOG_INFO, "Reply from \\"put',
    ),
    ("write_service/triggered_rule.cpp", "name.compare(29, 16,", "name.compare(28, 16,"),
    ("write_service/triggered_rule.cpp", "name.compare(43, 5,", "name.compare(42, 5,"),
    ("write_service/triggered_rule.cpp", "name.compare(0, 42,", "name.compare(0, 41,"),
    ("write_service/triggered_rule.cpp", "value.substr(7, 1)", "value.substr(6, 1)"),
    ("write_service/triggered_rule.cpp", ' ||\n             name == "/configuration/network/subnet_mask"', ""),
    ("write_service/parameter_access.cpp", "  if (pending != changes.end()) {", "  if (false) {"),
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
    ("config_client/uds_connection.cpp", "text.find('>', from + 1)", "text.find('>', from)"),
    ("write_service/triggered_rule.cpp", "value.substr(7, 1)", "value.substr(7)"),
    ("cgi/content_length_guard.cpp", "unsigned long>(atol(", "unsigned long>(atoi("),
    ("read_service/read_request.cpp", "  flushReply();\n", ""),
    # Requests that meet, and a daemon that misbehaves.
    ("config_client/config_client.cpp", ' &&\n         value.find("/> ") == std::string::npos', ""),
    ("write_service/write_request.cpp", "client(daemon, LockMode::Exclusive)", "client(daemon, LockMode::Shared)"),
    ("read_service/read_request.cpp", "client(daemon, LockMode::Shared)", "client(daemon)"),
    ("write_service/write_request.cpp", "  client.releaseLock();\n", ""),
    ("config_client/daemon_lock.cpp", "waitFor(queue, LOCK_EX, replyFd) && ", ""),
    ("config_client/daemon_lock.cpp", "::flock(queue, LOCK_EX | LOCK_NB) == 0 && ", ""),
    ("config_client/daemon_lock.cpp", "if (replyAbandoned(replyFd)) {", "if (replyAbandoned(replyFd) && false) {"),
    ("config_client/uds_connection.cpp", "  lock_.release();\n  pollfd", "  pollfd"),
    ("config_client/uds_connection.cpp", "if (readerGone(fds[1].revents))", "if (false)"),
    ("config_client/uds_connection.cpp", "if (readerGone(reply.revents))", "if (false)"),
    (
        "config_client/uds_connection.cpp",
        "if (unattendedLimitMs_ < 0) return awaitAbandonment();",
        "return awaitAbandonment();",
    ),
    (
        "config_client/uds_connection.cpp",
        "setStatus(UdsStatus::Abandoned, 0);\n    } else {",
        "setStatus(UdsStatus::OpenFailed, ECANCELED);\n    } else {",
    ),
    ("read_service/read_request.cpp", "      if (client.abandoned()) return false;\n", ""),
    ("write_service/write_request.cpp", "  if (client.abandoned()) return false;  // also", "  // also"),
    (
        "config_client/uds_connection.cpp",
        "  close();\n  lock_.release();\n  return false;",
        "  close();\n  return false;",
    ),
    ("config_client/daemon_lock.cpp", "mode == LockMode::Shared ? LOCK_SH", "mode == LockMode::Shared ? LOCK_EX"),
    ("write_service/write_request.cpp", "if (detach()) client.setUnattended", "if (detach()) (void)"),
]


def sequence_mutants(name, *moved):
    """Each statement of a plain sequence left out, and each of `moved` put
    last: planted from the file as it stands, whatever its steps."""
    text = (ROOT / name).read_text()
    # A declaration left out would not build: only the statements that act.
    steps = [
        line
        for line in text.splitlines(keepends=True)
        if re.fullmatch(r"  [^ /}].*;\n", line) and not re.match(r"  (return\b|\w+ \w+;)", line)
    ]
    yield from ((name, line, "") for line in steps)
    for line in moved:
        rest = text[text.index(line) + len(line) : text.index(steps[-1]) + len(steps[-1])]
        yield name, line + rest, rest + line


def set_mutants(name, pattern):
    """Each character of the first string literal matching `pattern` left out."""
    literal = re.search(pattern, (ROOT / name).read_text()).group(0)
    characters = re.findall(r"\\.|[^\\\"]", literal[1:-1])
    yield from ((name, literal, literal.replace(c, "", 1)) for c in characters)


# The write's rule sequence, and the blanks that make a written value quoted.
# The rules see the written value, and what the triggered rule recorded.
MUTANTS += [
    *sequence_mutants(
        "write_service/collect_changes.cpp",
        "  changes[name] = value;\n",
        "  applyTriggeredRule(client, changes, name, value);\n",
    ),
    *set_mutants("write_service/write_request.cpp", r'" \\t[^"]*"'),
]


def run(command):
    return subprocess.run(command, cwd=BUILD, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode


def main():
    words = [word for word in ARGS if word != "--unit"]
    chosen = [m for m in MUTANTS if not words or any(word in m[0] or word in m[1] for word in words)]
    BUILD.mkdir(exist_ok=True)
    if (
        run(["cmake", "-S", ROOT, "-B", BUILD, "-DCMAKE_BUILD_TYPE=Debug", "-DTZR_WERROR=OFF"])
        or run(["cmake", "--build", BUILD, "-j2"])
        or run(CTEST)
    ):
        sys.exit("the suite does not build and pass as it stands")
    missed, unbuilt = [], []
    for number, (name, old, new) in enumerate(chosen, 1):
        path = ROOT / name
        original = path.read_text()
        if old not in original:
            sys.exit(f"{name}: text not found: {old!r}")
        try:
            path.write_text(original.replace(old, new, 1))
            built = run(["cmake", "--build", BUILD, "-j2"]) == 0
            caught = built and run(CTEST) != 0
        finally:
            path.write_text(original)
        verdict = "caught" if caught else "MISSED" if built else "NO BUILD"
        print(f"{number:3}/{len(chosen)} {verdict:8} {name}: {old.strip()[:60]!r}", flush=True)
        if not built:
            unbuilt.append(name)
        elif not caught:
            missed.append(name)
    run(["cmake", "--build", BUILD, "-j2"])
    print(
        f"{len(chosen) - len(missed) - len(unbuilt)} of {len(chosen)} caught, {len(missed)} missed, "
        f"{len(unbuilt)} did not build"
    )
    sys.exit(1 if missed or unbuilt else 0)


if __name__ == "__main__":
    main()
