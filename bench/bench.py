#!/usr/bin/python3
"""Per-request cost of tzr4417.cgi against floor programs, as one table.

bench/run.sh builds everything and starts this; it takes a private /tmp and
/dev for itself (tools/sandbox.py: its own daemon simulator on
/tmp/cffs_uds, its own /dev/log), so no daemon or syslog of the machine is
touched. Every compared figure is a ratio of medians taken in this run,
program and reference interleaved, because the machines are shared and noisy.
"""

import argparse, json, os, re, shutil, statistics, subprocess, sys, urllib.request
from pathlib import Path
from typing import NamedTuple

import sandbox  # tools/, on PYTHONPATH (bench/run.sh)

ROOT = Path(__file__).resolve().parents[1]

BASELINE = ROOT / "bench/callgrind-baseline.txt"
DEFAULT_CONF = ROOT / "simulator/appliance-default.conf"
IP = "/configuration/network/ip_addr"
HOST = "/configuration/network/hostname"
MS = 1e3
# Runs whose page faults are counted; odd, so that the median is one of them.
FAULT_RUNS = 11


def run(*command, **kwargs):
    return subprocess.run(command, check=True, **kwargs)


def cgi_env(query):
    return {"PATH": "/usr/bin:/bin", "REQUEST_METHOD": "GET", "QUERY_STRING": query}


def reply_of(command, query):
    return subprocess.run(command.split(), env=cgi_env(query), capture_output=True, check=True).stdout


