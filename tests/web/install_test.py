"""INSTALL.md to the letter: this build's release archive (cpack) unpacked, the guide's shell blocks run into a
scratch root, the board's commands run in it, each server asked the guide's curl examples. argv: CGI SIMULATOR"""
import subprocess, sys, unittest
from pathlib import Path

import install_guide, webenv
from webenv import USER, request

ROOTFS = Path("/tmp/rootfs")
TLS = ROOTFS / "etc/lighttpd/tzr4417/tls"
BOARD = "127.0.0.1"  # the guide's board, at 192.168.1.10


def on_board(command):
    subprocess.run(["chroot", ROOTFS, "/bin/sh", "-c", command], check=True)


@unittest.skipIf(webenv.sandbox.EMULATOR, "the board's commands would run the target's program natively")
class InstallTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        webenv.isolate("192.0.2.10")  # port 80 of a network of its own
        build = Path(sys.argv[1]).resolve().parent
        subprocess.run(["cpack", "-G", "TGZ", "-B", "/tmp/package"], cwd=build, check=True, capture_output=True)
        guide = install_guide.unpack(next(Path("/tmp/package").glob("tzr4417-*.tar.gz")), "/tmp/package")
        guide.install(ROOTFS=ROOTFS, PASSWORD=USER[1], NETWORK="127.0.0.1")
        cls.board, cls.examples = guide.on_board(BOARD), guide.examples
        for folder in ("bin", "sbin", "lib", "lib64"):  # the board: the image's files over this machine's programs
            (ROOTFS / folder).symlink_to("usr/" + folder)
        for folder in ("usr", "dev", "proc", "tmp"):
            subprocess.run(["mount", "--mkdir", "--bind", "/" + folder, ROOTFS / folder], check=True)
        cls.sim = webenv.simulator()

    def test_each_server_serves_the_console_and_answers_the_examples(self):
        self.assertEqual(len(self.examples), 2)
        certificate = self.board["certificate"]
        on_board(self.board["firewall"])  # in the test's network
        table = subprocess.run(["nft", "list", "table", "inet", "tzr4417"], capture_output=True, text=True).stdout
        self.assertIn("ct count over 32", table)
        made = [on_board(certificate) or (TLS / "cert.pem").read_bytes() for _ in range(2)]  # each boot runs it
        self.assertEqual((made[1], (TLS / "key.pem").stat().st_mode & 0o777), (made[0], 0o600))  # the first one stays
        # One due within 30 days is made again, for 10 years.
        due = ["openssl", "req", "-x509", "-key", TLS / "key.pem", "-subj", "/CN=encoder", "-days", "29"]
        subprocess.run([*due, "-out", TLS / "cert.pem"], check=True, capture_output=True)
        on_board(f"{certificate} && openssl x509 -noout -checkend 300000000 -in /etc/lighttpd/tzr4417/tls/cert.pem")
        # lighttpd over HTTPS (its redirect on port 80 is the server tier's), busybox httpd over plain HTTP.
        for name, scheme, port, cafile in ("lighttpd", "https", 443, TLS / "cert.pem"), ("busybox", "http", 80, None):
            with self.subTest(name):
                server = webenv.sandbox.serve(["chroot", ROOTFS, "/bin/sh", "-c", "exec " + self.board[name]], 80)
                try:
                    for example, answer in self.examples:
                        example = example.replace("BOARD", BOARD).replace("-u admin", "-u " + ":".join(USER))
                        example = example.replace("encoder.pem", str(cafile)).replace("https:", scheme + ":")
                        shown = subprocess.run(example, shell=True, capture_output=True, text=True).stdout
                        self.assertEqual(shown, answer + "\n")
                    status, headers, page = request(port, "/console/", user=None, cafile=cafile)
                    shown = (status, headers["Content-Type"][:9], b"console.js" in page)
                    self.assertEqual(shown, (200, "text/html", True))
                finally:
                    server.terminate()
                    server.wait()


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
