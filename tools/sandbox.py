"""The program's world on a laptop, in a private /tmp: the daemon simulator
and lighttpd or busybox httpd with the shipped configurations, for the
tests, the benchmark and the load command. Needs root.

enter() gives the calling process a mount namespace of its own with a tmpfs
on /tmp (so /tmp/cffs_uds is its alone, never a developer's daemon) and a
/dev of its own whose /dev/log it drains; it also becomes a child subreaper,
so the program's detached children come back to it.

  tools/sandbox.py run [--keep FOLDER]... COMMAND [ARGUMENT...]

runs COMMAND so (ctest starts each end-to-end test program this way), with
each FOLDER under /tmp (a build folder there) still in place in the private
/tmp. The attribute survives exec, also into qemu-user, which cannot set it
for the program it emulates. COMMAND finds TZR_SANDBOX set.
"""
import contextlib, ctypes, os, re, shutil, signal, socket, subprocess, sys, threading, time
from pathlib import Path

SRC = Path(__file__).resolve().parents[1]
LIBC = ctypes.CDLL(None, use_errno=True)
CLONE_NEWNS, MS_BIND, MS_REC, MS_PRIVATE = 0x20000, 0x1000, 0x4000, 0x40000
PR_SET_PDEATHSIG, PR_SET_CHILD_SUBREAPER = 1, 36
# A cross build's programs start through the emulator (qemu-user).
EMULATOR = os.environ.get("TZR_EMULATOR", "").split()


def _check(ok, what):
    if not ok:
        sys.exit(f"sandbox: {what}: {os.strerror(ctypes.get_errno())} (run as root)")


def enter(keep=()):
    """KEEP: folders under /tmp that stay visible in the private one (a
    build folder there), besides the sources."""
    keep = [Path(folder).resolve() for folder in (*keep, SRC)]
    if Path("/tmp") in keep:
        sys.exit("sandbox: a build folder cannot be /tmp itself: its /tmp must be private")
    keep = [folder for folder in keep if Path("/tmp") in folder.parents]
    _check(LIBC.unshare(CLONE_NEWNS) == 0, "unshare")
    mounts = [
        (b"none", b"/", None, MS_REC | MS_PRIVATE),
        (b"tmpfs", b"/tmp", b"tmpfs", 0),
        (b"/dev", b"/tmp/.dev", None, MS_BIND | MS_REC),
        (b"tmpfs", b"/dev", b"tmpfs", 0),
    ]
    for source, target, kind, flags in mounts:
        if target == b"/tmp":  # the folders to keep, reached once /tmp is covered
            old_tmp = os.open("/tmp", os.O_PATH)
        os.makedirs(target, exist_ok=True)
        _check(LIBC.mount(source, target, kind, flags, None) == 0, f"mount {target}")
    for folder in keep:
        folder.mkdir(parents=True, exist_ok=True)
        source = f"/proc/self/fd/{old_tmp}/{folder.relative_to('/tmp')}".encode()
        _check(LIBC.mount(source, str(folder).encode(), None, MS_BIND | MS_REC, None) == 0, f"bind {folder}")
    os.close(old_tmp)
    for name in ("null", "zero", "random", "urandom"):
        Path("/dev", name).touch()
        _check(
            LIBC.mount(b"/tmp/.dev/" + name.encode(), b"/dev/" + name.encode(), None, MS_BIND, None) == 0,
            f"bind /dev/{name}",
        )
    os.symlink("/proc/self/fd", "/dev/fd")
    sink = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    sink.bind("/dev/log")
    os.chmod("/dev/log", 0o666)

    def drain():
        while True:
            sink.recv(65536)

    threading.Thread(target=drain, daemon=True).start()
    LIBC.prctl(PR_SET_CHILD_SUBREAPER, 1)


def install(cgi, www="/tmp/www"):
    """The program in WWW/cgi-bin (behind the emulator if need be), the
    console page in WWW/console."""
    os.makedirs(f"{www}/cgi-bin")
    if EMULATOR:
        Path(f"{www}/cgi-bin/tzr4417.cgi").write_text(f"#!/bin/sh\nexec {' '.join(EMULATOR)} {cgi}\n")
        os.chmod(f"{www}/cgi-bin/tzr4417.cgi", 0o755)
    else:
        os.symlink(os.path.abspath(cgi), f"{www}/cgi-bin/tzr4417.cgi")
    shutil.copytree(SRC / "web/console", f"{www}/console")
    shutil.copy(SRC / "simulator/appliance-default.conf", f"{www}/console/parameters.conf")


def spawn(command, **options):
    # Servers and simulators end with whoever started them.
    return subprocess.Popen(command, preexec_fn=lambda: LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGTERM), **options)


def poll(probe, done, seconds=5):
    """Calls probe() until done(its value) or the time is up; the last value."""
    deadline = time.monotonic() + seconds
    while not done(value := probe()) and time.monotonic() < deadline:
        time.sleep(0.02)
    return value


