"""A shell command on the board, over its serial console (qemu's chardev on a Unix socket): prints what the command
printed and exits with its exit status.

  console.py SOCKET SECONDS COMMAND

The console is a root shell that echoes what it is sent; the command goes as base64 (any quoting, any line) and
runs with no input, and markers that the echo cannot contain frame its output and status. One command at a time:
board.sh holds a lock around each."""
import base64, re, secrets, socket, sys, time


def run(path, seconds, command):
    tag = secrets.token_hex(6)
    script = base64.b64encode(command.encode()).decode()
    # The shell's line editor keeps some 1000 characters a line: the script goes in pieces.
    lines = "".join(f" echo {script[i:i + 512]} >>/tmp/.run-{tag}\n" for i in range(0, len(script), 512))
    # In the echo each marker reads B""TAG; only the shell's output joins it into BTAG.
    lines += (
        f' base64 -d /tmp/.run-{tag} >/tmp/.run-{tag}.sh; echo; echo B""{tag};'
        f' sh /tmp/.run-{tag}.sh </dev/null; s=$?; echo; echo E""{tag} $s; rm -f /tmp/.run-{tag}*\n'
    )
    deadline = time.monotonic() + seconds
    with socket.socket(socket.AF_UNIX) as console:
        console.connect(path)
        console.sendall(b"\x15" + lines.encode())  # ^U: whatever a shell had half-typed goes
        seen = b""
        while (match := re.search(rf"\nB{tag}\r?\n(.*?)\r?\nE{tag} (\d+)\r?\n".encode(), seen, re.S)) is None:
            console.settimeout(max(deadline - time.monotonic(), 0.01))
            try:
                data = console.recv(65536)
            except socket.timeout:
                sys.exit(f"board: no answer from the console within {seconds} s")
            if not data:
                sys.exit("board: the console closed")
            seen += data
    return match.group(1).replace(b"\r\n", b"\n"), int(match.group(2))


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    output, status = run(sys.argv[1], float(sys.argv[2]), sys.argv[3])
    sys.stdout.buffer.write(output)
    sys.exit(status)
