#!/usr/bin/python3
"""Concurrent writes through lighttpd (the shipped demo configuration, on
loopback, in a private /tmp: tools/sandbox.py). CLIENTS clients at once each
write WRITES parameters of their own; afterwards every write must be in the
simulator's saved tree, no process of the program may be left, and neither
lighttpd nor the simulator may hold more descriptors than when idle before. Prints the
figures; exits 1 when anything was lost or left. Needs root.

  bench/load.py CGI SIMULATOR [--clients 8] [--writes 200]
"""
import argparse
import http.client
import os
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tools"))
import sandbox  # noqa: E402


# Writes without fetch metadata come only from the appliance's own pages.
OWN_PAGE = {"X-Tzr4417-Console": "1"}


def write_all(port, client, writes, refused):
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=60)
    for number in range(writes):
        connection.request("GET", f"/cgi-bin/tzr4417.cgi?write=/load/{client}/{number}"
                                  f"&value={client}.{number}", headers=OWN_PAGE)
        response = connection.getresponse()
        if response.status != 200 or not response.read().endswith(b'"reply": "" }\n'):
            refused.append(f"/load/{client}/{number}: {response.status}")
    connection.close()


def saved_writes():
    with open("/tmp/appliance.conf") as tree:
        return {path: value for path, _, value in (line.rstrip("\n").partition(" ") for line in tree)
                if path.startswith("/load/")}


def stragglers(keep):
    """Our children but `keep`, once those that have ended are reaped."""
    while True:
        try:
            if os.waitpid(-1, os.WNOHANG)[0] == 0:
                break
        except ChildProcessError:
            break
    tasks = "/proc/self/task"
    pids = {int(pid) for task in os.listdir(tasks)
            for pid in open(f"{tasks}/{task}/children").read().split()}
    return pids - keep


def descriptors(*processes):
    return [len(os.listdir(f"/proc/{process.pid}/fd")) for process in processes]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("cgi")
    parser.add_argument("simulator")
    parser.add_argument("--clients", type=int, default=8)
    parser.add_argument("--writes", type=int, default=200)
    args = parser.parse_args()
    sandbox.enter()
    sandbox.install(args.cgi)
    sim = sandbox.Simulator(args.simulator)
    port = sandbox.free_port()
    server = sandbox.lighttpd("demo.conf", port)
    idle = descriptors(server, sim.proc)

    refused = []
    clients = [threading.Thread(target=write_all, args=(port, client, args.writes, refused))
               for client in range(args.clients)]
    start = time.monotonic()
    for client in clients:
        client.start()
    for client in clients:
        client.join()
    elapsed = time.monotonic() - start

    # The last replies come before their children apply and save.
    wanted = {f"/load/{c}/{n}": f"{c}.{n}" for c in range(args.clients) for n in range(args.writes)}
    saved = sandbox.poll(saved_writes, wanted.__eq__, 30)
    lost = sum(saved.get(path) != value for path, value in wanted.items())
    left = sandbox.poll(lambda: stragglers({server.pid, sim.proc.pid}), lambda pids: not pids, 10)
    settled = lambda now: all(a <= b for a, b in zip(now, idle))  # noqa: E731
    open_now = sandbox.poll(lambda: descriptors(server, sim.proc), settled, 10)
    print(f"{len(wanted)} writes by {args.clients} clients in {elapsed:.2f} s "
          f"({len(wanted) / elapsed:.0f} writes/s): {len(wanted) - lost} held in the saved tree, "
          f"{lost} lost, {len(refused)} refused; {len(left)} processes left; descriptors of "
          f"lighttpd and the simulator {idle} before, {open_now} after")
    for line in refused[:10]:
        print("refused:", line)
    sys.exit(1 if lost or refused or left or not settled(open_now) else 0)


if __name__ == "__main__":
    main()
