"""The board's boot image: the release archive installed as INSTALL.md says, over a userland of Debian's packages
for the target (busybox, lighttpd and the libraries they need), the kernel's modules, the daemon simulator standing
in for the appliance's daemon, and this folder's init scripts; packed as an initramfs.

  image.py ARCHIVE DEBS SIMULATOR SERVER PASSWORD OUT

ARCHIVE is the release .tar.gz, DEBS a folder of the target's .deb files (one kernel among them), SERVER lighttpd or
busybox, PASSWORD the console's (the guide's user admin). Writes OUT/kernel and OUT/initrd.gz."""
import os, re, shutil, subprocess, sys
from pathlib import Path

import install_guide  # tools/, on PYTHONPATH (board.sh sets it)

HERE = Path(__file__).resolve().parent
DEFAULTS = HERE.parent / "simulator/appliance-default.conf"
# The guide's board answers at 192.168.1.10 on its network; this one at its user-mode network's address, and at
# the host's loopback through qemu's forwards, which is where its users reach it.
ADDRESSES = "10.0.2.15 127.0.0.1"
NETWORK = "10.0.2.0/24"  # qemu's user-mode network: forwarded requests come from 10.0.2.2
MODULES = [
    "virtio_mmio",
    "virtio_net",
    "virtio_blk",
    "virtio_rng",
    "ext4",
    "crc32c_generic",
    "nft_ct",
    "nft_connlimit",
    "nft_reject_inet",
]  # the guide's connection limit
# What an appliance's image leaves out: documentation, locales, device trees (qemu makes its own), lighttpd's
# own configuration (the guide makes the one the board needs) and the C++ build of Lua, which nothing loads.
SKIP = re.compile(
    r"^(usr/share|etc|boot|lib/modules|usr/lib/linux-image-[^/]+|usr/lib/[^/]+/(gconv|audit|liblua5.4-c\+\+.*))(/|$)"
)


def run(*command, **options):
    return subprocess.run(command, check=True, **options)


def unpack(debs):
    """Every package unpacked once into DEBS/unpacked (the kernel's alone is 43 MB), its modules' index made."""
    stage = debs / "unpacked"
    if not (stage / ".done").exists():
        shutil.rmtree(stage, ignore_errors=True)
        for deb in sorted(debs.glob("*.deb")):
            run("dpkg-deb", "-x", deb, stage)
        run("depmod", "-b", stage, next((stage / "lib/modules").iterdir()).name)
        (stage / ".done").touch()
    return stage


def userland(stage, rootfs):
    """The packages into ROOTFS, less what SKIP names."""
    for folder, subfolders, files in os.walk(stage):
        base = Path(folder).relative_to(stage)
        subfolders[:] = [name for name in subfolders if not SKIP.match((base / name).as_posix())]
        for name in files + [name for name in subfolders if Path(folder, name).is_symlink()]:
            relative = (base / name).as_posix()
            if SKIP.match(relative) or relative == ".done":
                continue
            (rootfs / base).mkdir(parents=True, exist_ok=True)
            if not (rootfs / relative).exists():
                shutil.copy2(stage / relative, rootfs / relative, follow_symlinks=False)


def modules(stage, rootfs):
    """The modules the board loads by hand (nothing else would: no udev), with what each needs first, in order."""
    version = next((stage / "lib/modules").iterdir()).name
    order = []
    for module in MODULES:
        shown = run(
            "modprobe", "-d", stage, "-S", version, "--show-depends", module, capture_output=True, text=True
        ).stdout.split()
        order += [path for path in shown if path.endswith(".ko") and path not in order]
    for path in order:
        target = rootfs / Path(path).relative_to(stage)
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(path, target)
    (rootfs / "etc/modules.list").write_text("".join("/" + str(Path(p).relative_to(stage)) + "\n" for p in order))
    return next((stage / "boot").glob("vmlinuz-*"))


