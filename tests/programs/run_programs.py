"""Programs that nobody here wrote, under kxmrun: every result must be that of the plain run, on each back end and
while it is recorded, and a limit that refuses must end a program in its own orderly way.

run_programs.py [--programs A,B] [--modes A,B] --kxmrun PROGRAM --memtrack PROGRAM SCRATCH

Each run has a folder SCRATCH/PROGRAM/MODE, which is removed if all went well.
"""
import argparse
import json
import os
import re
import shlex
import shutil
import signal
import subprocess
import sys
import threading
import time

from programs import PROGRAMS

TIMEOUT = 120
KIB, MIB = 1024, 1024 * 1024

MODES = {
    "plain": None,
    "again": None,  # a program that differs from itself would prove nothing
    "c": ["--backend", "c"],
    "heap": ["--backend", "heap"],
    "tiny": ["--backend", "heap", "--tiny"],
    "guarded": ["--backend", "guarded"],
    "aligned": ["--backend", "aligned"],
    "track": ["--backend", "heap", "--track-dir", "tracks", "--track-name", "run.%p"],
    "c track": ["--backend", "c", "--track-dir", "tracks", "--track-name", "run.%p"],
    "limit": None,  # see limited()
}
LAUNCHER = re.compile(rb"^kxmrun: .*\n|^    \S*memtrack report .*\n", re.M)
REFUSED = re.compile(r"^kxmrun: .+, process \d+: (\d+) requests? refused by the limit of (\d+) bytes .*; "
                     r"the largest was (\d+) bytes .*, the peak (\d+) bytes", re.M)
RECORDED = re.compile(r"^kxmrun: .+, process \d+: (\d+) events recorded. Next:\n    (\S*memtrack) report (\S+)$", re.M)


class Fault(Exception):
    pass


def need(true, what):
    if not true:
        raise Fault(what)


class Run:
    """One run in its folder: status as a shell tells it, seconds, peak of the largest process, what was printed."""

    def __init__(self, program, folder, before=(), extra=None):
        self.folder = folder
        command = [*before, *program.command]
        environment = {"PATH": "/usr/bin:/bin", "HOME": folder, "LC_ALL": "C", "TZ": "UTC", "TERM": "dumb",
                       "PYTHONDONTWRITEBYTECODE": "1", "OMP_NUM_THREADS": "1", **program.environment, **(extra or {})}
        with open(os.path.join(folder, "command"), "w") as file:
            words = [f"{name}={shlex.quote(value)}" for name, value in environment.items()]
            print("cd", shlex.quote(folder), "&& env -i", *words, shlex.join(command),
                  f"<{program.stdin or '/dev/null'}", file=file)
        stdin = os.path.join(folder, program.stdin) if program.stdin else os.devnull
        start = time.monotonic()
        with open(stdin, "rb") as source, open(self.path("out"), "wb") as out, open(self.path("err"), "wb") as err:
            # In a session of its own, so that a run which hangs is ended with all its children.
            child = subprocess.Popen(command, cwd=folder, env=environment, stdin=source, stdout=out, stderr=err,
                                     start_new_session=True)
            self.hung = False
            timer = threading.Timer(TIMEOUT, self.end, [child.pid])
            timer.start()
            _, status, usage = os.wait4(child.pid, 0)
            timer.cancel()
        self.seconds = time.monotonic() - start
        child.returncode = os.waitstatus_to_exitcode(status)
        self.status = child.returncode if child.returncode >= 0 else 128 - child.returncode
        self.resident = usage.ru_maxrss * KIB
        self.out, self.err = self.read("out"), self.read("err")

    def end(self, group):
        self.hung = True
        os.killpg(group, signal.SIGKILL)

    def path(self, name):
        return os.path.join(self.folder, name)

    def read(self, name):
        try:
            with open(self.path(name), "rb") as file:
                return file.read()
        except FileNotFoundError:
            raise Fault(f"there is no {name}") from None

    def printed(self):
        return (self.out + b"\n" + self.err).decode("utf-8", "replace")


def check_same(program, run, plain):
    for name in program.results:
        found = run.read(name)
        if name == "err":
            found = LAUNCHER.sub(b"", found)
        need(found == plain.read(name), f"{name} is not that of the plain run")


def check_near(name, found, expected):
    """Equal but for the last digits: refused, a solver may take another order of elimination."""
    words, others = LAUNCHER.sub(b"", found).split(), expected.split()
    need(len(words) == len(others), f"{name} has {len(words)} words, the plain run's {len(others)}")
    for word, other in zip(words, others):
        if word != other:
            need(abs(float(word) - float(other)) <= 1e-9, f"{name}: {word}, the plain run {other}")


