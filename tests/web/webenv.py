"""The web tests' world: a private /tmp, the simulator, the web servers with
the shipped configurations, raw HTTP. argv: CGI SIMULATOR [ARGS...]."""
import base64, contextlib, ctypes, http.client, os, shutil, socket, subprocess, sys, time
from pathlib import Path

SRC = Path(__file__).resolve().parents[2]
CGI, SIM = map(os.path.abspath, sys.argv[1:3])
PROGRAM, IP = "/cgi-bin/tzr4417.cgi", "/configuration/network/ip_addr"
USER = ("admin", "s3cret")
LIBC = ctypes.CDLL(None, use_errno=True)
# A cross build's programs start through the emulator (qemu-user).
EMULATOR = os.environ.get("TZR_EMULATOR", "").split()


def isolate():
    """Own /tmp (so /tmp/cffs_uds) and no syslog; orphans become our children."""
    if LIBC.unshare(0x20000) != 0:  # CLONE_NEWNS
        sys.exit(f"unshare: {os.strerror(ctypes.get_errno())} (the web tests need root)")
    mounts = [(b"none", b"/", None, 0x44000), (b"tmpfs", b"/tmp", b"tmpfs", 0)]  # MS_REC | MS_PRIVATE
    if os.path.lexists("/dev/log"):
        mounts.append((b"/dev/null", b"/dev/log", None, 4096))  # MS_BIND
    for source, target, kind, flags in mounts:
        if LIBC.mount(source, target, kind, flags, None) != 0:
            sys.exit(f"mount {target}: {os.strerror(ctypes.get_errno())}")
    LIBC.prctl(36, 1)  # PR_SET_CHILD_SUBREAPER
    os.makedirs("/tmp/www/cgi-bin")
    if EMULATOR:
        Path("/tmp/www/cgi-bin/tzr4417.cgi").write_text(f"#!/bin/sh\nexec {' '.join(EMULATOR)} {CGI}\n")
        os.chmod("/tmp/www/cgi-bin/tzr4417.cgi", 0o755)
    else:
        os.symlink(CGI, "/tmp/www/cgi-bin/tzr4417.cgi")
    Path("/tmp/www/cgi-bin/notes.txt").write_text("not for strangers\n")
    shutil.copytree(SRC / "web/console", "/tmp/www/console")
    shutil.copy(SRC / "tools/appliance-default.conf", "/tmp/www/console/parameters.conf")


def spawn(command, **options):
    # PR_SET_PDEATHSIG: the servers and the simulator end with the test.
    return subprocess.Popen(command, preexec_fn=lambda: LIBC.prctl(1, 15), **options)


def poll(probe, done, seconds=5):
    """Calls probe() until done(its value) or the time is up; the last value."""
    deadline = time.monotonic() + seconds
    while not done(value := probe()) and time.monotonic() < deadline:
        time.sleep(0.02)
    return value


class Simulator:
    def __init__(self, *options):
        shutil.copy(SRC / "tools/appliance-default.conf", "/tmp/appliance.conf")
        with open("/tmp/simulator.log", "w") as log:
            self.proc = spawn([*EMULATOR, SIM, "--config", "/tmp/appliance.conf", "--transcript", "/tmp/transcript",
                               "--verbose", *options], stdout=subprocess.PIPE, stderr=log, text=True)
        assert self.proc.stdout.readline() == "ready\n", "the simulator did not start"

    def connections(self):
        return Path("/tmp/simulator.log").read_text().count(": accepted")

    def transcript(self):
        return Path("/tmp/transcript").read_text()

    def stop(self):
        self.proc.terminate()
        self.proc.communicate()


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as s:
        return s.getsockname()[1]


def accepts(port):
    with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port)):
        return True
    return False


def serve(command, port):
    """Starts a web server and waits until it accepts connections."""
    with open("/tmp/server.log", "a") as log:
        proc = spawn(command, stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT)
    if not poll(lambda: accepts(port), bool):
        sys.exit("the web server did not start: " + Path("/tmp/server.log").read_text())
    return proc


def lighttpd(config, port, extra=(), **settings):
    """An integrator's lighttpd.conf: their settings, then the shipped file."""
    settings |= {"tzr4417_dir": SRC / "web/servers/lighttpd", "tzr4417_www": "/tmp/www"}
    lines = [*extra, *(f'var.{name} = "{value}"' for name, value in settings.items()),
             f"var.tzr4417_port = {port}", 'server.errorlog = "/tmp/server.log"']
    if config == "tzr4417.conf":
        lines += ["server.document-root = var.tzr4417_www", 'server.bind = "127.0.0.1"', f"server.port = {port}"]
    Path("/tmp/lighttpd.conf").write_text("\n".join(lines + [f'include var.tzr4417_dir + "/{config}"']))
    return serve(["lighttpd", "-D", "-f", "/tmp/lighttpd.conf"], port)


def md5_crypt(password):
    return subprocess.run(["busybox", "httpd", "-m", password], capture_output=True, text=True).stdout.strip()


def busybox(port):
    """The shipped httpd.conf with the integrator's network and password hash."""
    text = (SRC / "web/servers/busybox/httpd.conf").read_text()
    text = text.replace("@ALLOWED_NETWORK@", "127.0.0.1").replace("@PASSWORD_HASH@", md5_crypt(USER[1]))
    Path("/tmp/httpd.conf").write_text(text)
    return serve([SRC / "web/servers/busybox/httpd.sh", f"127.0.0.1:{port}", "/tmp/www", "/tmp/httpd.conf"], port)


def request(port, target, headers=None, body=None, user=USER):
    """One request: (status, or None if closed with no bytes; body)."""
    auth = {"Authorization": "Basic " + base64.b64encode(":".join(user).encode()).decode()} if user else {}
    form = {"Content-Type": "application/x-www-form-urlencoded"} if body else {}
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=5)
    try:
        connection.request("POST" if body else "GET", target, body, {**auth, **form, **(headers or {})})
        response = connection.getresponse()
        return response.status, response.read()
    except http.client.RemoteDisconnected:
        return None, b""
    finally:
        connection.close()
