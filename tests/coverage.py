#!/usr/bin/python3
"""Which lines and branches of the sources ran: by room on standard output, and what did not run and has no reason.

    coverage.py BUILD_FOLDER PROFILES UNREACHED [REASONS]

PROFILES is the folder that the programs of the build wrote to (LLVM_PROFILE_FILE=PROFILES/%m%c.profraw: counters lie in
the file itself, so that a process that is killed loses none; what ran before they were laid there is lost: the start
of a library that is loaded, but for programs that are run once more with PROFILES/exit-%m.profraw, which is written as
they exit).

UNREACHED is written: a line for each function, condition or direction of a condition that never ran, as
"file:line: what: condition | source line". REASONS says which of them are settled, and why (unreached.txt tells how). What
it does not settle is printed, and so are its entries that settle nothing any more; both end with 1.
"""

import collections
import json
import pathlib
import re
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent
LIBRARY = "KXMBase/KXMBasMem.m/src/"
ROOTS = ("KXMBase/", "KX0CORE/", "tools/", "bindings/")
GATED = ("KXMBase/", "tools/memtrack/")  # where what never ran has its reason: the library and the reader
COUNTS = ("functions", "lines", "branches")
Missing = collections.namedtuple("Missing", "file line what text source")


def objects(build):
    """Programs and libraries that carry counters."""
    for folder in ("bin", "lib*/**", "tests/bin"):
        for file in build.glob(folder + "/*"):
            if file.is_file() and not file.is_symlink() and file.read_bytes()[:4] == b"\x7fELF":
                sections = subprocess.run(["readelf", "-SW", file], capture_output=True, text=True).stdout
                if "__llvm_covmap" in sections:
                    yield file


def exported(build, profiles):
    data = profiles / "all.profdata"
    subprocess.run(["llvm-profdata-14", "merge", "-sparse", "-o", data, *profiles.glob("*.profraw")], check=True)
    found = list(objects(build))
    command = ["llvm-cov-14", "export", "-instr-profile", data, found[0]]
    for other in found[1:]:
        command += ["-object", other]
    return json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout)["data"][0]


def our_name(filename, build):
    path = pathlib.Path(filename).resolve()
    if TOP in path.parents and not path.is_relative_to(build.resolve()):
        name = str(path.relative_to(TOP))
        if name.startswith(ROOTS):
            return name
    return None


def room(name):
    if name.startswith(LIBRARY):
        folders = name[len(LIBRARY):].split("/")[:-1]
        return "/".join(folders) or "."
    return "/".join(name.split("/")[:2])


def share(count):
    return f"{count[0]:6}/{count[1]:<6}{100 * count[0] / count[1] if count[1] else 100:6.1f} %"


def piece(source, line, column, last, end):
    """The text from one place to another, in one line."""
    lines = [source[line - 1][column - 1:]] if line != last else [source[line - 1][column - 1:end - 1]]
    if line != last:
        lines += source[line:last - 1] + [source[last - 1][:end - 1]]
    return " ".join(text.strip() for text in lines)


def missing_branches(name, branches, source):
    directions = collections.defaultdict(lambda: [0, 0])  # a template's instances are one here
    for line, column, last, end, taken, passed, *_ in branches:
        directions[line, column, last, end][0] += taken
        directions[line, column, last, end][1] += passed
    for place, (taken, passed) in sorted(directions.items()):
        if taken == 0 or passed == 0:
            what = "never run" if taken == passed else "never true" if taken == 0 else "never false"
            yield Missing(name, place[0], what, piece(source, *place), source[place[0] - 1].strip())


def missing_functions(functions, build, sources):
    called = collections.defaultdict(int)
    for function in functions:
        called[our_name(function["filenames"][0], build), function["regions"][0][0]] += function["count"]
    for (name, line), count in called.items():
        if name is not None and count == 0:
            text = sources(name)[line - 1].strip()
            yield Missing(name, line, "never called", text, text)


class Reasons:
    """The entries of unreached.txt."""

    def __init__(self, file):
        self.entries = []  # [where it stands, pattern, may be reached, how often it settled something]
        reason = ""
        for number, line in enumerate(file.read_text().splitlines(), 1):
            if line.startswith(" ") and line.strip():
                entry = re.fullmatch(r"\s+(\S+?): ((?:sometimes )?never \w+): (.+)", line)
                if not reason or entry is None:
                    sys.exit(f"{file}:{number}: " + ("no entry" if reason else "an entry without a reason"))
                where, what, text = entry.groups()
                parts = [re.escape(part) for part in (where, what.removeprefix("sometimes "), text)]
                pattern = re.compile(": ".join(parts).replace(r"\.\.\.", ".*"))
                self.entries.append([f"{file.name}:{number}: {line.strip()}", pattern, what.startswith("sometimes"), 0])
            else:
                reason = line.strip() if not line.startswith("#") else ""

    def settle(self, missing):
        name = missing.file.removeprefix(LIBRARY)
        settled = False
        for entry in self.entries:
            if any(entry[1].fullmatch(f"{name}: {missing.what}: {text}") for text in (missing.text, missing.source)):
                entry[3] += 1
                settled = True
        return settled

    def idle(self):
        return [where for where, _, sometimes, times in self.entries if times == 0 and not sometimes]


def main():
    build, profiles, unreached = (pathlib.Path(word) for word in sys.argv[1:4])
    reasons = Reasons(pathlib.Path(sys.argv[4])) if len(sys.argv) > 4 else None
    report = exported(build, profiles)
    texts = {}

    def sources(name):
        if name not in texts:
            texts[name] = (TOP / name).read_text().splitlines()
        return texts[name]

    rooms = collections.defaultdict(lambda: {kind: [0, 0] for kind in COUNTS})
    missing = list(missing_functions(report["functions"], build, sources))
    for file in report["files"]:
        name = our_name(file["filename"], build)
        if name is None:
            continue
        for kind in COUNTS:
            of_room = rooms[room(name)][kind]
            of_room[0] += file["summary"][kind]["covered"]
            of_room[1] += file["summary"][kind]["count"]
        missing += missing_branches(name, file["branches"], sources(name))
    missing.sort()
    unreached.write_text("".join(f"{m.file}:{m.line}: {m.what}: {m.text} | {m.source}\n" for m in missing))
    print(f"{'':28}{'functions':>20}{'lines':>20}{'branches':>20}")
    for name, counts in sorted(rooms.items()):
        print(f"{name:26}" + "".join(share(counts[kind]) for kind in COUNTS))
    print(f"What never ran is in {unreached}.")
    if reasons is None:
        return 0
    open_ones = [m for m in missing if m.file.startswith(GATED) and not reasons.settle(m)]
    print(f"{len(missing)} never ran; of the library's and memtrack's, {len(open_ones)} without a reason.")
    for m in open_ones:
        print(f"  {m.file}:{m.line}: {m.what}: {m.text}")
    for where in reasons.idle():
        print(f"  settles nothing any more: {where}")
    return 1 if open_ones or reasons.idle() else 0


if __name__ == "__main__":
    sys.exit(main())
