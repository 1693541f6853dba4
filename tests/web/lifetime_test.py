"""A request stuck on a daemon that never answers, behind the shipped
servers: lighttpd ends it once its CGI time-out has passed; busybox httpd
has none, and the program ends by itself once the server stops waiting for
it. argv: CGI SIMULATOR lighttpd|busybox"""
import os
import signal
import sys
import threading
import time
import unittest
from pathlib import Path

import webenv
from webenv import IP, PROGRAM

SERVER = sys.argv[3]
TIME_OUT = 30  # cgi.limits in web/servers/lighttpd/tzr4417-rules.conf


def descendants(pid):
    found, todo = set(), [pid]
    while todo:
        for task in Path(f"/proc/{todo.pop()}/task").glob("*"):
            try:
                children = {int(child) for child in (task / "children").read_text().split()}
            except OSError:  # gone meanwhile
                continue
            todo += children - found
            found |= children
    return found


def programs():
    """Our descendants that run the program, detached or not."""
    def runs_program(pid):
        try:
            return b"tzr4417.cgi" in Path(f"/proc/{pid}/cmdline").read_bytes()
        except OSError:  # gone meanwhile
            return False
    return {pid for pid in descendants(os.getpid()) if runs_program(pid)}


class LifetimeTest(unittest.TestCase):
    def test_a_stuck_request_ends_when_the_server_stops_waiting(self):
        webenv.isolate()
        webenv.simulator("--delay-command", "ls", "--delay-ms", "3600000")
        port = webenv.free_port()
        server = (webenv.lighttpd("demo.conf", port) if SERVER == "lighttpd"
                  else webenv.sandbox.busybox(port, webenv.USER[1]))
        # The client gives up after a few seconds; the server does not notice.
        threading.Thread(target=webenv.request, args=(port, f"{PROGRAM}?read={IP}"), daemon=True).start()
        self.assertTrue(webenv.poll(programs, bool))
        start = time.monotonic()
        if SERVER == "busybox":
            for pid in descendants(server.pid) - programs() | {server.pid}:
                os.kill(pid, signal.SIGKILL)
        left = webenv.poll(programs, lambda pids: not pids, TIME_OUT + 10)
        elapsed = time.monotonic() - start
        self.assertEqual(left, set(), "still there")
        if SERVER == "lighttpd":
            self.assertGreater(elapsed, TIME_OUT - 2, "ended before the time-out")
        else:
            self.assertLess(elapsed, 2)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
