#!/usr/bin/python3
"""Bytes of the loaded program by the library they come from, read from the
GNU ld map that the build writes beside it (build/ARCH/tzr4417.cgi.map).
  tools/size-by-library.py MAP [LIBRARY]   # LIBRARY: also its largest members
"""
import collections, re, sys

# Where an input section comes from, by a piece of its file's path.
ORIGINS = [
    ("libstdc++", "libstdc++"),
    ("libsupc++", "libstdc++"),
    ("libgcc", "libgcc"),
    ("crtbegin", "libgcc"),
    ("crtend", "libgcc"),
    ("libc.a", "glibc"),
    ("libm.a", "glibc"),
    ("crt1.o", "glibc"),
    ("crti.o", "glibc"),
    ("crtn.o", "glibc"),
    ("libcgicc", "cgicc"),
    ("libtzr_core.a", "ours"),
    ("CMakeFiles/", "ours"),
]
# Output sections that take no room in the file or are not loaded.
UNLOADED = re.compile(r"\.(bss|tbss|debug|comment|ARM\.attributes|stab|gnu\.build)")
INPUT = re.compile(r"^ (\S*)\s+0x[0-9a-f]+\s+0x([0-9a-f]+)\s+(\S.*)$")


def main(map_path, detail=None):
    by_library, by_member = collections.Counter(), collections.Counter()
    output, started = None, False
    for line in open(map_path):
        started = started or line.startswith("Linker script and memory map")
        if not started:
            continue
        if line.startswith("."):
            output = line.split()[0]
            continue
        match = INPUT.match(line)
        if not match or output is None or UNLOADED.match(output):
            continue
        name, size, origin = match.group(1), int(match.group(2), 16), match.group(3)
        library = "padding" if name == "*fill*" else next((lib for piece, lib in ORIGINS if piece in origin), "other")
        by_library[library] += size
        if library == detail:
            by_member[re.sub(r".*[(/]", "", origin).rstrip(")")] += size
    total = sum(by_library.values())
    for library, size in by_library.most_common():
        print(f"{library:10} {size:10,} {100 * size / total:5.1f}%")
    print(f"{'total':10} {total:10,}")
    for member, size in by_member.most_common(15):
        print(f"  {member:30} {size:8,}")


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    main(*sys.argv[1:])
