"""The web tests' world: tools/sandbox.py with the program installed, a file beside it that must not be served, a
network of its own if asked; lighttpd with the appliance's snippets; raw HTTP."""
import base64, http.client, os, ssl, subprocess, sys
from pathlib import Path

import sandbox  # tools/, on PYTHONPATH (ctest sets it)
from sandbox import lighttpd, poll  # noqa: F401

NET = "/configuration/network/"
PROGRAM, IP = "/cgi-bin/tzr4417.cgi", NET + "ip_addr"
READ = f"{PROGRAM}?read={IP}"
USER = ("admin", "s3cret")
HEADER = {"X-Tzr4417-Console": "1"}  # what the console and scripts send
TLS, CERT = "/tmp/tls", "/tmp/tls/cert.pem"  # var.tzr4417_tls, and the certificate made there


def isolate(*addresses):
    """A private /tmp, and a network of its own whose loopback holds ADDRESSES."""
    sandbox.enter(keep=[Path(program).parent for program in sys.argv[1:3]])
    if sandbox.LIBC.unshare(0x40000000) != 0:  # CLONE_NEWNET
        sys.exit("webenv: cannot make a network namespace (run as root)")
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    list(map(add_address, addresses))
    sandbox.install(os.path.abspath(sys.argv[1]))  # the program under test
    Path("/tmp/www/cgi-bin/notes.txt").write_text("not for strangers\n")


def add_address(address):
    prefix = ["/128", "nodad"] if ":" in address else ["/32"]  # nodad: usable at once
    subprocess.run(["ip", "address", "add", address + prefix[0], *prefix[1:], "dev", "lo"], check=True)


def simulator(*options):
    return sandbox.Simulator(os.path.abspath(sys.argv[2]), *options)


def certificate(*names):
    script = sandbox.SRC / "web/servers/lighttpd/tzr4417-certificate.sh"
    subprocess.run([script, TLS, *names], check=True, capture_output=True)


def users(password=USER[1]):
    Path("/tmp/users").write_text(f"{USER[0]}:{sandbox.sha512_crypt(password)}\n")
    return "/tmp/users"


def appliance(config, extra=(), **options):
    """lighttpd on port 80 with the appliance's snippet CONFIG, its host name encoder, USER's password."""
    settings = {"tzr4417_hosts": "encoder", "tzr4417_users": users(), "tzr4417_tls": TLS}
    return lighttpd(config, 80, extra, **options, **settings)


def refused():
    """How many passwords mod_auth has refused."""
    return Path("/tmp/server.log").read_text().count("password doesn't match")


def request(port, target, headers=None, body=None, user=USER, method=None, cafile=None, source=None, timeout=5):
    """A request, over HTTPS trusting CAFILE, from SOURCE: (status, None if closed with no bytes; headers; body)."""
    auth = {"Authorization": "Basic " + base64.b64encode(":".join(user).encode()).decode()} if user else {}
    form = {"Content-Type": "application/x-www-form-urlencoded"} if body else {}
    where = {"timeout": timeout, "source_address": source and (source, 0)}
    if cafile:  # whatever its dates: a board's clock can be years from this machine's, and the board checks them
        where["context"] = ssl.create_default_context(cafile=cafile)
        where["context"].verify_flags |= 0x200000  # OpenSSL's X509_V_FLAG_NO_CHECK_TIME
    host = "::1" if source and ":" in source else "127.0.0.1"
    connection = (http.client.HTTPSConnection if cafile else http.client.HTTPConnection)(host, port, **where)
    try:
        connection.request(method or ("POST" if body else "GET"), target, body, {**auth, **form, **(headers or {})})
        response = connection.getresponse()
        return response.status, response.headers, response.read()
    except http.client.RemoteDisconnected:
        return None, {}, b""
    finally:
        connection.close()
