"""tzr4417.cgi behind a real web server with the shipped configuration.
argv: CGI SIMULATOR lighttpd|busybox"""
import json, sys, time, unittest
import webenv
from webenv import IP, PROGRAM, USER, request

SERVER = sys.argv[3]
READ = f"{PROGRAM}?read={IP}"
WRITE = f"{PROGRAM}?write=/configuration/network/hostname&value=encoder"
OWN = {"Referer": "http://encoder/console/"}
SITE = lambda site: {"Sec-Fetch-Site": site}
# busybox httpd has no header rules and no size limit: its column shows what
# gets through. The program's own guard ends the oversized request there, and
# the connection closes with no bytes (None).
CASES = [
    # name,                  target,             headers,                      body,                            user,               lighttpd, busybox
    ("read",                  READ,               {},                           None,                            USER,               200, 200),
    ("read by POST",          PROGRAM,            OWN,                          f"read={IP}".encode(),           USER,               200, 200),
    # No fetch metadata (plain HTTP): a write needs the appliance's own page as its Referer.
    ("write, no Referer",     WRITE,              {},                           None,                            USER,               403, 200),
    ("write, foreign Referer", WRITE,             {"Referer": "http://attacker.example/"}, None,                 USER,               403, 200),
    ("empty list",            f"{PROGRAM}?read=", {},                           None,                            USER,               400, 400),
    ("no password",           READ,               {},                           None,                            None,               401, 401),
    ("wrong password",        READ,               {},                           None,                            ("admin", "wrong"), 401, 401),
    ("cross-site",            READ,               SITE("cross-site"),           None,                            USER,               403, 200),
    ("same-site",             READ,               SITE("same-site"),            None,                            USER,               403, 200),
    ("same-origin",           READ,               SITE("same-origin"),          None,                            USER,               200, 200),
    ("foreign host",          READ,               {"Host": "attacker.example"}, None,                            USER,               403, 200),
    ("other file in cgi-bin", "/cgi-bin/notes.txt", {},                         None,                            USER,               403, "-"),
    ("body over 16 KB",       PROGRAM,            {},                           f"read={IP}&x={'x' * 16384}".encode(), USER,         413, None),
]


class ServerTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        webenv.isolate()
        cls.sim = webenv.simulator("--delay-command", "apply", "--delay-ms", "1000")
        cls.port = webenv.free_port()
        if SERVER == "busybox":
            webenv.busybox(cls.port)
            return
        with open("/tmp/users", "w") as users:
            users.write(f"{USER[0]}:{webenv.sandbox.md5_crypt(USER[1])}\n")
        webenv.lighttpd("tzr4417.conf", cls.port, tzr4417_hosts=r"127\.0\.0\.1|encoder", tzr4417_users="/tmp/users")

    def test_1_requests(self):
        for name, target, headers, body, user, *expected in CASES:
            want = expected[SERVER == "busybox"]
            with self.subTest(name):
                if want == "-":
                    continue
                before = self.sim.connections()
                status, reply = request(self.port, target, headers, body, user)
                self.assertEqual(status, want, reply)
                if status == 200 and target == READ:
                    self.assertEqual(json.loads(reply)[IP], "192.168.1.10")
                if status != 400:
                    self.assertEqual(self.sim.connections() > before, status == 200, "daemon contacted?")

    def test_2_write_replies_before_the_child_is_done(self):
        # The writes busybox let in above have saved first.
        count = lambda word: self.sim.transcript().count(word + "\\r")  # noqa: E731
        saves = webenv.poll(lambda: count("save"), lambda n: n == count("apply"))
        start = time.monotonic()
        status, reply = request(self.port, f"{PROGRAM}?write={IP}&value=10.0.0.5", OWN)
        self.assertLess(time.monotonic() - start, 0.4)
        self.assertEqual((status, json.loads(reply)), (200, {"write": IP, "value": "10.0.0.5", "reply": ""}))
        self.assertEqual(count("save"), saves)
        done = webenv.poll(self.sim.transcript, lambda text: text.endswith("apply\\r\nsave\\r\n"), 3)
        self.assertTrue(done.endswith("apply\\r\nsave\\r\n"), done)

    def test_3_daemon_unreachable(self):
        self.sim.stop()
        self.assertEqual(request(self.port, READ)[0], 500)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