def unmet_needs(rootfs):
    """Libraries and loaders that an ELF file of ROOTFS asks for and ROOTFS lacks: a board cannot run it."""
    folders = {path.parent for path in rootfs.rglob("*.so*")} | {rootfs / "lib"}
    missing = set()
    for path in rootfs.rglob("*"):
        if path.is_symlink() or not path.is_file() or path.suffix == ".ko" or path.open("rb").read(4) != b"\x7fELF":
            continue
        text = run("readelf", "-dl", path, capture_output=True, text=True).stdout
        for name in re.findall(r"\(NEEDED\).*\[(.+)\]", text):
            if not any((folder / name).exists() for folder in folders):
                missing.add(f"{path.relative_to(rootfs)} needs {name}")
        for loader in re.findall(r"interpreter: (.+)\]", text):
            if not (rootfs / loader.lstrip("/")).exists():
                missing.add(f"{path.relative_to(rootfs)} needs {loader}")
    return sorted(missing)


def main(archive, debs, simulator, server, password, out):
    out = Path(out).resolve()
    work = out / "work"
    shutil.rmtree(work, ignore_errors=True)
    rootfs = work / "rootfs"
    rootfs.mkdir(parents=True)
    # Debian 13's packages keep everything under /usr, whose bin, sbin and lib the top ones are links to (12's
    # put theirs in either: they land in the same folders).
    for folder in ("bin", "sbin", "lib"):
        (rootfs / "usr" / folder).mkdir(parents=True)
        os.symlink(f"usr/{folder}", rootfs / folder)
    guide = install_guide.unpack(archive, work / "package")
    guide.install(ROOTFS=rootfs, PASSWORD=password, NETWORK=NETWORK)
    commands = guide.on_board(ADDRESSES)
    stage = unpack(Path(debs).resolve())
    userland(stage, rootfs)
    kernel = modules(stage, rootfs)
    missing = unmet_needs(rootfs)
    if missing:
        sys.exit("image: the board lacks libraries:\n  " + "\n  ".join(missing))
    for folder in ("proc", "sys", "dev", "tmp", "run", "data", "var/log", "sbin", "usr/bin", "usr/sbin"):
        (rootfs / folder).mkdir(parents=True, exist_ok=True)
    run("mknod", "-m", "600", rootfs / "dev/console", "c", "5", "1")  # init's first output, before devtmpfs
    for link, target in (("bin/sh", "busybox"), ("sbin/init", "../bin/busybox")):
        os.symlink(target, rootfs / link)
    shutil.copy2(simulator, rootfs / "usr/sbin/cffs-sim")
    shutil.copy2(DEFAULTS, rootfs / "etc/appliance-default.conf")
    for name in ("rcS", "rcK", "inittab"):
        text = (HERE / name).read_text()
        for key, command in commands.items():
            text = text.replace(f"@{key.upper()}@", command)
        text = text.replace("@SERVER@", commands[server])
        (rootfs / ("etc/inittab" if name == "inittab" else f"etc/init.d/{name}")).parent.mkdir(exist_ok=True)
        target = rootfs / ("etc/inittab" if name == "inittab" else f"etc/init.d/{name}")
        target.write_text(text)
        target.chmod(0o755)
    # The guide keeps the device's key in /etc, which this board rebuilds at each start: the data partition
    # keeps it instead, as the guide advises for an /etc that does not last.
    tls = rootfs / "etc/lighttpd/tzr4417/tls"
    tls.parent.mkdir(parents=True, exist_ok=True)
    os.symlink("/data/tls", tls)
    # So does the folder where the login guard remembers who logged in from where.
    (rootfs / "var/lib/tzr4417").rmdir()
    os.symlink("/data/tzr4417", rootfs / "var/lib/tzr4417")
    files = subprocess.run(["find", ".", "-mindepth", "1"], cwd=rootfs, check=True, capture_output=True).stdout
    with open(out / "initrd.gz", "wb") as initrd:
        cpio = subprocess.Popen(
            ["cpio", "-o", "-H", "newc", "--quiet", "-R", "0:0"],
            cwd=rootfs,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        )
        gzip = subprocess.Popen(["gzip", "-6"], stdin=cpio.stdout, stdout=initrd)
        cpio.stdin.write(files)
        cpio.stdin.close()
        if cpio.wait() or gzip.wait():
            sys.exit("image: cpio or gzip failed")
    shutil.copy2(kernel, out / "kernel")
    shutil.rmtree(work)


if __name__ == "__main__":
    if len(sys.argv) != 7 or sys.argv[4] not in ("lighttpd", "busybox"):
        sys.exit(__doc__)
    main(*sys.argv[1:])
