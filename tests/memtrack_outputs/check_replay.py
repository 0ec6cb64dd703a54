"""memtrack replay: what was replayed is what was recorded, and what is told of each allocator is true of it.

check_replay.py SCRATCH PART MEMTRACK...

PART: all; events, without what memory the process takes, for builds under a sanitizer, which takes its own;
peers (ends with 77 where none is installed)
"""
import ctypes.util
import json
import os
import shutil
import struct
import subprocess
import sys

from recording import CALLOC, FREE, MALLOC, REALLOC, Event, Held, mixed, write

SCRATCH, PART, MEMTRACK = sys.argv[1], sys.argv[2], sys.argv[3:]
KIB, MIB = 1024, 1024 * 1024
ON_WINDOWS = MEMTRACK[-1].endswith(".exe")


def replay(*arguments, status=0):
    environment = dict(os.environ, KXA_DEADBEEF="1", KXA_MEM_TRACK="1",  # choose nothing here
                       KXA_MEM_TRACKS="none of the library's")
    result = subprocess.run([*MEMTRACK, "replay", "--json", "-r", "1", *arguments], capture_output=True,
                            timeout=300, env=environment)
    assert result.returncode == status, (arguments, result.returncode, result.stdout, result.stderr)
    return json.loads(result.stdout) if status != 2 else result.stderr.decode()


def by_name(report):
    return {each["name"]: each for each in report["allocators"]}


def same(found, expected, what):
    assert found == expected, f"{what}: found {found}, expected {expected}"


def near(found, expected, tolerance, what):
    assert abs(found - expected) <= tolerance, f"{what}: found {found}, expected {expected}"


def check_mixed():
    """Every kind of event, on every back end, is held in the replay as it was in the recording."""
    events = mixed(5000, 4, strays=0.02)
    held = Held(events, 4)
    write("mixed", events, [b"ROOT"] * 4)
    report = replay("mixed", status=1)  # the strays
    recording = report["recordings"][0]
    strays = sum(e.address >= 0xDEAD0000 for e in events if e.kind == FREE)
    same((recording["events"], recording["refused"], recording["unknown_releases"], recording["threads"]),
         (5000, held.refused, strays, 3), "recording")
    found = by_name(report)
    same(set(found), {"crt", "heap", "heap:tiny", "aligned", "guarded"}, "back ends")
    for name, each in found.items():
        same((each["held_bytes"], each["at_peak"]["held_bytes"], each["refused"]),
             (held.peak[0], held.peak[0], 0), name)
        assert each["seconds"] > 0, name
        if PART == "all":
            assert held.peak[0] < each["resident_bytes"] < 2 * held.peak[0], (name, each)


def check_footprints():
    """64 blocks of 1 MiB: the heap maps 1088 KiB for each. A limit refuses some, and the replay goes on."""
    found = by_name(replay("large", "--on", "heap", "--on", "heap:limit=32MiB", "--on", "heap:granularity=4MiB,map=never,trim=never",
                           "--on", "crt"))
    first = 64 * KIB  # the first segment
    same(found["heap"]["heap_high_water_bytes"], 64 * 1088 * KIB + first, "high water")
    assert 1.0 <= found["crt"]["fragmentation"] < 1.05, found["crt"]
    limited = found["heap:limit=32MiB"]
    fit = (32 * MIB - first) // (1088 * KIB)
    same((limited["refused"], limited["held_bytes"]), (64 - fit, fit * MIB), "limited")
    assert limited["heap_high_water_bytes"] < 32 * MIB, limited
    same(found["heap:granularity=4MiB,map=never,trim=never"]["heap_high_water_bytes"] % (4 * MIB), 0, "granularity")
    if not ON_WINDOWS:  # there private bytes are another system's, as the emulator tells them
        near(found["heap"]["at_peak"]["footprint_bytes"], 64 * 1088 * KIB, MIB, "footprint")
    untouched = by_name(replay("large", "--on", "crt", "--no-touch"))["crt"]
    assert untouched["resident_bytes"] < 4 * MIB, untouched
    near(found["crt"]["resident_bytes"], 64 * MIB, 2 * MIB, "resident")


