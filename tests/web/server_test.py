"""tzr4417.cgi behind a real web server with the shipped configuration.
argv: CGI SIMULATOR lighttpd|https|busybox (https: lighttpd's HTTPS snippet, on 443, its redirect on 80)"""
import base64, collections, concurrent.futures, contextlib, functools, os, resource, socket, subprocess
import sys, threading, time, unittest
from pathlib import Path

import webenv
from webenv import HEADER, IP, PROGRAM, READ, USER, request

SERVER = sys.argv[3]
CAFILE = {"https": webenv.CERT}.get(SERVER)  # the device certificate is the one trusted
ask = functools.partial(request, cafile=CAFILE)
EVERYWHERE = {"X-Content-Type-Options": "nosniff", "Referrer-Policy": "no-referrer"}
WRITE = f"{PROGRAM}?write=/configuration/network/hostname&value=encoder"
SITE, HOST_IS, ORIGIN = ((lambda v, n=n: {**HEADER, n: v}) for n in ("Sec-Fetch-Site", "Host", "Origin"))
COOKIE = {"Cookie": "other=2; tzr4417-site=1"}  # the one lighttpd sets, which browsers keep from other sites
WRONG = ("admin", "wrong")
BIG = f"read={IP}&x={'x' * 16384}"
TIME_OUT = 30  # cgi.limits in web/servers/lighttpd/tzr4417-rules.conf
WINDOW = 15  # seconds, for the login bounds in lighttpd: the hour, shortened; a step takes a second or two
OWNER, HOST, NEW = "192.0.2.11", "192.0.2.12", "192.0.2.13"
V6_OWNER, V6_NEIGHBOUR = "fd00:1::11", "fd00:1::12"  # one /64, which one host can fill
HOSTS = [f"192.0.2.{100 + i}" for i in range(20)]
# What lighttpd answers before any password check; a guesser sends one after each try, with credentials.
BIG_HEADER = {"X-Padding": "x" * 9000}
EARLY = [("POST", BIG, {}, 413), ("GET", "", BIG_HEADER, 431), ("GET", "", {"Transfer-Encoding": "gzip"}, 501)]
OWN = ("https" if CAFILE else "http") + "://127.0.0.1"  # the Origin of the console's own page
# fmt: off
# busybox httpd has no header rules or size limit: its column shows what gets through (None: closed with no bytes by
# the program's own guard). What a foreign page may send is refused before any password check: 403, not 401.
CASES = [
    # name,                   target,               headers,                   body,         user,    lighttpd, busybox
    ("read",                  READ,                 HEADER,                    None,         USER,    200, 200),
    # Nothing to say where it comes from, as a foreign page's navigation over HTTP: refused before any check.
    ("read, unmarked",        READ,                 {},                        None,         WRONG,   403, 401),
    ("read, typed in",        READ,                 {"Sec-Fetch-Site": "none"}, None,        USER,    200, 200),
    ("read, the site's cookie", READ,               COOKIE,                    None,         USER,    200, 200),
    ("read by POST",          READ,                 {},                        f"read={IP}", WRONG,   403, 401),
    ("read by POST, header",  PROGRAM,              HEADER,                    f"read={IP}", USER,    200, 200),
    ("write",                 WRITE,                {},                        None,         WRONG,   403, 401),
    ("write, header",         WRITE,                HEADER,                    None,         USER,    200, 200),
    ("read with a write",     f"{READ}&write=/x&value=1", {},              None,         USER,    403, 200),
    ("write, Sec-Fetch-Site: none", WRITE,          {"Sec-Fetch-Site": "none"}, None,        USER,    403, 200),
    ("no password",           READ,                 HEADER,                    None,         None,    401, 401),
    ("wrong password",        READ,                 HEADER,                    None,         WRONG,   401, 401),
    ("cross-site",            READ,                 SITE("cross-site"),        None,         WRONG,   403, 401),
    ("same-site",             READ,                 SITE("same-site"),         None,         WRONG,   403, 401),
    ("same-origin",           WRITE,                SITE("same-origin"),       None,         USER,    200, 200),
    ("foreign Origin",        WRITE,                ORIGIN("http://192.0.2.66"), None,       WRONG,   403, 401),
    ("a sandboxed frame's Origin", READ,            ORIGIN("null"),            None,         WRONG,   403, 401),
    ("its own Origin",        WRITE,                ORIGIN(OWN),               None,         USER,    200, 200),
    # DNS rebinding brings a foreign name; an address literal cannot be rebound.
    ("foreign host",          READ,                 HOST_IS("rebind.example"), None,         WRONG,   403, 401),
    ("listed name",           READ,                 HOST_IS("encoder:8080"),   None,         USER,    200, 200),
    ("any IPv4 address",      READ,                 HOST_IS("10.1.2.3"),       None,         USER,    200, 200),
    ("any IPv6 address",      READ,                 HOST_IS("[fd00::1]:80"),   None,         USER,    200, 200),
    ("preflight",             "OPTIONS " + WRITE,   HEADER,                    None,         WRONG,   403, 401),
    ("PUT",                   "PUT " + WRITE,       HEADER,                    None,         USER,    403, 200),
    ("HEAD",                  "HEAD " + READ,       HEADER,                    None,         USER,    403, 200),
    ("other file in cgi-bin", "/cgi-bin/notes.txt", {},                        None,         USER,    403, 404),
    ("body over 16 KB",       PROGRAM,              HEADER,                    BIG,          USER,    413, None),
    ("a malformed Authorization", READ, {**HEADER, "Authorization": "Basic " + "x" * 999}, None, None, 400, 401),
    ("console page",          "/console/",          {},                        None,         None,    200, 200),
]