def check_recordings(program, run, memtrack):
    """Every process's recording is read whole. The sums, for the comparison of back ends."""
    folder = run.path("tracks")
    names = os.listdir(folder) if os.path.isdir(folder) else []
    bases = sorted({re.sub(r"\.(memT\d+|phaseStack)$", "", name) for name in names})
    need(len(bases) >= program.processes, f"{len(bases)} recordings, {program.processes} processes at least")
    sums = {"recordings": len(bases), "events": 0, "blocks": 0, "bytes": 0, "peak": 0}
    told = {os.path.basename(base): int(events)
            for events, _, base in RECORDED.findall(run.err.decode("utf-8", "replace"))}
    need(len(told) == min(len(bases), 10), f"the launcher tells of {len(told)} recordings")
    for base in bases:
        report = subprocess.run([memtrack, "report", "--json", "-q", "-n", "3", os.path.join(folder, base)],
                                capture_output=True, timeout=TIMEOUT)
        need(report.returncode == 0, f"memtrack of {base}: {report.returncode} {report.stderr.decode()}")
        figures = json.loads(report.stdout)
        need(figures["complete"] and not figures["problems"], f"{base} is not whole: {figures['problems']}")
        need(base not in told or told[base] == figures["events"],
             f"{base}: {figures['events']} events, the launcher tells {told.get(base)}")
        need(figures["failed"] == 0, f"{base}: {figures['failed']} requests refused")
        sums["events"] += figures["events"]
        sums["blocks"] += figures["allocated"]["blocks"]
        sums["bytes"] += figures["allocated"]["bytes"]
        sums["peak"] = max(sums["peak"], figures["peak"]["bytes"])
    need(sums["events"] >= program.events, f"{sums['events']} events, {program.events} at least")
    # What the launcher names as the next command does what it should.
    _, reader, base = RECORDED.search(run.err.decode("utf-8", "replace")).groups()
    need(subprocess.run([reader, "report", base], cwd=run.folder, stdout=subprocess.DEVNULL).returncode == 0,
         f"{reader} report {base}")
    shutil.rmtree(folder)
    return sums


def check_counts(program, folder, sums):
    """Another witness: memcheck counts the plain run's requests."""
    with open(os.path.join(folder, program.stdin)) as source:
        checked = subprocess.run(["valgrind", "--undef-value-errors=no", *program.command], cwd=folder, stdin=source,
                                 capture_output=True, timeout=TIMEOUT)
    found = re.search(rb"total heap usage: ([\d,]+) allocs, [\d,]+ frees, ([\d,]+) bytes", checked.stderr)
    need(found, f"memcheck counted nothing: {checked.stderr[-300:]}")
    for figure, counted in zip(("blocks", "bytes"), found.groups()):
        counted = int(counted.replace(b",", b""))
        need(abs(sums[figure] - counted) <= 0.005 * counted, f"{sums[figure]} {figure} recorded, memcheck: {counted}")


def check_refused(program, run, limit, plain):
    """The program ended in a way of its own, or did without what it was refused."""
    need(not run.hung, f"hangs under a limit of {limit} MiB")
    if run.status == 0:
        for name in program.results:
            check_near(name, run.read(name), plain.read(name))
        return
    need(run.status in program.ends, f"status {run.status} under a limit of {limit} MiB")
    words = program.ends[run.status]
    need(re.search(words, run.printed()), f"status {run.status} without '{words}' under a limit of {limit} MiB")


def limited(program, new_folder, kxmrun, witness, plain):
    """Under each limit, and beside it under a witness that is no part of this system: how a program takes a null
    is its own affair. A fault must be the witness's, too."""
    statuses, others = [], []
    for limit in program.limits:
        other = Run(program, new_folder(f"witness-{limit}"), extra={"LD_PRELOAD": witness,
                                                                    "KXM_REFUSE": str(limit * 1000000)})
        check_refused(program, other, limit, plain)
        others.append(other.status)
        run = Run(program, new_folder(f"limit-{limit}"), [kxmrun, "--limit", f"{limit}M", "--"])
        check_refused(program, run, limit, plain)
        need(run.status != 139 or other.status == 139, f"a fault under a limit of {limit} MiB, and not as plainly")
        statuses.append(run.status)
        refusals = REFUSED.findall(run.err.decode("utf-8", "replace"))
        need(refusals, f"the launcher does not tell of refusals under a limit of {limit} MiB")
        for count, of, largest, peak in refusals:
            need(int(count) > 0 and int(largest) > 0 and int(of) == limit * MIB and 0 < int(peak) <= limit * MIB,
                 f"the launcher tells of {count} refusals by {of}, the largest {largest}, the peak {peak}")
    need(any(statuses), "every limit is wide enough")
    return run, "; ".join(f"{limit} MiB: status {status}, the witness's {other}"
                          for limit, status, other in zip(program.limits, statuses, others))