def check_own_memory():
    """The table of 100000 slots is in no figure; the tiny pool takes less than the heap for small blocks."""
    blocks = [Event(CALLOC if i % 2 else MALLOC, 4096 + 32 * i, 16) for i in range(100000)]
    write("small", blocks, [b"ROOT"])
    found = by_name(replay("small", "--on", "heap", "--on", "heap:tiny", "--on", "crt"))
    near(found["heap"]["resident_bytes"], 100000 * 64, MIB, "heap: 64 bytes a block")
    if not ON_WINDOWS:
        near(found["crt"]["resident_bytes"], 100000 * 32, MIB, "crt: 32 bytes a block")
    assert found["heap:tiny"]["resident_bytes"] < 0.8 * found["heap"]["resident_bytes"], found
    # Two ranks: sums, and each by itself.
    ranks = by_name(replay("small", "large", "--on", "heap"))["heap"]
    same([each["held_bytes"] for each in ranks["ranks"]], [1600000, 64 * MIB], "ranks")
    same(ranks["held_bytes"], 1600000 + 64 * MIB, "sum over ranks")


def check_resizes():
    """One block that grows: a resize keeps one block, here and where the back end's own reads too far."""
    events = [Event(MALLOC, 0x1000, 100)]
    events += [Event(REALLOC, 0x1000 * (i + 1), 100000 * i, 0x1000 * i) for i in range(1, 40)]
    events += [Event(REALLOC, 0, 0, 0x28000), Event(MALLOC, 0x1000, 50)]
    write("growing", events, [b"ROOT"])
    for name, each in by_name(replay("growing")).items():
        same(each["held_bytes"], 3900000, name)
        assert PART == "events" or each["resident_bytes"] < 12 * MIB, (name, each)


def check_words():
    for wrong, word in (("heap:trim", "heap:trim"), ("heap:map=4Q", "4Q"), ("stack", "stack"), ("crt:tiny", "heap alone")):
        err = replay("large", "--on", wrong, status=2)
        assert word in err, err
    for refused in ("heap:granularity=100", "heap:granularity=0"):
        failed = by_name(replay("large", "--on", refused, "--on", "crt", status=1))
        assert "failure" in failed[refused] and "failure" not in failed["crt"], failed
    if ON_WINDOWS:
        assert "--with" in replay("large", "--with", "other.dll", status=2)


def check_refusals():
    """What the system refuses is left out, and so is what would be done to it; the guarded back end ends by it."""
    huge = 2**47 - 4096
    events = [Event(MALLOC, 0x1000, huge), Event(REALLOC, 0x2000, 100, 0x1000), Event(CALLOC, 0x3000, huge),
              Event(REALLOC, 0x4000, huge, 0x2000), Event(FREE, 0x3000), Event(MALLOC, 0x5000, 10)]
    events += [Event(kind, 0x6000, 1) for _ in range(70000) for kind in (MALLOC, FREE)]  # more than is sent at once
    write("huge", events, [b"ROOT"])
    found = by_name(replay("huge", "--on", "crt", "--on", "heap", "--on", "aligned", "--on", "guarded", status=1))
    assert "ended" in found.pop("guarded")["failure"], found
    for name, each in found.items():
        same((each["refused"], each["held_bytes"]), (3, 111), name)