# Guessing at the password, each step's tries at once from the test's own addresses: how many got each status. User
# None: a new name a try; a dict for a password: those headers, not the console's, and a wrong one. Strings: events.
GUESSES = [
    # name,                                           from,            tries, user,    password, status
    ("the owner logs in, over IPv4 and IPv6",         [OWNER, V6_OWNER], 1,   "admin", "s3cret", {200: 2}),
    ("20 hosts guess at one account",                 HOSTS,           10,    "admin", "wrong",  {401: 50, 429: 150}),
    ("a new host, the password",                      [NEW],           1,     "admin", "s3cret", {429: 1}),
    ("the owner's address, 200 made-up names",        [OWNER],         200,   None,    "wrong",  {401: 90, 429: 110}),
    ("a neighbour on the owner's /64, the same",      [V6_NEIGHBOUR],  200,   None,    "wrong",  {401: 90, 429: 110}),
    ("that neighbour, the password",                  [V6_NEIGHBOUR],  1,     "admin", "s3cret", {429: 1}),
    ("the owner, 200 at once from each address",      [OWNER, V6_OWNER], 200, "admin", "s3cret", {200: 400}),
    ("a page's navigation at the owner's address",    [OWNER],         20,    "admin", {},       {403: 20}),
    ("the site's cookie alone there: no trust",       [OWNER],         20,    "admin", COOKIE,   {429: 20}),
    ("one host mixes early answers in",               [HOST],          150,   None,    EARLY,    {401: 90, 429: 60}),
    ("the owner mistypes 10 times, then once more",   [OWNER],         11,    "admin", "wrong",  {401: 10, 429: 1}),
    "restart",
    ("after a restart, 20 hosts at the account",      HOSTS,           10,    "admin", "wrong",  {401: 50, 429: 150}),
    ("after a restart, the owner",                    [OWNER, V6_OWNER], 1,   "admin", "s3cret", {200: 2}),
    ("and a new host",                                [NEW],           1,     "admin", "s3cret", {429: 1}),
    "a new password",
    ("at once, the old one",                          [V6_OWNER],      1,     "admin", "s3cret", {401: 1}),
    ("and the new one",                               [V6_OWNER],      1,     "admin", "n3w",    {200: 1}),
    "the window passes",
    ("after the window, a new host",                  [NEW],           1,     "admin", "n3w",    {200: 1}),
]
# fmt: on


def runs_program(pid):
    with contextlib.suppress(OSError):  # it may have ended
        return b"tzr4417.cgi" in Path(f"/proc/{pid}/cmdline").read_bytes()


def programs():
    """Our descendants that run the program."""
    return set(filter(runs_program, webenv.sandbox.descendants(os.getpid())))


class ServerTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        webenv.isolate(OWNER, HOST, NEW, V6_OWNER, V6_NEIGHBOUR, *HOSTS)  # a network of its own: 80 and 443 are free
        cls.sim = webenv.simulator()
        cls.port = 443 if CAFILE else 80
        os.environ["TZR4417_LOGIN_WINDOW"] = str(WINDOW)
        if SERVER == "busybox":
            webenv.sandbox.busybox(cls.port, USER[1], networks=("127.0.0.1", "192.0.2.0/24"))
        else:
            webenv.certificate("encoder", "127.0.0.1", "::1")
            cls.restart()

    @classmethod
    def restart(cls):
        """lighttpd anew, on IPv6 too; what it remembers of logins stays in /tmp/state."""
        if getattr(cls, "server", None):
            cls.server.terminate()
            cls.server.wait()
        after = ["" if CAFILE else '$SERVER["socket"] == "[::]:80" {}']  # the HTTPS snippet listens on IPv6 itself
        cls.server = webenv.appliance("tzr4417-https.conf" if CAFILE else "tzr4417.conf", after=after)

    def test_requests(self):
        for name, target, headers, body, user, *expected in CASES:
            want = expected[SERVER == "busybox"]
            with self.subTest(name):
                method, _, target = target.rpartition(" ")
                console = target == "/console/"
                before = self.sim.connections()
                status, got, reply = ask(self.port, target, headers, body and body.encode(), user, method)
                self.assertEqual(status, want, reply)
                if SERVER != "busybox" and status != 413:  # what lighttpd says with every answer
                    self.assertEqual({name: got[name] for name in EVERYWHERE}, EVERYWHERE)
                    self.assertEqual(got["Strict-Transport-Security"], CAFILE and "max-age=31536000")
                if status == 200 and SERVER != "busybox":  # neither the console nor a reply may be framed
                    policy = "default-src 'none'; " + ("script-src 'self'; .*; " if console else "")
                    self.assertRegex(got["Content-Security-Policy"], f"^{policy}frame-ancestors 'none'$")
                    shown = (got["X-Frame-Options"], got["Cache-Control"])
                    self.assertEqual(shown, ("DENY", None if console else "no-store"))
                if console:
                    self.assertRegex(got["Content-Type"], "^text/html")
                else:
                    self.assertEqual(self.sim.connections() > before, status == 200, "daemon contacted?")

    @unittest.skipIf(SERVER == "busybox", "busybox httpd bounds nothing: docs/security.md")
    def test_guessing_is_bounded_and_the_owner_keeps_access(self):
        def one(source, user, password, i=0):  # mod_auth takes the scheme in any case: odd tries shout it
            secret = password if isinstance(password, str) else "wrong"
            basic = ("Basic ", "BASIC ")[i % 2] + base64.b64encode(f"{user}:{secret}".encode()).decode()
            marks = {**(password if isinstance(password, dict) else HEADER), "Authorization": basic}
            status, got, _ = ask(self.port, READ, marks, None, None, source=source, timeout=60)  # slow under qemu-user
            self.assertTrue(status != 429 or 0 < int(got["Retry-After"]) <= WINDOW, got)
            for method, body, headers, early in password if isinstance(password, list) else ():
                sent = {**HEADER, **headers, "Authorization": basic}
                self.assertEqual(ask(self.port, READ, sent, body.encode(), None, method, source=source)[0], early)
            return status

        passes = functools.partial(webenv.poll, lambda: one(NEW, "admin", "n3w"), (429).__ne__, WINDOW + 5)
        events = {"restart": self.restart, "a new password": lambda: webenv.users("n3w"), "the window passes": passes}
        with concurrent.futures.ThreadPoolExecutor(200) as pool:
            for step in GUESSES:
                if isinstance(step, str):
                    events[step]()
                    continue
                name, sources, tries, user, password, expected = step
                with self.subTest(name):
                    before = self.sim.connections()
                    tried = [(at, user or f"guess{i}", password, i) for at in sources for i in range(tries)]
                    checks = webenv.refused()
                    got = collections.Counter(pool.map(lambda args: one(*args), tried))
                    self.assertEqual(got, expected)
                    self.assertEqual(webenv.refused() - checks, got[401])  # each 401 a check, and nothing else
                    self.assertEqual(self.sim.connections() > before, 200 in got, "daemon contacted?")
        webenv.users()

    @unittest.skipIf(SERVER == "busybox", "the same firewall, whichever server")
    def test_one_address_cannot_hold_every_connection(self):
        subprocess.run(["nft", "-f", webenv.sandbox.SRC / "web/firewall/tzr4417.nft"], check=True)
        self.addCleanup(subprocess.run, ["nft", "flush ruleset"], check=True)  # the rows after come from one address
        resource.setrlimit(resource.RLIMIT_NOFILE, (4096, resource.getrlimit(resource.RLIMIT_NOFILE)[1]))
        held = []
        for _ in range(1500):  # more than lighttpd's connection limit here (a third of its 1,024 descriptors)
            with contextlib.suppress(ConnectionRefusedError):
                held.append(socket.create_connection(("127.0.0.1", self.port), source_address=(HOST, 0)))
        self.addCleanup(lambda: [connection.close() for connection in held])
        self.assertEqual((len(held), ask(self.port, READ, HEADER, source=OWNER)[0]), (32, 200))
        # With its table of addresses full (made-up SYNs can fill it), an address it has no room for is refused.
        rules = (webenv.sandbox.SRC / "web/firewall/tzr4417.nft").read_text().replace("size 65535", "size 2")
        subprocess.run(["nft", "flush ruleset"], check=True)
        subprocess.run(["nft", "-f", "-"], input=rules, text=True, check=True)

        def status(source):
            with contextlib.suppress(ConnectionRefusedError):
                return ask(self.port, READ, HEADER, source=source)[0]

        self.assertEqual(list(map(status, (NEW, OWNER, HOSTS[0]))), [200, 200, None])

    @unittest.skipIf(SERVER == "busybox", "lighttpd's configuration")
    def test_a_list_of_hosts_stops_lighttpd(self):
        conf = Path("/tmp/lighttpd.conf").read_text().replace('"encoder"', '"encoder encoder.local"')
        Path("/tmp/listed.conf").write_text(conf)
        checked = subprocess.run(["lighttpd", "-tt", "-f", "/tmp/listed.conf"], capture_output=True, text=True, cwd="/")
        self.assertIn("must be one regular expression of host names", checked.stderr)

    @unittest.skipUnless(SERVER == "lighttpd", "the shipped CGI time-out; the HTTPS snippet has the same rules")
    def test_a_request_stuck_on_the_daemon_ends_at_lighttpds_time_out(self):
        # The program's own notice that a server stopped waiting is the end-to-end tier's.
        self.sim.stop()
        self.addCleanup(lambda: setattr(type(self), "sim", webenv.simulator()))
        self.addCleanup(webenv.simulator("--delay-command", "ls", "--delay-ms", "3600000").stop)
        # The client gives up after a few seconds; the server does not notice.
        threading.Thread(target=request, args=(self.port, READ, HEADER), daemon=True).start()
        self.assertTrue(webenv.poll(programs, bool))
        start = time.monotonic()
        self.assertEqual(webenv.poll(programs, lambda pids: not pids, TIME_OUT + 10), set())
        self.assertGreater(time.monotonic() - start, TIME_OUT - 2)

    @unittest.skipUnless(CAFILE, "the HTTPS snippet")
    def test_plain_http_only_redirects(self):
        before = self.sim.connections()
        for target, headers, user in [(READ, {}, None), (WRITE, HEADER, USER), ("/console/", {}, None)]:
            status, got, _ = request(80, target, headers, user=user)
            self.assertEqual((status, got["Location"]), (308, "https://127.0.0.1" + target))
        self.assertEqual(self.sim.connections(), before)

    @unittest.skipUnless(CAFILE, "the HTTPS snippet")
    def test_tls_1_2_and_1_3_with_forward_secrecy_and_aead_alone(self):
        old = ["-cipher", "DEFAULT:@SECLEVEL=0"]
        accepted = [["-tls1_2"], ["-tls1_3"]]
        refused = [["-tls1", *old], ["-tls1_1", *old], ["-tls1_2", "-cipher", "AES128-GCM-SHA256"]]
        refused += [["-tls1_2", "-cipher", "ECDHE-ECDSA-AES128-CCM:ECDHE-ECDSA-AES256-CCM8"]]
        refused += [["-tls1_3", "-ciphersuites", "TLS_AES_128_CCM_SHA256:TLS_AES_128_CCM_8_SHA256"]]
        for options in accepted + refused:
            for address in ("127.0.0.1:443", "[::1]:443"):
                client = ["openssl", "s_client", "-connect", address, *options]
                hello = subprocess.run(client, stdin=subprocess.DEVNULL, capture_output=True)
                self.assertEqual(hello.returncode == 0, options in accepted, (address, options))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
