"""The web tests' world: tools/sandbox.py with the program installed and a
file beside it that must not be served; and raw HTTP. argv: CGI SIMULATOR."""
import base64, http.client, os, sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tools"))
import sandbox  # noqa: E402
from sandbox import free_port, lighttpd, poll  # noqa: E402,F401

CGI, SIM = map(os.path.abspath, sys.argv[1:3])
PROGRAM, IP = "/cgi-bin/tzr4417.cgi", "/configuration/network/ip_addr"
USER = ("admin", "s3cret")


def isolate():
    sandbox.enter()
    sandbox.install(CGI)
    Path("/tmp/www/cgi-bin/notes.txt").write_text("not for strangers\n")


def simulator(*options):
    return sandbox.Simulator(SIM, *options)


def busybox(port):
    return sandbox.busybox(port, USER[1])


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