def hyperfine(commands, query, runs):
    """The run times in seconds of each command, one hyperfine call. A
    pause before each run lets a write's detached child finish its apply
    and save first, so that it does not slow down the next run."""
    out = "/tmp/hyperfine.json"
    pause = ["--prepare", "sleep 0.003"] if query.startswith("write=") else []
    run(
        "hyperfine",
        "-N",
        "--style",
        "none",
        "--warmup",
        str(max(1, runs // 10)),
        "--runs",
        str(runs),
        *pause,
        "--export-json",
        out,
        *commands,
        env=cgi_env(query),
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
    )
    with open(out) as f:
        return [result["times"] for result in json.load(f)["results"]]


def timed(cases, rounds):
    """cases: (key, query, [command, ...], runs). Runs every case once per
    round, the commands' order alternating; returns key -> median seconds
    per command."""
    samples = {key: [[] for _ in commands] for key, _, commands, _ in cases}
    for r in range(rounds):
        for key, query, commands, runs in cases:
            order = list(range(len(commands)))
            if r % 2:
                order.reverse()
            times = hyperfine([commands[i] for i in order], query, runs)
            for i, t in zip(order, times):
                samples[key][i] += t
    return {key: [statistics.median(s) for s in lists] for key, lists in samples.items()}


def usage_of(command, query):
    """The resource usage of one run, its output discarded."""
    args = command.split()
    pid = os.posix_spawn(
        args[0], args, cgi_env(query), file_actions=[(os.POSIX_SPAWN_OPEN, 1, "/dev/null", os.O_WRONLY, 0)]
    )
    return os.wait4(pid, 0)[2]


def cpu_time(command, query):
    """User and system time of one run, in seconds."""
    usage = usage_of(command, query)
    return usage.ru_utime + usage.ru_stime


def cpu_times(cases, rounds):
    """cases: (key, [(command, query), ...], runs). Like timed(), but CPU
    time, and the variants of a case interleaved run by run."""
    samples = {key: [[] for _ in variants] for key, variants, _ in cases}
    for _ in range(rounds):
        for key, variants, runs in cases:
            for _ in range(runs):
                for i, (command, query) in enumerate(variants):
                    samples[key][i].append(cpu_time(command, query))
    return {key: [statistics.median(s) for s in lists] for key, lists in samples.items()}


def instructions(command, query):
    """Instructions callgrind counts in the process the command starts (a
    write's detached child not included)."""
    result = subprocess.run(
        ["setarch", "-R", "valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", *command.split()],
        env=cgi_env(query),
        stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE,
        text=True,
    )
    pids = re.findall(r"^==(\d+)==", result.stderr, re.M)
    counts = dict(re.findall(r"^==(\d+)== Collected : (\d+)", result.stderr, re.M))
    if not pids or pids[0] not in counts:
        sys.exit("callgrind failed:\n" + result.stderr)
    return int(counts[pids[0]])


def default_configuration():
    """The default configuration's names in file order, and their values."""
    with open(DEFAULT_CONF) as f:
        entries = [line.rstrip("\n").partition(" ") for line in f if line.startswith("/")]
    return [name for name, _, _ in entries], {name: value for name, _, value in entries}


class Kind(NamedTuple):
    """A kind of request measured directly."""

    key: str
    label: str
    query: str
    write: bool


class Case(NamedTuple):
    """A scaling measurement: `query` has `units` more bytes or names than `base`."""

    unit: str
    label: str
    units: int
    query: str
    base: str
    runs: int


def request_kinds():
    """The kinds measured, on the default configuration."""
    names, values = default_configuration()
    reads = [
        Kind(
            f"read-{n}",
            f"read of {n} name{'s' if n > 1 else ''}",
            "read=" + ",".join(names[i % len(names)] for i in range(n)),
            False,
        )
        for n in (1, 10, 100, 1000)
    ]
    reads[0] = Kind("read-1", "read of 1 name", "read=" + IP, False)
    return reads + [
        Kind("write-ip", "write of the IP address, same value", f"write={IP}&value={values[IP]}", True),
        Kind("write-plain", "write that triggers nothing", f"write={HOST}&value={values[HOST]}", True),
    ]


def round_trips(sim, program, kinds):
    """Counts each kind's "ls" and "put" requests through the simulator's
    transcript, so that the floor makes exactly as many."""
    transcript = Path("/tmp/transcript")
    simulator = sandbox.Simulator(sim)
    counts = {}
    for kind in kinds:
        before = transcript.stat().st_size
        reply = reply_of(program, kind.query)
        if not reply.startswith(b"Content-Type: application/json\n\n{"):
            sys.exit(f"{kind.key}: unexpected reply {reply[:200]!r}")
        with transcript.open("rb") as f:
            f.seek(before)
            lines = f.read().splitlines()
        counts[kind.key] = (
            sum(line.startswith(b"ls ") for line in lines),
            sum(line.startswith(b"put ") for line in lines),
        )
        if kind.write:  # its detached child ends the dialogue with apply and save
            sandbox.poll(lambda: transcript.read_bytes().endswith(b"save\\r\n"), bool)
    simulator.stop()
    return counts


def wrk_rates(programs, query, rounds, seconds):
    """Requests per second through lighttpd, each program in turn per round."""
    os.makedirs("/tmp/www")
    for name, path in programs.items():
        shutil.copy(path, f"/tmp/www/{name}.cgi")
    port = sandbox.free_port()
    Path("/tmp/lighttpd.conf").write_text(
        f'server.document-root = "/tmp/www"\nserver.bind = "127.0.0.1"\n'
        f'server.port = {port}\nserver.modules = ("mod_cgi")\n'
        f'cgi.assign = (".cgi" => "")\nserver.errorlog = "/tmp/lighttpd.log"\n'
    )
    server = sandbox.serve(["lighttpd", "-D", "-f", "/tmp/lighttpd.conf"], port)
    urls = {name: f"http://127.0.0.1:{port}/{name}.cgi?{query}" for name in programs}
    try:
        with urllib.request.urlopen(urls["tzr4417"]) as reply:
            if not reply.read().startswith(b'{ "\\/configuration'):
                sys.exit("unexpected reply through lighttpd")
        rates = {name: [] for name in programs}
        for r in range(rounds):
            for name in list(programs) if r % 2 == 0 else list(reversed(programs)):
                rate = sandbox.wrk(urls[name], seconds)()
                if rate is None:
                    sys.exit(f"wrk saw errors for {name}")
                rates[name].append(rate)
        return {name: statistics.median(r) for name, r in rates.items()}
    finally:
        server.terminate()
        server.wait()


# The snippet without its login guard: a condition of its own, applied after the snippet's.
UNGUARDED = (
    '$HTTP["url"] =^ "/cgi-bin/tzr4417.cgi" { magnet.attract-raw-url-to = () '
    "magnet.attract-physical-path-to = () magnet.attract-response-start-to = () }"
)


def guard_rates(program, query, rounds, seconds):
    """Valid reads a second through the appliance's plain-HTTP snippet, with its login guard and without: two
    servers alike but for it, measured at once, so that whatever else loads the machine loads both."""
    sandbox.install(program, www="/tmp/guarded")
    Path("/tmp/guard-users").write_text(f"admin:{sandbox.sha512_crypt('s3cret')}\n")
    ports = [sandbox.free_port() for _ in range(2)]
    servers = [
        sandbox.lighttpd(
            "tzr4417.conf",
            port,
            www="/tmp/guarded",
            after=after,
            path=f"/tmp/{port}.conf",
            tzr4417_hosts="encoder",
            tzr4417_users="/tmp/guard-users",
        )
        for port, after in zip(ports, ([], [UNGUARDED]))
    ]
    options = ["-H", "X-Tzr4417-Console: 1", "-H", "Authorization: Basic YWRtaW46czNjcmV0"]  # admin:s3cret
    try:
        ratios = []
        for _ in range(rounds):
            runs = [
                sandbox.wrk(f"http://127.0.0.1:{port}/cgi-bin/tzr4417.cgi?{query}", seconds, *options) for port in ports
            ]
            guarded, unguarded = (rate() for rate in runs)
            if not (guarded and unguarded):
                sys.exit("wrk saw errors through the appliance's snippet")
            ratios.append((guarded, unguarded))
        return (
            statistics.median(g for g, _ in ratios),
            statistics.median(u for _, u in ratios),
            statistics.median(g / u for g, u in ratios),
        )
    finally:
        for server in servers:
            server.terminate()
            server.wait()


SIZES = {"1K": 1 << 10, "16K": 16 << 10, "256K": 256 << 10, "4M": 4 << 20, "16M": 16 << 20}


def scaling_tree():
    """A value of every size the bytes rows read (and /b/1 of one byte), and
    10,000 short names."""
    pattern = "0123456789abcde/"  # a slash in 16 bytes, as in the paths we serve
    with open("/tmp/scaling.conf", "w") as f:
        for label, size in {"1": 1, **SIZES}.items():
            f.write(f"/b/{label} {(pattern * (size // 16 + 1))[:size]}\n")
        for i in range(10000):
            f.write(f"/n/{i:04d} v{i:04d}\n")


def stripped_size(path):
    run("strip", "-o", "/tmp/stripped", path)
    return os.path.getsize("/tmp/stripped")


def page_faults(command, query):
    return statistics.median(usage_of(command, query).ru_minflt for _ in range(FAULT_RUNS))


def read_baseline():
    baseline = {}
    if BASELINE.exists():
        with BASELINE.open() as f:
            for line in f:
                if line.strip() and not line.startswith("#"):
                    key, count = line.split()
                    baseline[key] = int(count)
    return baseline


def write_baseline(counts):
    with BASELINE.open("w") as f:
        f.write(
            "# Instructions callgrind counts in tzr4417.cgi's own process per request kind\n"
            "# (static build, default configuration). bench/run.sh --update-baseline\n"
            "# rewrites it; a commit that moves a kind by more than 10 % says why.\n"
        )
        for key, count in counts.items():
            f.write(f"{key} {count}\n")


class Table:
    def __init__(self):
        self.rows = []

    def add(self, figure, program, reference, ratio, goal=""):
        self.rows.append((figure, program, reference, ratio, goal))

    def print(self):
        print("| figure | program | floor or reference | ratio | goal |")
        print("|---|---|---|---|---|")
        for row in self.rows:
            print("| " + " | ".join(row) + " |")


def progress(text):
    print(text, file=sys.stderr, flush=True)


def ms(seconds):
    return f"{seconds * MS:.3f} ms"


def pinned_cpu():
    """The CPU the timed runs share with the simulator: one core, as on the
    appliance, and no cross-core wake-ups, whose cost in a virtual machine
    swamps what is measured."""
    return max(os.sched_getaffinity(0))


def direct_rows(table, program, floors, trips, kinds, rounds, scale):
    runs = {"read-100": 50, "read-1000": 16}
    medians = timed(
        [
            (kind.key, kind.query, [program, floors[kind.key]], max(3, int(runs.get(kind.key, 100) * scale)))
            for kind in kinds
        ],
        rounds,
    )
    goals = {"read-1": "≤ 1.10", "read-10": "≤ 1.10", "write-ip": "≤ 1.10"}
    for kind in kinds:
        p, f = medians[kind.key]
        ls, puts = trips[kind.key]
        table.add(f"direct: {kind.label} ({ls} ls, {puts} put)", ms(p), ms(f), f"{p / f:.2f}", goals.get(kind.key, ""))


def instruction_rows(table, program, kinds, update):
    counts = {kind.key: instructions(program, kind.query) for kind in kinds}
    counts["start-up"] = instructions(program, "")
    baseline = read_baseline()
    for key, count in counts.items():
        if key in baseline:
            table.add(
                f"instructions: {key}",
                f"{count:,}",
                f"baseline {baseline[key]:,}",
                f"{count / baseline[key]:.3f}",
                "≤ 1.10",
            )
        else:
            table.add(f"instructions: {key}", f"{count:,}", "no baseline", "")
    if update:
        write_baseline(counts)


def scaling_rows(table, program, floor, rounds, scale):
    """What one more byte of a daemon reply, or one more name in a read,
    costs the program's own process: CPU time (wall time would also count
    the simulator's work) and instructions. Each figure is the difference
    between two reads of as many round trips, over the bytes or names that
    one has more than the other."""
    cases = []
    for label, size in SIZES.items():
        n = max(1, (1 << 20) // size)  # a megabyte at least, so the difference shows
        cases.append(
            Case(
                "byte",
                f"reply of {label}B ({n} in one read)",
                n * (size - 1),
                "read=" + ",".join([f"/b/{label}"] * n),
                "read=" + ",".join(["/b/1"] * n),
                max(3, int(min(20, (16 << 20) // (n * size)) * scale)),
            )
        )
    for n in (10, 100, 1000, 10000):
        cases.append(
            Case(
                "name",
                f"read of {n:,} names",
                n - 1,
                "read=" + ",".join(f"/n/{i:04d}" for i in range(n)),
                "read=/n/0000",
                max(3, int(min(40, 30000 // n) * scale)),
            )
        )
    medians = cpu_times(
        [
            (i, [(program, c.query), (program, c.base), (floor, c.query), (floor, c.base)], c.runs)
            for i, c in enumerate(cases)
        ],
        rounds,
    )
    per_unit = {"byte": {}, "name": {}}
    for i, c in enumerate(cases):
        more, base, floor_more, floor_base = medians[i]
        extra = instructions(program, c.query) - instructions(program, c.base)
        per_unit[c.unit][c.label] = ((more - base) / c.units, (floor_more - floor_base) / c.units, extra / c.units)
    for unit, factor, suffix in (("byte", 1e9, "ns"), ("name", 1e6, "µs")):
        least = min(cost for cost, _, _ in per_unit[unit].values())
        for label, (cost, floor_cost, extra) in per_unit[unit].items():
            table.add(
                f"scaling: {label}, CPU time and instructions per {unit}",
                f"{cost * factor:.2f} {suffix}, {extra:.1f} instr",
                f"floor {floor_cost * factor:.2f} {suffix}",
                f"{cost / least:.2f}",
                "≤ 1.5",
            )


def startup_rows(table, programs, fixed, floor, rounds, scale):
    """programs: kind -> path, the last the iostream-only C++ program."""
    floor_size = stripped_size(floor)
    for kind, path in programs.items():
        size = stripped_size(path)
        table.add(
            f"stripped size, {kind}",
            f"{size / 1024:.0f} KiB",
            f"floor {floor_size / 1024:.0f} KiB",
            f"{size / floor_size:.2f}",
        )
    medians = timed([("start", "", [*programs.values(), fixed], int(200 * scale))], rounds)
    times = dict(zip([*programs, "fixed"], medians["start"]))
    reference = f"fixed-reply C {ms(times['fixed'])}, {instructions(fixed, ''):,}, {page_faults(fixed, ''):.0f}"
    for kind, path in programs.items():
        table.add(
            f"start-up, {kind} (no request field): time, instructions, page faults",
            f"{ms(times[kind])}, {instructions(path, ''):,}, {page_faults(path, ''):.0f}",
            reference,
            f"{times[kind] / times['fixed']:.2f}",
        )


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tools", required=True, help="build dir of the simulator and floors")
    parser.add_argument("--static", required=True, help="tzr4417.cgi, linked statically")
    parser.add_argument("--dynamic", required=True, help="tzr4417.cgi, linked dynamically")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--update-baseline", action="store_true")
    args = parser.parse_args()

    rounds = 3 if args.quick else 7
    scale = 0.3 if args.quick else 1.0
    tools = Path(args.tools)
    sim = tools / "simulator/cffs-sim"
    floor = tools / "bench/floor_cgi"
    fixed = tools / "bench/fixed_cgi"
    program = args.static

    sandbox.enter()
    # Every program runs from a copy in the same tmpfs: how a file came into
    # the page cache (large folios or small pages) changes how many page
    # faults it takes to start it, by as much as the differences measured.
    os.mkdir("/tmp/bin")
    built = {
        "static": args.static,
        "dynamic": args.dynamic,
        "floor": floor,
        "fixed": fixed,
        "iostream": tools / "bench/iostream_start",
    }
    for name, path in built.items():
        shutil.copy(path, f"/tmp/bin/{name}")
    program, dynamic, floor, fixed, iostream = (f"/tmp/bin/{name}" for name in built)
    table = Table()
    kinds = request_kinds()
    floors = {}
    trips = round_trips(sim, program, kinds)
    for key, (ls, puts) in trips.items():
        write = next(kind.write for kind in kinds if kind.key == key)
        if write and puts != 1:
            sys.exit(f"{key}: {puts} puts; the floor makes one")
        floors[key] = f"{floor} write {ls}" if write else floor

    # Through lighttpd, on every core: throughput counts every cycle.
    progress("lighttpd and wrk ...")
    simulator = sandbox.Simulator(sim, quiet=True)
    read10 = next(kind.query for kind in kinds if kind.key == "read-10")
    rates = wrk_rates(
        {"tzr4417": program, "floor": floor, "fixed": fixed}, read10, 3 if args.quick else 5, 2 if args.quick else 4
    )
    guarded = guard_rates(program, read10, 3 if args.quick else 5, 2 if args.quick else 3)
    simulator.stop()

    os.sched_setaffinity(0, {pinned_cpu()})
    simulator = sandbox.Simulator(sim, quiet=True)
    progress("direct runs (hyperfine) ...")
    direct_rows(table, program, floors, trips, kinds, rounds, scale)
    table.add(
        "lighttpd, wrk -c4: read of 10 names, requests/s",
        f"{rates['tzr4417']:.0f}",
        f"{rates['floor']:.0f}",
        f"{rates['tzr4417'] / rates['floor']:.2f}",
        "≥ 0.90",
    )
    table.add(
        "lighttpd: the same against a CGI that prints a fixed reply",
        f"{rates['tzr4417']:.0f}",
        f"{rates['fixed']:.0f}",
        f"{rates['tzr4417'] / rates['fixed']:.2f}",
    )
    table.add(
        "lighttpd: the floor against the fixed-reply CGI",
        f"{rates['floor']:.0f}",
        f"{rates['fixed']:.0f}",
        f"{rates['floor'] / rates['fixed']:.2f}",
    )
    table.add(
        "lighttpd, the appliance's snippet: valid reads of 10 names/s, with the login guard against "
        "without (both check the password)",
        f"{guarded[0]:.0f}",
        f"{guarded[1]:.0f}",
        f"{guarded[2]:.2f}",
        "≥ 0.90",
    )
    progress("instruction counts (callgrind) ...")
    instruction_rows(table, program, kinds, args.update_baseline)
    simulator.stop()

    scaling_tree()
    simulator = sandbox.Simulator(sim, tree="/tmp/scaling.conf", quiet=True)
    progress("scaling ...")
    scaling_rows(table, program, floor, max(2, rounds // 2), scale)
    simulator.stop()
    progress("size and start-up ...")
    startup_rows(
        table,
        {"static": program, "dynamic": dynamic, "C++ with iostream and nothing else": iostream},
        fixed,
        floor,
        rounds,
        scale,
    )
    table.print()


if __name__ == "__main__":
    main()
