"""What only a booted ARM board shows (board/board.sh; docs/board.md): lighttpd over HTTPS as INSTALL.md installs it,
with the device certificate as the one trust anchor, renewed at boot; the daemon restarted by init; the program's lines
in the board's syslog; the data partition across a reboot and a power cut; today, in 2040 and across 2038-01-19
03:14:07. argv: CGI SIMULATOR armhf|arm64 (the board builds its own release archive; arm64 runs the first row)."""
import collections, concurrent.futures, contextlib, datetime, os, shutil, ssl, subprocess, sys, time, unittest
from pathlib import Path

import webenv
from webenv import HEADER, IP, NET, PROGRAM, READ, request

ARCH = sys.argv[3]
BOARD, STATE = webenv.sandbox.SRC / "board/board.sh", "/tmp/board"
BROADCAST = NET + "broadcast_addr"
SAVED = "Applied and saved the parameter settings"
APPLY_DELAY = 3  # seconds the daemon takes to answer apply, where a row slows it
LAST_32_BIT = 2**31 - 1  # 2038-01-19 03:14:07, the last second a 32-bit time_t holds
TLS = "/etc/lighttpd/tzr4417/tls"
STRANGER = {"Cookie": "tzr4417-site=1"}  # the appliance's cookie alone: a stranger's budget, whoever sends it


def board(*args, seconds=240, check=True):
    """board.sh ARGS; with CHECK, its failure fails the row."""
    environment = {**os.environ, "TZR_BOARD_DIR": STATE}
    done = subprocess.run([BOARD, *args], capture_output=True, text=True, timeout=seconds, env=environment)
    if check and done.returncode:
        raise AssertionError(f"board.sh {' '.join(args)!r} ended {done.returncode}: {done.stdout}{done.stderr}")
    return done


def on_board(command, seconds=60):
    """COMMAND's output on the board's console."""
    return board("run", command, str(seconds), seconds=seconds + 10).stdout


def until_on_board(condition, seconds=30):
    on_board(f"until {condition}; do sleep 0.1; done", seconds)


def saved():
    return dict(line.split(" ", 1) for line in on_board("cat /data/appliance.conf").splitlines() if " " in line)


def logged():
    """The board's clock, and the program's syslog lines: (seconds since 1970 by their stamp and its year, message)."""
    clock, *lines = on_board("date +'%s %Y'; grep ' tzr4417.cgi' /var/log/messages || true").splitlines()
    now, year = clock.split()

    def stamp(line):
        return datetime.datetime.strptime(f"{year} {line[:15]} +0000", "%Y %b %d %H:%M:%S %z").timestamp()

    return int(now), [(stamp(line), line.split(": ", 1)[1]) for line in lines]


def public_key(pem):
    command = ["openssl", "x509", "-noout", "-pubkey"]
    return subprocess.run(command, input=pem, capture_output=True, text=True, check=True).stdout


class BoardTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        install = [webenv.sandbox.SRC / "tools/install-deps.sh", "qemu-system-arm"]
        if shutil.which("qemu-system-arm") is None and subprocess.run(install).returncode:
            raise unittest.SkipTest("qemu-system-arm cannot be installed here: no board")
        board("build", ARCH, seconds=900)  # what needs the mirror, before the network is the test's own
        webenv.isolate("192.0.2.1")  # a /tmp and a loopback of its own: ports and state never meet a developer's
        cls.start()

    @classmethod
    def start(cls, *options):
        board("start", ARCH, *options, seconds=900)
        cls.password = Path(STATE, "password").read_text().strip()
        cls.port = int(Path(STATE, "web").read_text().split()[1])
        Path(STATE, "cert.pem").write_text(on_board(f"cat {TLS}/cert.pem"))

    @classmethod
    def tearDownClass(cls):
        stopped = board("stop", check=False)
        print(stopped.stdout + stopped.stderr, file=sys.stderr)
        webenv.sandbox.poll(lambda: board("status", check=False).returncode, bool, 30)
        with contextlib.suppress(ChildProcessError):  # each qemu came back to this subreaper when its board ended
            while os.waitpid(-1, os.WNOHANG)[0]:
                pass

    def ask(self, target, headers=HEADER, timeout=10, password=None):
        user = ("admin", password or self.password)
        return request(self.port, target, headers, user=user, cafile=f"{STATE}/cert.pem", timeout=timeout)

    def logins(self, tries, password, headers=HEADER):
        """How many of TRIES reads at once with PASSWORD got each status; all from one address, 32 let in at once."""
        with concurrent.futures.ThreadPoolExecutor(25) as pool:
            return collections.Counter(pool.map(lambda _: self.ask(READ, headers, password=password)[0], range(tries)))

    def a_write(self, address, broadcast, delay=APPLY_DELAY, at=None):
        """Writes ADDRESS (the board's clock set to AT first) while the apply of a daemon that init started anew
        takes DELAY seconds; the derived BROADCAST and the save follow. The times of its syslog lines."""
        if delay:  # init starts the next daemon so; board.sh waits until the program reaches it
            board("daemon", "--delay-command", "apply", "--delay-ms", str(delay * 1000))
            self.addCleanup(board, "daemon")
        if at:
            on_board(f"date -u -s @{at} >/dev/null")
        before, earlier = logged()
        begun = time.monotonic()
        self.assertEqual(self.ask(f"{PROGRAM}?write={IP}&value={address}")[0], 200)
        until_on_board(f"grep ' tzr4417.cgi' /var/log/messages | tail -n +{len(earlier) + 1} | grep -q '{SAVED}'")
        self.assertGreaterEqual(time.monotonic() - begun, delay)  # the slowed daemon's apply
        after, lines = logged()
        lines = lines[len(earlier) :]
        wanted = [f"Setting parameter {IP} to {address}", f"Setting parameter {BROADCAST} to {broadcast}", SAVED]
        self.assertEqual([message for _, message in lines], wanted)
        self.assertTrue(all(before <= when <= after for when, _ in lines), (before, lines, after))
        self.assertEqual(list(map(saved().get, (IP, BROADCAST))), [address, broadcast])
        return [when for when, _ in lines]

    def renewed(self, before):
        """The certificate made again at this boot for the same key; served, and valid by the board's clock."""
        now = on_board(f"cat {TLS}/cert.pem")
        Path(STATE, "cert.pem").write_text(now)  # the one the host trusts from now on
        self.assertNotEqual(now, before)
        self.assertEqual(public_key(now), public_key(before))
        served = ssl.get_server_certificate(("127.0.0.1", self.port))
        self.assertEqual(ssl.PEM_cert_to_DER_cert(served), ssl.PEM_cert_to_DER_cert(now))
        on_board(f"openssl s_client -connect 127.0.0.1:443 -CAfile {TLS}/cert.pem -verify_return_error </dev/null")

    @unittest.skipIf(ARCH != "arm64", "armhf's writes are the next row's, in 2040 and across 2038")
    def test_1_a_write_over_https(self):
        self.a_write("10.0.0.5", "10.0.0.255")

    @unittest.skipIf(ARCH != "armhf", "arm64 boots and answers the first row")
    def test_2_reboot_into_2040_and_power_cut_before_2038_keep_what_was_saved(self):
        # The reboot with the RTC set to 2040, when the certificate made today has expired.
        certificate = Path(STATE, "cert.pem").read_text()
        self.a_write("10.20.0.1", "10.20.0.255", delay=0)
        on_board("date -u -s '2040-06-01 00:00:00' >/dev/null && hwclock -w -u")
        board("reboot")
        self.renewed(certificate)
        self.assertEqual(saved()[IP], "10.20.0.1")
        times = self.a_write("10.40.0.1", "10.40.0.255", delay=0)
        self.assertEqual(time.gmtime(times[0]).tm_year, 2040)
        # The login guard counts on a 2040 clock: the address logged in, so 10 failures of its own, then 429.
        self.assertEqual(self.logins(11, "wrong"), {401: 10, 429: 1})
        until_on_board('grep -q "web: 2040-06-01 .*password doesn\'t match" /var/log/messages')
        # A login stamped just before the power cut, the clock set back to 2038 first.
        on_board(f"date -u -s @{LAST_32_BIT - 60} >/dev/null")  # lighttpd reads the clock once a second
        self.assertEqual(webenv.poll(lambda: self.ask(READ)[0], (200).__eq__), 200)
        # Power cut right after that save: what the next mount finds is the journal's, nothing for e2fsck to repair.
        board("cut")
        shutil.copy(f"{STATE}/data.img", "/tmp/after-cut.img")
        check = subprocess.run(["e2fsck", "-fy", "/tmp/after-cut.img"], capture_output=True, text=True)
        self.assertEqual(check.returncode, 0, check.stdout + check.stderr)
        # Started just before 2038's last 32-bit second, the 2040 certificate not yet valid; the apply runs across it.
        certificate = Path(STATE, "cert.pem").read_text()
        self.start("--clock", "2038-01-19T03:13:30")
        self.renewed(certificate)
        self.assertEqual(saved()[IP], "10.40.0.1")
        times = self.a_write("10.38.0.1", "10.38.0.255", at=LAST_32_BIT - 2)
        self.assertEqual([when > LAST_32_BIT for when in times], [False, False, True])
        # The guard kept the login across the power cut: 50 strangers' guesses shut out strangers, not the owner.
        self.assertEqual(self.logins(50, "wrong", STRANGER), {401: 50})
        self.assertEqual([self.ask(READ, marks)[0] for marks in (STRANGER, HEADER)], [429, 200])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