def run_one(program, mode, scratch, arguments, sums, plain):
    def new_folder(name):
        folder = os.path.join(scratch, program.name, name.replace(" ", "-"))
        shutil.rmtree(folder, ignore_errors=True)
        shutil.copytree(os.path.join(scratch, program.name, "given"), folder)
        return folder

    if mode == "limit":
        return limited(program, new_folder, arguments.kxmrun, arguments.witness, plain)
    options = MODES[mode]
    run = Run(program, new_folder(mode), [arguments.kxmrun, *options, "--"] if options else [])
    need(not run.hung, f"hangs: ended after {TIMEOUT} s")
    need(run.status == 0, f"status {run.status}")
    if mode == "plain":
        program.check(run.folder)
        return run, ""
    check_same(program, run, plain)
    if "track" not in mode:
        need(not LAUNCHER.search(run.err), "the launcher talks though it has nothing to tell")
        return run, ""
    sums[mode] = found = check_recordings(program, run, arguments.memtrack)
    if program.counted and mode == "track":
        check_counts(program, new_folder("counted"), found)
    if mode == "c track" and "track" in sums:
        for figure, one in sums["track"].items():
            other = found[figure]
            share = 0.3 if figure == "peak" else 0.05  # threads and children do not meet at the same moments each time
            need(abs(one - other) <= share * max(one, other), f"{figure}: heap {one}, C runtime {other}")
    return run, f"{found['recordings']} recordings, {found['events']:,} events"


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--kxmrun", required=True)
    parser.add_argument("--memtrack", required=True)
    parser.add_argument("--programs", default=",".join(program.name for program in PROGRAMS))
    parser.add_argument("--modes", default=",".join(MODES))
    parser.add_argument("scratch")
    arguments = parser.parse_args()
    scratch = os.path.abspath(arguments.scratch)
    arguments.kxmrun = os.path.abspath(arguments.kxmrun)
    arguments.memtrack = os.path.abspath(arguments.memtrack)
    os.makedirs(scratch, exist_ok=True)
    arguments.witness = os.path.join(scratch, "librefuse.so")
    subprocess.run(["gcc", "-O2", "-fPIC", "-shared", "-o", arguments.witness,
                    os.path.join(os.path.dirname(os.path.abspath(__file__)), "refuse.c")], check=True)
    chosen = [program for program in PROGRAMS if program.name in arguments.programs.split(",")]
    modes = [mode for mode in MODES if mode == "plain" or mode in arguments.modes.split(",")]
    cells, faults = {}, []
    for program in chosen:
        shutil.rmtree(os.path.join(scratch, program.name), ignore_errors=True)
        given = os.path.join(scratch, program.name, "given")
        os.makedirs(given)
        program.prepare(given)
        sums, plain, kept = {}, None, False
        for mode in modes:
            try:
                run, told = run_one(program, mode, scratch, arguments, sums, plain)
                plain = plain or run
                verdict = f"ok  {run.seconds:6.2f} s {run.resident / MIB:7.1f} MiB  {told}".rstrip()
                cells[program.name, mode] = f"{run.seconds:.2f}"
            except (Fault, AssertionError, OSError, ValueError, subprocess.TimeoutExpired) as fault:
                verdict = f"FAULT: {fault}"
                cells[program.name, mode] = "FAULT"
                faults.append(f"{program.name}, {mode}: {fault}; kept in {os.path.join(scratch, program.name)}")
                kept = True
            print(f"{program.name:8} {mode:8} {verdict}", flush=True)
            if plain is None:
                break
        if not kept:
            shutil.rmtree(os.path.join(scratch, program.name))
    print("\nSeconds, where the results were right:")
    print(f"{'':9}" + "".join(f"{mode:>9}" for mode in modes))
    for program in chosen:
        print(f"{program.name:9}" + "".join(f"{cells.get((program.name, mode), '-'):>9}" for mode in modes))
    if faults:
        print(f"\n{len(faults)} faults:", *faults, sep="\n  ")
        return 1
    print("\nAll results are those of the plain runs.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
