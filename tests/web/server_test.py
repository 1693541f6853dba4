"""tzr4417.cgi behind a real web server with the shipped configuration.
argv: CGI SIMULATOR lighttpd|https|busybox (https: lighttpd's HTTPS snippet, on 443, its redirect on 80)"""
import base64, collections, concurrent.futures, contextlib, functools, json, os, signal, statistics, subprocess
import sys, threading, time, unittest
from pathlib import Path
import webenv
from webenv import HEADER, IP, PROGRAM, USER, request

SERVER = sys.argv[3]
CAFILE = {"https": webenv.CERT}.get(SERVER)  # the device certificate is the one trusted
ask = functools.partial(request, cafile=CAFILE)
SLOW_APPLY = ("--delay-command", "apply", "--delay-ms", "1000")
FRAMES = "frame-ancestors 'none'"
READ = f"{PROGRAM}?read={IP}"
WRITE = f"{PROGRAM}?write=/configuration/network/hostname&value=encoder"
SITE = lambda site: {**HEADER, "Sec-Fetch-Site": site}  # noqa: E731
HOST = lambda host: {**HEADER, "Host": host}  # noqa: E731
BIG = f"read={IP}&x={'x' * 16384}"
TIME_OUT = 30  # cgi.limits in web/servers/lighttpd/tzr4417-rules.conf
# busybox httpd has no header rules and no size limit: its column shows what
# gets through. The program's own guard ends the oversized request there, and
# the connection closes with no bytes (None). A target may start with its method.
CASES = [
    # name,                   target,               headers,                   body,         user,    lighttpd, busybox
    ("read",                  READ,                 {},                        None,         USER,    200, 200),
    ("read by POST",          READ,                 {},                        f"read={IP}", USER,    403, 200),
    ("read by POST, header",  PROGRAM,              HEADER,                    f"read={IP}", USER,    200, 200),
    ("write",                 WRITE,                {},                        None,         USER,    403, 200),
    ("write, header",         WRITE,                HEADER,                    None,         USER,    200, 200),
    ("read with a write",     f"{READ}&write=/x&value=1", {},              None,         USER,    403, 200),
    ("write, Sec-Fetch-Site: none", WRITE,          {"Sec-Fetch-Site": "none"}, None,        USER,    403, 200),
    ("empty list",            f"{PROGRAM}?read=",   {},                        None,         USER,    400, 400),
    ("no password",           READ,                 {},                        None,         None,    401, 401),
    ("wrong password",        READ,                 {},                        None, ("admin", "wrong"), 401, 401),
    ("cross-site",            READ,                 SITE("cross-site"),        None,         USER,    403, 200),
    ("same-site",             READ,                 SITE("same-site"),         None,         USER,    403, 200),
    ("same-origin",           WRITE,                SITE("same-origin"),       None,         USER,    200, 200),
    # DNS rebinding brings a foreign name; an address literal cannot be rebound.
    ("foreign host",          READ,                 HOST("rebind.example"),    None,         USER,    403, 200),
    ("listed name",           READ,                 HOST("encoder:8080"),      None,         USER,    200, 200),
    ("any IPv4 address",      READ,                 HOST("10.1.2.3"),          None,         USER,    200, 200),
    ("any IPv6 address",      READ,                 HOST("[fd00::1]:80"),      None,         USER,    200, 200),
    ("preflight",             "OPTIONS " + WRITE,   HEADER,                    None,         USER,    403, 200),
    ("PUT",                   "PUT " + WRITE,       HEADER,                    None,         USER,    403, 200),
    ("HEAD",                  "HEAD " + READ,       HEADER,                    None,         USER,    403, 200),
    ("other file in cgi-bin", "/cgi-bin/notes.txt", {},                        None,         USER,    403, "-"),
    ("body over 16 KB",       PROGRAM,              HEADER,                    BIG,          USER,    413, None),
    ("console page",          "/console/",          {},                        None,         None,    200, 200),
]

WINDOW = 15  # seconds, for the login bounds in lighttpd; each step below takes one or two
OWNER, HOST, NEW = "192.0.2.11", "192.0.2.12", "192.0.2.13"
HOSTS = [f"192.0.2.{100 + i}" for i in range(20)]
UNBOUND = ('$HTTP["url"] =^ "/cgi-bin/tzr4417.cgi" { magnet.attract-raw-url-to = () '
           "magnet.attract-response-start-to = () }")  # a condition of its own, applied after the snippet's