def check_program():
    """memtrack-replay by itself, and memtrack without it or with one that is none."""
    name = "memtrack-replay" + MEMTRACK[-1][-4:] * ON_WINDOWS
    program = [*MEMTRACK[:-1], os.path.join(os.path.dirname(MEMTRACK[-1]), name)]
    for argument, given, status, words in (
            ("-h", b"", 0, "Usage: memtrack-replay SLOTS"), ("--help", b"", 0, "Usage: memtrack-replay SLOTS"),
            ("-V", b"", 0, "memtrack-replay "), ("--version", b"", 0, "memtrack-replay "),
            ("", b"", 14, "is started by memtrack replay"), ("5", struct.pack("<I", 65537), 14, "is started by"),
            ("5", struct.pack("<I", 1), 14, "is started by"), (str(2**52), b"", 13, "no memory for the table")):
        told = subprocess.run([*program, *argument.split()], input=given, capture_output=True, timeout=60)
        assert told.returncode == status and words in (told.stdout + told.stderr).decode(), (argument, told)
    if ON_WINDOWS:
        return
    os.makedirs("alone", exist_ok=True)
    alone = shutil.copy(MEMTRACK[-1], "alone/memtrack")
    for script, words in ((None, "cannot be started"), ("#!/bin/sh\nexit 3\n", "ended with status 3"),
                          ("#!/bin/sh\necho no\n", "ended with status 0")):
        if script:
            with open("alone/memtrack-replay", "w", opener=lambda path, flags: os.open(path, flags, 0o755)) as file:
                file.write(script)
        told = subprocess.run([alone, "replay", "large", "-o", "alone/out"], capture_output=True, timeout=60)
        assert told.returncode == 1 and words in told.stderr.decode(), told
        assert not [name for name in os.listdir("alone") if name.startswith("out")]
    os.remove("alone/memtrack-replay")
    with open("/dev/full", "wb") as full:
        same(subprocess.run([*program, "--help"], stdout=full).returncode, 1, "help that cannot be written")


def on_terminal(*arguments, columns=60):
    """What memtrack writes where its output is a terminal, and its exit status."""
    import fcntl
    import pty
    import termios
    child, terminal = pty.fork()
    if child == 0:
        fcntl.ioctl(1, termios.TIOCSWINSZ, struct.pack("HHHH", 25, columns, 0, 0))
        os.execv(MEMTRACK[0], [*MEMTRACK, *arguments])
    told = b""
    try:
        while piece := os.read(terminal, 65536):
            told += piece
    except OSError:  # the end of a terminal
        pass
    os.close(terminal)
    return told.decode(), os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])


def check_terminal():
    """A bar while it takes long, which goes away again; nothing that is no text."""
    for columns, width in ((60, 59), (0, 79)):  # a terminal need not tell
        told, status = on_terminal("replay", "-r", "40", "--on", "crt", "large", columns=columns)
        assert status == 0 and told.startswith("\rReading [") and f"\r{'':{width}}\rlarge: 64 events" in told, told
        assert all(len(line) <= width for line in told.split("\r") if "Reading" in line), told
    told, status = on_terminal("replay", "-q", "-r", "1", "--on", "crt", "large")
    assert status == 0 and told.startswith("large: 64 events"), told
    for arguments in (("html", "large"), ("export", "--format", "pprof", "large")):
        told, status = on_terminal(*arguments)
        assert status == 2 and ("is nothing for a terminal" in told or "built without html" in told), told


def check_peers():
    libraries = [ctypes.util.find_library(name) for name in ("jemalloc", "mimalloc", "tcmalloc_minimal")]
    libraries = [name for name in libraries if name]
    if not libraries:
        print("SKIPPED: none of libjemalloc2, libmimalloc2.0, libtcmalloc-minimal4 is installed")
        sys.exit(77)
    options = [text for name in libraries for text in ("--with", name)]
    found = by_name(replay("large", "--on", "crt", "--with", "libnone.so", *options, status=1))
    assert "C runtime" in found["libnone.so"]["failure"], found
    for name in libraries:
        same(found[name]["held_bytes"], 64 * MIB, name)
        near(found[name]["resident_bytes"], 64 * MIB, 8 * MIB, name)


LARGE = [Event(MALLOC, MIB * i, MIB) for i in range(1, 65)]
os.makedirs(SCRATCH, exist_ok=True)
os.chdir(SCRATCH)
write("large", LARGE, [b"ROOT"])
if PART == "peers":
    check_peers()
else:
    check_mixed()
    check_resizes()
    check_words()
    check_refusals()
    check_program()
    if not ON_WINDOWS:
        check_terminal()
    if PART == "all":
        check_footprints()
        check_own_memory()