class Simulator:
    """The daemon simulator on /tmp/cffs_uds, its tree in /tmp/appliance.conf.
    Quiet, it keeps neither transcript nor log, each a write per request that
    a measurement would count against the program."""

    def __init__(self, sim, *options, tree=SRC / "simulator/appliance-default.conf", quiet=False):
        shutil.copy(tree, "/tmp/appliance.conf")
        records = [] if quiet else ["--transcript", "/tmp/transcript", "--verbose"]
        with open("/tmp/simulator.log", "w") as log:
            self.proc = spawn(
                [*EMULATOR, sim, "--config", "/tmp/appliance.conf", *records, *options],
                stdout=subprocess.PIPE,
                stderr=log,
                text=True,
            )
        if self.proc.stdout.readline() != "ready\n":
            sys.exit("sandbox: the simulator did not start")

    def connections(self):
        return Path("/tmp/simulator.log").read_text().count(": accepted")

    def transcript(self):
        return Path("/tmp/transcript").read_text()

    def stop(self):
        self.proc.terminate()
        self.proc.communicate()


def descendants(pid):
    """The processes under `pid`, every generation, as /proc shows them now."""
    found, todo = set(), [pid]
    while todo:
        for task in Path(f"/proc/{todo.pop()}/task").glob("*"):
            with contextlib.suppress(OSError):  # gone meanwhile
                children = {int(child) for child in (task / "children").read_text().split()} - found
                todo, found = todo + list(children), found | children
    return found


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as s:
        return s.getsockname()[1]


def serve(command, port):
    """Starts a web server and waits until it accepts connections."""

    def accepts():
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port)):
            return True
        return False

    # From /: lighttpd runs include_shell commands in its working folder.
    with open("/tmp/server.log", "a") as log:
        proc = spawn(command, stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT, cwd="/")
    if not poll(accepts, bool):
        sys.exit("sandbox: the web server did not start: " + Path("/tmp/server.log").read_text())
    return proc


def lighttpd(config, port, extra=(), www="/tmp/www", bind="127.0.0.1", after=(), path="/tmp/lighttpd.conf", **settings):
    """lighttpd on BIND:PORT (127.0.0.1 or all addresses, 0.0.0.0) with a shipped
    CONFIG from web/servers/lighttpd, included as an integrator would: their
    settings first, the lines AFTER last. Its configuration file is PATH."""
    settings = {
        "tzr4417_dir": SRC / "web/servers/lighttpd",
        "tzr4417_www": www,
        "tzr4417_state": "/tmp/state",
        **settings,
    }
    os.makedirs(settings["tzr4417_state"], exist_ok=True)  # where the login gate remembers logins
    lines = [
        *extra,
        *(f'var.{name} = "{value}"' for name, value in settings.items()),
        f"var.tzr4417_port = {port}",
        'server.errorlog = "/tmp/server.log"',
    ]
    if config != "demo.conf":  # the appliance's snippets leave these to lighttpd.conf
        lines += [f'server.document-root = "{www}"', f'server.bind = "{bind}"', f"server.port = {port}"]
    Path(path).write_text("\n".join(lines + [f'include var.tzr4417_dir + "/{config}"', *after]))
    return serve(["lighttpd", "-D", "-f", path], port)


def wrk(url, seconds, *options):
    """Starts wrk -t1 -c4 on URL for SECONDS; the function returned waits for it and gives its requests a
    second, or None if an answer was not 2xx or 3xx or a socket failed."""
    run = subprocess.Popen(["wrk", "-t1", "-c4", f"-d{seconds}s", *options, url], stdout=subprocess.PIPE, text=True)

    def rate():
        out = run.communicate()[0]
        if "Non-2xx" in out or "Socket errors" in out:
            return None
        return float(re.search(r"Requests/sec:\s*([\d.]+)", out).group(1))

    return rate


def sha512_crypt(password):
    """A users file's hash, as INSTALL.md makes it: lighttpd and busybox httpd both take it."""
    return subprocess.run(
        ["openssl", "passwd", "-6", password], capture_output=True, text=True, check=True
    ).stdout.strip()


def busybox(port, password, www="/tmp/www", networks=("127.0.0.1",)):
    """busybox httpd with the shipped httpd.conf, letting in NETWORKS."""
    text = (SRC / "web/servers/busybox/httpd.conf").read_text()
    text = text.replace("@ALLOWED_NETWORK@", "\nA:".join(networks)).replace("@PASSWORD_HASH@", sha512_crypt(password))
    Path("/tmp/httpd.conf").write_text(text)
    return serve([SRC / "web/servers/busybox/httpd.sh", f"127.0.0.1:{port}", www, "/tmp/httpd.conf"], port)


if __name__ == "__main__":
    args, keep = sys.argv[2:], []
    while args[:1] == ["--keep"] and len(args) > 1:
        keep, args = keep + [args[1]], args[2:]
    if sys.argv[1:2] != ["run"] or not args:
        sys.exit("usage: tools/sandbox.py run [--keep FOLDER]... COMMAND [ARGUMENT...]")
    # ctest lists a test program's tests whichever it runs (ctest -L unit as
    # any user too): that needs no sandbox.
    if "--gtest_list_tests" not in args:
        enter(keep)
    os.environ["TZR_SANDBOX"] = "1"
    os.execvp(args[0], args)
