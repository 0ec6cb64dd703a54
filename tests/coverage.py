#!/usr/bin/python3
"""Which lines and branches of the sources ran: by room on standard output, and what did not, line by line.

    coverage.py BUILD_FOLDER PROFILES UNREACHED

PROFILES is the folder that the programs of the build wrote to (LLVM_PROFILE_FILE=PROFILES/%m%c.profraw: counters lie in
the file itself, so that a process that is killed loses none; what ran before they were laid there is lost: the start of a library that is
loaded, but for programs that are run once more with PROFILES/exit-%m.profraw, which is written as they exit). UNREACHED is written: a line for each function, condition
or direction of a condition that never ran, as "file:line: what | source".
"""

import collections
import json
import pathlib
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent
LIBRARY = "KXMBase/KXMBasMem.m/src/"
COUNTS = ("functions", "lines", "branches")


def objects(build):
    """Programs and libraries that carry counters."""
    for folder in ("bin", "lib*/**", "tests/bin"):
        for file in build.glob(folder + "/*"):
            if file.is_file() and not file.is_symlink() and file.read_bytes()[:4] == b"\x7fELF":
                sections = subprocess.run(["readelf", "-SW", file], capture_output=True, text=True).stdout
                if "__llvm_covmap" in sections:
                    yield file


def room(name):
    if name.startswith(LIBRARY):
        folders = name[len(LIBRARY):].split("/")[:-1]
        return "/".join(folders) or "."
    return "/".join(name.split("/")[:2])


def share(count):
    return f"{count[0]:6}/{count[1]:<6}{100 * count[0] / count[1] if count[1] else 100:6.1f} %"


def main():
    build, profiles, unreached = (pathlib.Path(word) for word in sys.argv[1:])
    data = profiles / "all.profdata"
    subprocess.run(["llvm-profdata-14", "merge", "-sparse", "-o", data, *profiles.glob("*.profraw")], check=True)
    found = list(objects(build))
    command = ["llvm-cov-14", "export", "-instr-profile", data, found[0]]
    for other in found[1:]:
        command += ["-object", other]
    report = json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout)["data"][0]

    rooms = collections.defaultdict(lambda: {kind: [0, 0] for kind in COUNTS})
    lines = []
    for file in report["files"]:
        path = pathlib.Path(file["filename"]).resolve()
        if TOP not in path.parents or path.is_relative_to(build):
            continue
        name = str(path.relative_to(TOP))
        if not name.startswith(("KXMBase/", "KX0CORE/", "tools/", "bindings/")):
            continue
        for kind in COUNTS:
            of_room = rooms[room(name)][kind]
            of_room[0] += file["summary"][kind]["covered"]
            of_room[1] += file["summary"][kind]["count"]
        source = path.read_text().splitlines()
        directions = collections.defaultdict(lambda: [0, 0])  # a template's instances are one here
        for line, column, _, _, taken, passed, *_ in file["branches"]:
            directions[line, column][0] += taken
            directions[line, column][1] += passed
        for (line, column), (taken, passed) in sorted(directions.items()):
            if taken == 0 or passed == 0:
                what = "never run" if taken == passed else "never true" if taken == 0 else "never false"
                lines.append(f"{name}:{line}: {what} at {column} | {source[line - 1].strip()}")
    called = collections.defaultdict(int)
    for function in report["functions"]:
        path = pathlib.Path(function["filenames"][0]).resolve()
        called[path, function["regions"][0][0]] += function["count"]
    for (path, line), count in called.items():
        if count == 0 and TOP in path.parents:
            name = str(path.relative_to(TOP))
            if name.startswith(("KXMBase/", "KX0CORE/", "tools/", "bindings/")):
                lines.append(f"{name}:{line}: never called | {path.read_text().splitlines()[line - 1].strip()}")
    unreached.write_text("".join(line + "\n" for line in sorted(lines)))
    print(f"{'':28}{'functions':>20}{'lines':>20}{'branches':>20}")
    for name, counts in sorted(rooms.items()):
        print(f"{name:26}" + "".join(share(counts[kind]) for kind in COUNTS))
    print(f"What never ran is in {unreached}.")


if __name__ == "__main__":
    main()
