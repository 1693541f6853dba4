#!/usr/bin/python3
"""lighttpd's memory under an outsider who never sends the same user name twice:
the appliance snippet (tzr4417.conf, with the login guard) on loopback in a
private /tmp (tools/sandbox.py), and wrk sending 100,000 reads from one address,
each with a name never sent before (bench/new_names.lua: odd ones malformed, even
ones a wrong password). Prints lighttpd's resident memory before and after, and
the passwords it checked; judges none. The guard's own tables at their bound are
bench/guard_memory.lua's. Needs root and wrk.

  PYTHONPATH=tools bench/new_names.py CGI SIMULATOR
"""
import argparse, os, re, signal, subprocess
from pathlib import Path

import sandbox  # tools/, on PYTHONPATH

WAIT = 240  # seconds for new_names.lua's 100,000 answers, under an emulator too


def rss(pid):
    return int(re.search(r"VmRSS:\s*(\d+)", Path(f"/proc/{pid}/status").read_text())[1])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("cgi")
    parser.add_argument("simulator")
    args = parser.parse_args()
    sandbox.enter(keep=[os.path.dirname(args.cgi), os.path.dirname(args.simulator)])
    sandbox.install(args.cgi)
    sandbox.Simulator(args.simulator, quiet=True)
    Path("/tmp/users").write_text(f"admin:{sandbox.sha512_crypt('s3cret')}\n")
    port = sandbox.free_port()
    server = sandbox.lighttpd("tzr4417.conf", port, tzr4417_hosts="encoder", tzr4417_users="/tmp/users")

    before = rss(server.pid)
    url = f"http://127.0.0.1:{port}/cgi-bin/tzr4417.cgi?read=/configuration/network/ip_addr"
    script = sandbox.SRC / "bench/new_names.lua"
    # wrk runs for its whole -d; the script marks when it has had every answer.
    wrk = subprocess.Popen(["wrk", "-t1", "-c20", "-d300s", "-s", script, url], stdout=subprocess.PIPE, text=True)
    sandbox.poll(Path("/tmp/wrk.done").exists, bool, WAIT)
    wrk.send_signal(signal.SIGINT)
    report = wrk.communicate()[0]
    sent = re.search(r"(\d+) requests in ([\d.]+\w+)", report)
    after = rss(server.pid)
    checks = Path("/tmp/server.log").read_text().count("password doesn't match")
    print(
        f"lighttpd's resident memory {before} kB before, {after} kB after {sent[1]} requests with new names from "
        f"one address in {sent[2]} ({after - before:+d} kB); {checks} passwords checked"
    )


if __name__ == "__main__":
    main()
