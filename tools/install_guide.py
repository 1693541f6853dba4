"""INSTALL.md followed to the letter, for the install test and the board's image: the release
archive unpacked, the guide's build-machine shell blocks run with the caller's settings in place of
the guide's own, the commands it has the board run, each known by the program it starts, and its
curl examples with the answer shown under each.

  guide = install_guide.unpack(ARCHIVE, FOLDER)
  guide.install(ROOTFS=..., PASSWORD=..., NETWORK=...)
  guide.on_board("10.0.2.15")["certificate"]
"""
import re, subprocess, tarfile
from pathlib import Path

ADDRESS = "192.168.1.10"  # the guide's board
ON_THE_BOARD = "# On the board"  # how a block that the board runs begins
# What the guide has the board run, by the program each command starts.
PROGRAMS = {"firewall": "nft", "certificate": "tzr4417-certificate.sh", "lighttpd": "lighttpd", "busybox": "httpd.sh"}


class Guide:
    def __init__(self, folder):
        self.folder = Path(folder)
        text = (self.folder / "INSTALL.md").read_text()
        blocks = re.findall(r"^```sh\n(.*?)^```", text, re.S | re.M)
        self.script = "\n".join(block for block in blocks if not block.startswith(ON_THE_BOARD))
        # Each such block is its comment, then the one command.
        self.board = [block.splitlines()[-1] for block in blocks if block.startswith(ON_THE_BOARD)]
        self.examples = re.findall(r"^\$ (curl .*)\n(.*)$", text, re.M)

    def install(self, **settings):
        """Runs the build-machine blocks in the unpacked archive with each of SETTINGS in place of
        the value the guide gives it. A setting the guide does not make exactly once is an error:
        replaced nowhere, the guide's example value would be installed instead."""
        script = self.script
        for name, value in settings.items():
            script, count = re.subn(rf"^{name}=.*$", f"{name}='{value}'", script, flags=re.M)
            if count != 1:
                raise ValueError(f"INSTALL.md sets {name} {count} times, not once")
        subprocess.run(["sh", "-euc", script], cwd=self.folder, check=True)

    def on_board(self, address):
        """The board's commands by the names of PROGRAMS, with ADDRESS (one or more) in place of
        the guide's board address. A program missing, repeated or new is an error."""
        started = [Path(command.split()[0]).name for command in self.board]
        wanted = PROGRAMS.values()
        if sorted(started) != sorted(wanted):
            raise ValueError(f"INSTALL.md has the board run {started}, not {list(wanted)}")
        commands = dict(zip(started, self.board))
        return {what: commands[program].replace(ADDRESS, address) for what, program in PROGRAMS.items()}


def unpack(archive, folder):
    """The release ARCHIVE unpacked into FOLDER; the guide it holds."""
    with tarfile.open(archive) as tar:
        tar.extractall(folder)
        top = tar.getnames()[0].split("/")[0]
    return Guide(Path(folder) / top)
