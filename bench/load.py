#!/usr/bin/python3
"""Concurrent writes through lighttpd (the shipped demo configuration, on
loopback, in a private /tmp: tools/sandbox.py). CLIENTS clients at once each
write WRITES parameters of their own; then it counts the writes held in the
simulator's saved tree, the program's processes left, and the descriptors
lighttpd and the simulator hold against when idle before. With --readers,
that many more clients read every known parameter over and over meanwhile:
the writes' latency shows whether reads starve them. Prints the figures and
judges none: the end-to-end tier shows what requests that meet must do.
Needs root.

  PYTHONPATH=tools bench/load.py CGI SIMULATOR [--clients 8] [--writes 200] [--readers 0]
"""
import argparse, contextlib, http.client, os, statistics, threading, time

import sandbox  # tools/, on PYTHONPATH


# What the console and documented scripts send with a write; lighttpd
# refuses a write without it.
OWN_PAGE = {"X-Tzr4417-Console": "1"}
# Seconds to wait for a reply, for the last detached children to apply and
# save, and for processes and descriptors to settle after them.
REQUEST_TIMEOUT = 60
SAVE_WAIT = 30
SETTLE_WAIT = 10
SHOWN_REFUSALS = 10  # refused writes printed in full


def write_all(port, client, writes, refused, latencies):
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=REQUEST_TIMEOUT)
    for number in range(writes):
        start = time.monotonic()
        connection.request(
            "GET", f"/cgi-bin/tzr4417.cgi?write=/load/{client}/{number}&value={client}.{number}", headers=OWN_PAGE
        )
        response = connection.getresponse()
        if response.status != 200 or not response.read().endswith(b'"reply": "" }\n'):
            refused.append(f"/load/{client}/{number}: {response.status}")
        latencies.append(time.monotonic() - start)
    connection.close()


def read_all(port, done, refused, reads):
    """Reads every known parameter until `done` is set."""
    with open(sandbox.SRC / "simulator/appliance-default.conf") as tree:
        names = ",".join(line.split()[0] for line in tree if line.startswith("/"))
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=REQUEST_TIMEOUT)
    while not done.is_set():
        connection.request("GET", f"/cgi-bin/tzr4417.cgi?read={names}")
        response = connection.getresponse()
        if response.status != 200 or b"invalid" in response.read():
            refused.append(f"read: {response.status}")
        reads.append(1)
    connection.close()


def saved_writes():
    with open("/tmp/appliance.conf") as tree:
        return {
            path: value
            for path, _, value in (line.rstrip("\n").partition(" ") for line in tree)
            if path.startswith("/load/")
        }


def stragglers(keep):
    """Our descendants but `keep`, once those that have ended are reaped."""
    with contextlib.suppress(ChildProcessError):
        while os.waitpid(-1, os.WNOHANG)[0] != 0:
            pass
    return sandbox.descendants(os.getpid()) - keep


def descriptors(*processes):
    return [len(os.listdir(f"/proc/{process.pid}/fd")) for process in processes]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("cgi")
    parser.add_argument("simulator")
    parser.add_argument("--clients", type=int, default=8)
    parser.add_argument("--writes", type=int, default=200)
    parser.add_argument("--readers", type=int, default=0)
    args = parser.parse_args()
    sandbox.enter(keep=[os.path.dirname(args.cgi), os.path.dirname(args.simulator)])
    sandbox.install(args.cgi)
    sim = sandbox.Simulator(args.simulator)
    port = sandbox.free_port()
    server = sandbox.lighttpd("demo.conf", port)
    idle = descriptors(server, sim.proc)

    refused, latencies, reads, done = [], [], [], threading.Event()
    readers = [threading.Thread(target=read_all, args=(port, done, refused, reads)) for _ in range(args.readers)]
    clients = [
        threading.Thread(target=write_all, args=(port, client, args.writes, refused, latencies))
        for client in range(args.clients)
    ]
    start = time.monotonic()
    for thread in readers + clients:
        thread.start()
    for client in clients:
        client.join()
    elapsed = time.monotonic() - start
    done.set()
    for reader in readers:
        reader.join()

    # The last replies come before their children apply and save.
    wanted = {f"/load/{c}/{n}": f"{c}.{n}" for c in range(args.clients) for n in range(args.writes)}
    saved = sandbox.poll(saved_writes, wanted.__eq__, SAVE_WAIT)
    lost = sum(saved.get(path) != value for path, value in wanted.items())
    left = sandbox.poll(lambda: stragglers({server.pid, sim.proc.pid}), lambda pids: not pids, SETTLE_WAIT)

    def settled(now):
        return all(a <= b for a, b in zip(now, idle))

    open_now = sandbox.poll(lambda: descriptors(server, sim.proc), settled, SETTLE_WAIT)
    print(
        f"{len(wanted)} writes by {args.clients} clients in {elapsed:.2f} s "
        f"({len(wanted) / elapsed:.0f} writes/s): {len(wanted) - lost} held in the saved tree, "
        f"{lost} lost, {len(refused)} refused; a write took {statistics.median(latencies) * 1e3:.1f} ms "
        f"(median), {max(latencies) * 1e3:.1f} ms at most, beside {len(reads)} reads by "
        f"{args.readers} readers; {len(left)} processes left; descriptors of lighttpd and the "
        f"simulator {idle} before, {open_now} after"
    )
    for line in refused[:SHOWN_REFUSALS]:
        print("refused:", line)


if __name__ == "__main__":
    main()