# Guessing at the password, step by step, every try of a step at once (200 connections), from addresses of the
# test's own network: how many tries got each status. A user None guesses at a name of its own per try. The owner
# logged in first, so lighttpd keeps letting them in; the last steps come once the window has passed.
GUESSES = [
    # name,                            from,    tries, user,    password, target, lighttpd,            busybox
    ("the owner logs in",              [OWNER], 1,     "admin", "s3cret", READ,  {200: 1},             {200: 1}),
    ("20 hosts guess at one account",  HOSTS,   10,    "admin", "wrong",  READ,  {401: 50, 429: 150},  {401: 200}),
    ("one host, 200 accounts",         [HOST],  200,   None,    "wrong",  READ,  {401: 100, 429: 100}, {401: 200}),
    ("that host, the password",        [HOST],  1,     "admin", "s3cret", READ,  {429: 1},             {200: 1}),
    ("a new host, the password",       [NEW],   1,     "admin", "s3cret", READ,  {429: 1},             {200: 1}),
    ("the owner mistypes",             [OWNER], 1,     "admin", "wrong",  READ,  {401: 1},             {401: 1}),
    ("the owner writes",               [OWNER], 1,     "admin", "s3cret", WRITE, {200: 1},             {200: 1}),
    ("after the window, that host",    [HOST],  1,     "admin", "s3cret", READ,  {200: 1},             {200: 1}),
    ("after the window, a new host",   [NEW],   1,     "admin", "s3cret", READ,  {200: 1},             {200: 1}),
]


def programs():
    """Our descendants that run the program."""
    def runs_program(pid):
        with contextlib.suppress(OSError):
            return b"tzr4417.cgi" in Path(f"/proc/{pid}/cmdline").read_bytes()
    return {pid for pid in webenv.sandbox.descendants(os.getpid()) if runs_program(pid)}


class ServerTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        webenv.isolate("192.0.2.10")  # a network of its own: 80 and 443 are free
        cls.sim = webenv.simulator(*SLOW_APPLY)
        cls.port = 443 if CAFILE else webenv.free_port()
        list(map(webenv.add_address, [OWNER, HOST, NEW, *HOSTS]))
        os.environ["TZR4417_LOGIN_WINDOW"] = str(WINDOW)
        if SERVER == "busybox":
            webenv.sandbox.busybox(cls.port, USER[1], networks=("127.0.0.1", "192.0.2.0/24"))
        else:
            webenv.certificate("encoder", "127.0.0.1")
            webenv.lighttpd("tzr4417-https.conf" if CAFILE else "tzr4417.conf", 80 if CAFILE else cls.port,
                            tzr4417_hosts="encoder", tzr4417_users=webenv.users(), tzr4417_tls=webenv.TLS)

    def test_requests(self):
        for name, target, headers, body, user, *expected in CASES:
            want = expected[SERVER == "busybox"]
            with self.subTest(name):
                if want == "-":
                    continue
                method, _, target = target.rpartition(" ")
                before = self.sim.connections()
                status, got, reply = ask(self.port, target, headers, body and body.encode(), user, method)
                self.assertEqual(status, want, reply)
                if status == 200 and target == READ and method != "HEAD":
                    self.assertEqual(json.loads(reply)[IP], "192.168.1.10")
                if status == 200 and SERVER != "busybox":  # neither the console nor a reply may be framed
                    self.assertEqual((got["X-Frame-Options"], got["Content-Security-Policy"]), ("DENY", FRAMES))
                if target == "/console/":
                    self.assertRegex(got["Content-Type"], "^text/html")
                elif status != 400:
                    self.assertEqual(self.sim.connections() > before, status == 200, "daemon contacted?")

    def test_guessing_is_bounded(self):
        def one(source, user, password, target, scheme="Basic"):  # mod_auth takes any case
            basic = f"{scheme} " + base64.b64encode(f"{user}:{password}".encode()).decode()
            status, got, _ = ask(self.port, target, {**HEADER, "Authorization": basic}, None, None, source=source)
            self.assertTrue(status != 429 or 0 < int(got["Retry-After"]) <= WINDOW, got)
            return status

        # busybox httpd queues 9 connections (its listen backlog) and has no bound that they could overshoot.
        with concurrent.futures.ThreadPoolExecutor(8 if SERVER == "busybox" else 200) as pool:
            for name, sources, tries, user, password, target, *expected in GUESSES:
                with self.subTest(name):
                    if name.startswith("after the window") and SERVER != "busybox":
                        webenv.poll(lambda: one(sources[0], user, password, target), lambda s: s != 429, WINDOW + 5)
                    before = self.sim.connections()
                    tried = [(at, user or f"guess{i}", password, target, ("Basic", "BASIC")[i % 2])
                             for at in sources for i in range(tries)]
                    got = collections.Counter(pool.map(lambda args: one(*args), tried))
                    self.assertEqual(got, expected[SERVER == "busybox"])
                    self.assertEqual(self.sim.connections() > before, 200 in got, "daemon contacted?")

    @unittest.skipUnless(SERVER == "lighttpd", "one server's cost is enough")
    def test_the_bounds_cost_a_valid_request_nothing(self):
        # Two new servers, alike but for the bounds: a server's past changes what its forks cost.
        ports = [webenv.free_port() for _ in range(2)]
        for at, after in zip(ports, ([], [UNBOUND])):
            self.addCleanup(webenv.lighttpd("tzr4417.conf", at, after=after, path=f"/tmp/{at}.conf",
                                            tzr4417_hosts="encoder", tzr4417_users="/tmp/users").terminate)
        auth = "Authorization: Basic " + base64.b64encode(":".join(USER).encode()).decode()
        ratios = []
        for _ in range(3):  # both at once, so that whatever else loads the machine loads both
            runs = [webenv.sandbox.wrk(f"http://127.0.0.1:{at}{READ}", 3, "-H", auth) for at in ports]
            bounded, unbounded = (rate() for rate in runs)
            ratios.append(bounded / unbounded)
        ratio = statistics.median(ratios)
        print(f"valid reads, with the bounds against without: {ratio:.2f}", ratios, file=sys.stderr)
        self.assertGreaterEqual(ratio, 0.90)

    def test_write_replies_before_the_child_is_done(self):
        # The writes busybox let in above have saved first.
        count = lambda word: self.sim.transcript().count(word + "\\r")  # noqa: E731
        saves = webenv.poll(lambda: count("save"), lambda n: n == count("apply"))
        start = time.monotonic()
        status, _, reply = ask(self.port, f"{PROGRAM}?write={IP}&value=10.0.0.5", HEADER)
        self.assertLess(time.monotonic() - start, 0.4)
        self.assertEqual((status, json.loads(reply)), (200, {"write": IP, "value": "10.0.0.5", "reply": ""}))
        self.assertEqual(count("save"), saves)
        done = webenv.poll(self.sim.transcript, lambda text: text.endswith("apply\\r\nsave\\r\n"), 3)
        self.assertTrue(done.endswith("apply\\r\nsave\\r\n"), done)

    @unittest.skipIf(SERVER == "busybox", "lighttpd's configuration")
    def test_a_list_of_hosts_stops_lighttpd(self):
        conf = Path("/tmp/lighttpd.conf").read_text().replace('"encoder"', '"encoder encoder.local"')
        Path("/tmp/listed.conf").write_text(conf)
        checked = subprocess.run(["lighttpd", "-tt", "-f", "/tmp/listed.conf"], capture_output=True, text=True,
                                 cwd="/")
        self.assertIn("must be one regular expression of host names", checked.stderr)

    @unittest.skipIf(CAFILE, "the same rules as over plain HTTP")
    def test_a_request_stuck_on_the_daemon_ends_when_the_server_stops_waiting(self):
        # lighttpd's CGI time-out ends it; busybox httpd has none, and the
        # program ends once the server has stopped (a second one, killed).
        self.sim.stop()
        self.addCleanup(lambda: setattr(type(self), "sim", webenv.simulator(*SLOW_APPLY)))
        self.addCleanup(webenv.simulator("--delay-command", "ls", "--delay-ms", "3600000").stop)
        port = self.port if SERVER == "lighttpd" else webenv.free_port()
        server = SERVER == "busybox" and webenv.sandbox.busybox(port, USER[1])
        # The client gives up after a few seconds; the server does not notice.
        threading.Thread(target=request, args=(port, READ), daemon=True).start()
        self.assertTrue(webenv.poll(programs, bool))
        start = time.monotonic()
        for pid in (webenv.sandbox.descendants(server.pid) - programs() | {server.pid}) if server else ():
            os.kill(pid, signal.SIGKILL)
        self.assertEqual(webenv.poll(programs, lambda pids: not pids, TIME_OUT + 10), set())
        elapsed = time.monotonic() - start
        self.assertTrue(elapsed < 2 if server else TIME_OUT - 2 < elapsed, elapsed)

    @unittest.skipUnless(CAFILE, "the HTTPS snippet")
    def test_plain_http_only_redirects(self):
        before = self.sim.connections()
        for target, headers, user in [(READ, {}, None), (WRITE, HEADER, USER), ("/console/", {}, None)]:
            status, got, _ = request(80, target, headers, user=user)
            self.assertEqual((status, got["Location"]), (308, "https://127.0.0.1" + target))
        self.assertEqual(self.sim.connections(), before)

    @unittest.skipUnless(CAFILE, "the HTTPS snippet")
    def test_tls_1_2_and_1_3_only(self):
        any_cipher = ["openssl", "s_client", "-connect", "127.0.0.1:443", "-cipher", "DEFAULT:@SECLEVEL=0"]
        for version, accepted in ("-tls1", False), ("-tls1_1", False), ("-tls1_2", True), ("-tls1_3", True):
            hello = subprocess.run(any_cipher + [version], stdin=subprocess.DEVNULL, capture_output=True)
            self.assertEqual(hello.returncode == 0, accepted, version)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
