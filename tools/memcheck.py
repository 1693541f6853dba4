#!/usr/bin/python3
"""Runs the end-to-end tests with the program under valgrind's memcheck, its
detached children included, and fails on any memory error or leak, and on any
descriptor the program leaves open at exit that it should not. Open at exit
may be only: the standard streams, what the web server handed down, the
system log's socket (never closed, by design) and, in the first process of a
write, which ends right after its fork, the daemon's socket.

memcheck cannot follow a fully static program's allocations, so this builds
the dynamic one, into build-memcheck/.  Usage: tools/memcheck.py
"""
import os, re, shutil, subprocess, sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
BUILD = ROOT / "build-memcheck"
LOGS = BUILD / "memcheck"
# Seconds per test: memcheck slows the program down many times over.
TEST_TIMEOUT = 1200
FD = re.compile(r"Open (?:AF_UNIX socket|file descriptor) (\d+):.*\n((?:==\d+== +\S.*\n)*)")


def verdict(logs):
    """Problems found in the logs, and how many processes they cover."""
    texts = {log.name.split(".")[0]: log.read_text() for log in Path(logs).iterdir()}
    forked = set(re.findall(r"Parent PID: (\d+)", "".join(texts.values())))
    problems = []
    for pid, text in sorted(texts.items()):
        errors = re.search(r"ERROR SUMMARY: (\d+) errors", text)
        if errors and errors.group(1) != "0":
            problems.append(f"process {pid}: {errors.group(1)} errors")
        for fd, origin in FD.findall(text):
            daemon = "UdsConnection::open" in origin and pid in forked
            if "<inherited from parent>" not in origin and "openlog_internal" not in origin and not daemon:
                problems.append(f"process {pid}: descriptor {fd} left open\n{origin}")
    return problems, len(texts)


def main():
    def run(*command, **options):
        subprocess.run(command, check=True, **options)

    run(ROOT / "tools/install-deps.sh")
    run(
        "cmake",
        "-S",
        ROOT,
        "-B",
        BUILD,
        "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
        "-DTZR_STATIC=OFF",
        "-DTZR_WERROR=ON",
        stdout=subprocess.DEVNULL,
    )
    run("cmake", "--build", BUILD, f"-j{os.cpu_count()}")
    shutil.rmtree(LOGS, ignore_errors=True)
    LOGS.mkdir()
    LOGS.chmod(0o1777)  # a write run as user nobody logs here too
    wrapper = (
        "valgrind --trace-children=yes --track-fds=yes --leak-check=full "
        f"--errors-for-leak-kinds=definite,indirect,possible --log-file={LOGS}/%p.log"
    )
    tests = subprocess.run(
        ["ctest", f"-j{os.cpu_count()}", "-R", r"^e2e\.", "--output-on-failure", "--timeout", str(TEST_TIMEOUT)],
        cwd=BUILD,
        env={**os.environ, "TZR_CGI_WRAPPER": wrapper},
    )
    problems, processes = verdict(LOGS)
    print("\n".join(problems))
    print(f"memcheck: {processes} processes, {len(problems)} problems (logs in {LOGS})")
    sys.exit(1 if problems or tests.returncode else 0)


if __name__ == "__main__":
    main()
