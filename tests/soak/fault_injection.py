#!/usr/bin/env python3
"""Lets each system call of the library fail, one at a time, and judges how the program ends.

    fault_injection.py BIN_FOLDER TEST_FOLDER MESH [--most N]

The example job runs on every back end, recorded and not, with the n-th memory request, release, opening or write
refused, interrupted or cut short, or seek or closing failing, for n from 1 until the job makes no more of them (at most
N times each, 300 by default, spread over them all). Then the threaded stress program with refused memory, interrupted
waits and failing reads, which shows by itself that nothing is lost, and, recorded, with files that cannot be made or
written while others wait for the recorder; and memtrack and kxmrun with failing reads, for which it takes strace:
with N above 10 it is a failure if that may not trace. Every run must end in time, by itself, and in one of the ways that
the documents name:

- exit status 0, with the result of the plain run, and, recorded, with a record that is whole
- exit status 4, with the report of a refused request
- the fatal error of a tracking file that could not be written, with the files before it whole
- recorded, an access fault while the library is loaded: without memory for the tracker nothing has begun
- guarded, an access fault: that back end does not test what the C runtime gives

A failed part is told with the command that repeats it, and so is a kind of failure that met no call anywhere. Exit
status 1.
"""

import argparse
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile

JOB_SECONDS = 60
FAILURES = ["mmap:refuse", "mmap:refuse+", "mmap:interrupt", "munmap:refuse", "madvise:refuse", "malloc:refuse",
            "malloc:refuse+", "open:refuse", "open:interrupt", "write:refuse", "write:refuse+", "write:interrupt",
            "write:short", "lseek:refuse", "lseek:refuse+", "close:refuse", "close:interrupt"]
STRESS_FAILURES = ["mmap:refuse", "munmap:refuse", "munmap:refuse+", "read:refuse", "read:interrupt", "read:short",
                   "close:refuse", "futex:interrupt", "futex:refuse"]
RECORD_FAILURES = ["create:refuse", "create:interrupt", "write:refuse", "write:refuse+", "write:interrupt",
                   "write:short", "lseek:refuse", "lseek:refuse+"]
REQUESTS = ("mmap", "malloc")
BACK_ENDS = [["crt"], ["guarded"], ["aligned"], ["heap"], ["heap", "--tiny-pool"], ["heap", "--cache-pool"]]
LIBRARY_VARIABLES = ("KXA_", "KXQ_", "KXM_", "MC_RESULT")


class Ground:
    """The programs under trial, the folder that they run in, and what went wrong so far."""

    def __init__(self, programs, tests, mesh):
        self.bin = pathlib.Path(programs).resolve()
        self.tests = pathlib.Path(tests).resolve()
        self.mesh = pathlib.Path(mesh).resolve()
        self.folder = None
        self.environment = {name: value for name, value in os.environ.items()
                            if not name.startswith(LIBRARY_VARIABLES)}
        self.faults = 0
        self.runs = 0
        self.met = set()  # the failures that there were calls for

    def stress_environments(self):
        heap = {"KXQ_DLALLOCATOR": "1"}
        return {"crt": {}, "guarded": {"KXA_DEADBEEF": "1"}, "aligned": {"KXQ_USE_ALIGNED_MEMORY": "1"}, "heap": heap,
                "tiny": heap | {"KXM_STRESS_TINY": "1"},
                "recorded": heap | {"KXA_MEM_TRACK": "1", "KXA_MEM_OUTPUTDIR": str(self.folder)}}

    def empty_folder(self):
        for file in self.folder.iterdir():
            file.unlink()

    def run(self, command, variables, failure=None, number=0):
        """The ended process, with `calls`: how many calls of the kind it made, or None where it was ended."""
        self.empty_folder()
        count = self.folder / "count"
        if failure:
            kind, _, _ = failure.partition("+")
            variables = variables | {"LD_PRELOAD": str(self.tests / "libkxm_inject.so"),
                                     "KXM_INJECT": f"{kind}:{number}{'+' if failure.endswith('+') else ''}",
                                     "KXM_INJECT_COUNT": str(count)}
        ended = self.start(command, variables)
        ended.calls = int(count.read_text()) if count.exists() else None
        if ended.calls:
            self.met.add(failure)
        return ended

    def start(self, command, variables, before=None):
        """The ended process, with `repeat`: its command as one types it. Without a status where it hung."""
        self.runs += 1
        command = [str(word) for word in command]
        try:
            ended = subprocess.run(command, env=self.environment | variables, capture_output=True, text=True,
                                   errors="replace", timeout=JOB_SECONDS, preexec_fn=before, cwd=self.folder)
        except subprocess.TimeoutExpired as hung:
            ended = subprocess.CompletedProcess(command, None, str(hung.stdout), str(hung.stderr))
        ended.repeat = " ".join([f"{name}={value}" for name, value in variables.items()] + command)
        return ended

    def blame(self, ended, what):
        self.faults += 1
        print(f"FAILED: {what}\n  {ended.repeat}\n  ended with {ended.returncode}; standard error:")
        print("\n".join("    " + line for line in ended.stderr.splitlines()[:15]))


def told(what, ends):
    """Says how often `what` ended with which status."""
    print(f"{what}: ended with " +
          ", ".join(f"{status}: {count}" for status, count in sorted(ends.items(), key=str)), flush=True)


def spread(count, most):
    """At most `most` of the numbers 1 to count + 1, thinner upward; the first and the last always."""
    most = max(most, 2)
    if count + 1 <= most:
        return list(range(1, count + 2))
    return sorted({round((count + 1) ** (i / (most - 1))) for i in range(most)})


def deflection(ground):
    return json.loads((ground.folder / "figures.json").read_text())["deflection_m"]


def whole_files(record):
    """True where the .memT files are numbered without a gap and each but the last is one full buffer."""
    files = sorted(record.parent.glob(record.name + ".memT*"), key=lambda file: int(file.name.rpartition("memT")[2]))
    return (all(file.name == f"{record.name}.memT{number}" for number, file in enumerate(files)) and
            all(file.stat().st_size == 4 + 40 * 131072 and file.open("rb").read(4) == b"\0\0\2\0"
                for file in files[:-1]))


def whole_table(record):
    """True where the table of phases holds each number below its count once, with a path."""
    bytes_of = pathlib.Path(f"{record}.phaseStack").read_bytes()
    count, places = int.from_bytes(bytes_of[:4], "little"), range(4, len(bytes_of), 131076)
    return (len(bytes_of) == 4 + 131076 * count and all(bytes_of[at + 4:at + 8] == b"ROOT" for at in places) and
            sorted(int.from_bytes(bytes_of[at:at + 4], "little") for at in places) == list(range(count)))


def judge_record(ground, ended, failure, record):
    """None, or what was wrong with the record of a run that ended well or by the recorder's fatal error. Opening and
    writing go on where they were interrupted or cut short."""
    call, _, kind = failure.partition(":")
    refused = kind.startswith("refuse") and call in ("open", "create", "write", "lseek")
    if ended.returncode == 0:
        read = subprocess.run([ground.bin / "memtrack", "report", record, "--json"], cwd=ground.folder,
                              capture_output=True, text=True)
        if read.returncode == 0:
            return None if whole_files(record) and whole_table(record) else "damage that memtrack does not tell"
        # A table of phases that cannot be written is missing or damaged without a word, by design; memtrack tells.
        problems = [line for line in read.stderr.splitlines() if ".memT" in line or ".phaseStack" in line]
        only_table = problems and all(f"{record.name}.phaseStack, byte" in line for line in problems)
        return None if refused and read.returncode == 1 and only_table else "a record that is not whole: " + read.stderr
    told_so = ("AssertionFailed:numBytesWritten" if call == "write" else
               "Unable to open memory tracking file." if call in ("open", "create") else None)
    if ended.returncode != -signal.SIGABRT or not refused or told_so is None:
        return "no way to end"
    # Everything later is refused as well, the opening among it.
    return (None if told_so in ended.stderr and whole_files(record)
            else "no words for it, or files before it that are not whole")


def judge_job(ground, ended, failure, number, back_end, recorded, at_load, right):
    """None, or what was wrong with how the job ended."""
    call = failure.partition(":")[0]
    if ended.returncode is None:
        return "did not end"
    if ended.returncode == 0:
        if deflection(ground) != right:
            return "another result"
        if recorded:
            return judge_record(ground, ended, failure, ground.folder / "elasticity")
        return None
    if ended.returncode == 4 and call in REQUESTS:
        words = ["out of memory", "footprint"]
        missing = [word for word in words if word not in ended.stderr.lower()]
        return f"a report without '{missing[0]}'" if missing else None
    if ended.returncode == -signal.SIGABRT and recorded:
        return judge_record(ground, ended, failure, ground.folder / "elasticity")
    if ended.returncode == -signal.SIGSEGV and recorded and number <= at_load and call in REQUESTS:
        return None
    if ended.returncode == -signal.SIGSEGV and back_end == ["guarded"] and call == "malloc":
        return None
    return "no way to end"


def try_job(ground, back_end, recorded, most):
    command = [ground.bin / "elasticity", ground.mesh, "--quiet", "--no-check", "--json", "figures.json",
               "--backend", *back_end]
    variables = {"KXA_MEM_TRACK": "1", "KXA_MEM_OUTPUTDIR": str(ground.folder)} if recorded else {}
    name = " ".join(back_end) + (", recorded" if recorded else "")
    plain = ground.run(command, variables)
    if plain.returncode != 0:
        ground.blame(plain, f"{name}: the plain run")
        return
    right = deflection(ground)
    ends = {}
    for failure in FAILURES:
        if failure.startswith("malloc") and back_end[0] == "heap": # its only such calls come before the back end's
            continue
        # The job starts itself anew with the variable of its back end; this is what its loading takes then.
        loading = {"KXQ_DLALLOCATOR": "1"} if back_end[0] == "heap" else {}
        calls = ground.run(command, variables, failure, 10**9).calls
        if calls == 0:
            continue
        at_load = ground.run([command[0], "--version"], variables | loading, failure, 10**9).calls
        for number in spread(calls, most):
            ended = ground.run(command, variables, failure, number)
            wrong = judge_job(ground, ended, failure, number, back_end, recorded, at_load, right)
            if wrong:
                ground.blame(ended, f"{name}, {failure} at {number}: {wrong}")
            if number == calls + 1 and ended.returncode != 0:
                ground.blame(ended, f"{name}: failed where nothing was refused")
            ends[ended.returncode] = ends.get(ended.returncode, 0) + 1
    told(f"job on {name}", ends)


def try_stress(ground, most):
    for name, variables in ground.stress_environments().items():
        variables = variables | {"KXM_STRESS_REFUSED": "1"}
        stress = ground.tests / "stress"
        runs = 0
        of_memory = [failure for failure in STRESS_FAILURES if "map:" in failure]
        failures = {"heap": STRESS_FAILURES, "recorded": STRESS_FAILURES, "tiny": of_memory}
        for failure in ["malloc:refuse"] + failures.get(name, []):
            at_load = ground.run([stress, "0"], variables, failure, 10**9).calls
            every = most if "map" in failure or "malloc" in failure else min(most // 2, 10)
            for number in spread(300, every):
                if number <= at_load and name == "recorded": # judged with the job
                    continue
                runs += 1
                ended = ground.run([stress, "0.5" if most > 10 else "0.2", "6", str(runs)], variables, failure, number)
                may_fault = name == "guarded" and failure == "malloc:refuse"
                if ended.returncode != 0 and not (may_fault and ended.returncode == -signal.SIGSEGV):
                    ground.blame(ended, f"stress on {name}, {failure} at {number}")
        print(f"stress on {name}: {runs} runs", flush=True)


def try_recorded_stress(ground, most):
    """One thread finds out that a file cannot be made or written, while it holds up all others."""
    variables = ground.stress_environments()["recorded"] | {"KXM_STRESS_REFUSED": "1"}
    command = [ground.tests / "stress", "0.6", "6"]
    ends = {}
    for failure in RECORD_FAILURES:
        calls = ground.run(command, variables, failure, 10**9).calls or 1
        for number in spread(calls, most):
            ended = ground.run([*command, number], variables, failure, number)
            wrong = ("did not end" if ended.returncode is None
                     else judge_record(ground, ended, failure, ground.folder / "stress"))
            if wrong:
                ground.blame(ended, f"recorded stress, {failure} at {number}: {wrong}")
            ends[ended.returncode] = ends.get(ended.returncode, 0) + 1
    told("recorded stress, files failing", ends)


def try_tools(ground, demanded):
    """memtrack reading a recording and kxmrun reading a program, with the n-th read of its file failing."""
    if not shutil.which("strace") or subprocess.run(["strace", "-o", "/dev/null", "true"], check=False,
                                                    stderr=subprocess.DEVNULL).returncode != 0:
        print(f"{'FAILED: ' if demanded else ''}tools: not tried, there is no strace or it may not trace")
        ground.faults += demanded
        return
    files = ground.folder / "files"
    job = [ground.bin / "elasticity", ground.mesh, "--quiet", "--no-check"]
    ground.run(job, {"KXA_MEM_TRACK": "1", "KXA_MEM_OUTPUTDIR": str(ground.folder)})
    report = [ground.bin / "memtrack", "report", "elasticity"]
    sort = shutil.which("sort")
    launch = [ground.bin / "kxmrun", "--quiet", "--", sort, ground.mesh]
    ends = {}
    for command, call, file, status, words in [
            (report, "read", "elasticity.memT0", 1, "elasticity.memT0, byte"),
            (report, "read", "elasticity.phaseStack", 1, "elasticity.phaseStack, byte"),
            (launch, "pread64", os.path.realpath(sort), 2, f"{sort} cannot be read: Input/output error")]:
        plain = ground.start(command, {})
        for failure in ("EIO", "EINTR"):
            for number in (1, 2, 3):
                ended = ground.start(["strace", "-fqq", "-o", files, "-P", ground.folder / file, "-e",
                                      f"inject={call}:error={failure}:when={number}", *command], {})
                met = "INJECTED" in files.read_text()
                right = (ended.returncode, ended.stdout) == (0, plain.stdout)
                told_so = ended.returncode == status and words in ended.stderr and "cut off" not in ended.stderr
                if not met or not (told_so if failure == "EIO" else right):
                    ground.blame(ended, f"{command[0].name}, {call} {number} of {file}: {failure}"
                                 f"{'' if met else ' met no call'}")
                ends[ended.returncode] = ends.get(ended.returncode, 0) + 1
    told("memtrack and kxmrun, reads failing", ends)


def try_storm(ground, most):
    """Thousands of signals a second, whose handler lets the calls that they meet come back interrupted."""
    storm = {"LD_PRELOAD": str(ground.tests / "libkxm_inject.so")}
    ends = {}
    for back_end in BACK_ENDS[-most:]:
        for recorded in (False, True):
            command = [ground.bin / "elasticity", ground.mesh, "--quiet", "--no-check", "--json", "figures.json",
                       "--backend", *back_end]
            variables = {"KXA_MEM_TRACK": "1", "KXA_MEM_OUTPUTDIR": str(ground.folder)} if recorded else {}
            ground.run(command, variables)
            right = deflection(ground)
            ended = ground.run(command, variables | storm | {"KXM_INJECT_STORM": "timer"})
            ends[ended.returncode] = ends.get(ended.returncode, 0) + 1
            wrong = (judge_job(ground, ended, "none:", 1, back_end, recorded, 0, right) if ended.returncode in (0, None)
                     else "no way to end")
            if wrong:
                ground.blame(ended, f"signals, {' '.join(back_end)}{', recorded' if recorded else ''}: {wrong}")
    # Calls on pipes are the ones that do come back interrupted.
    job = f"'{ground.bin}/elasticity' /dev/stdin --quiet --no-check --output /dev/stdout"
    plain = ground.run(["sh", "-c", f"{job} < '{ground.mesh}'"], {})
    signals = f"env LD_PRELOAD={storm['LD_PRELOAD']} KXM_INJECT_STORM=timer"
    ended = ground.run(["sh", "-c", f"(sleep 0.2; cat '{ground.mesh}') | {signals} {job} | (sleep 0.5; cat)"], {})
    ends[ended.returncode] = ends.get(ended.returncode, 0) + 1
    if plain.returncode != 0 or ended.stdout != plain.stdout:
        ground.blame(ended, "signals, pipes: another result")
    told("job under a storm of signals", ends)
    ends = {}
    for variables in list(ground.stress_environments().values())[-most:]:
        ended = ground.run([ground.tests / "stress", "1", "8"], variables | storm | {"KXM_INJECT_STORM": "threads"})
        ends[ended.returncode] = ends.get(ended.returncode, 0) + 1
        if ended.returncode != 0:
            ground.blame(ended, "signals, stress")
    told("stress under a storm of signals", ends)


def arguments_of(description):
    parser = argparse.ArgumentParser(description=description, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bin")
    parser.add_argument("tests")
    parser.add_argument("mesh")
    parser.add_argument("--most", type=int, default=300)  # a job makes tens of thousands of requests
    return parser.parse_args()


def main():
    arguments = arguments_of(__doc__)
    ground = Ground(arguments.bin, arguments.tests, arguments.mesh)
    ground.folder = pathlib.Path(tempfile.mkdtemp(prefix="kxm_fault_injection_"))
    most = arguments.most
    for back_end in BACK_ENDS:
        for recorded in (False, True):
            try_job(ground, back_end, recorded, most)
    try_stress(ground, min(most, 60))
    try_recorded_stress(ground, min(most, 30) // 2)
    try_tools(ground, most > 10)
    try_storm(ground, min(most, 6))
    shutil.rmtree(ground.folder)
    for failure in FAILURES + STRESS_FAILURES + RECORD_FAILURES:
        if failure not in ground.met:
            ground.faults += 1
            print(f"FAILED: {failure} met no call")
    print(f"{ground.runs} runs, {ground.faults} failed")
    return 1 if ground.faults else 0


if __name__ == "__main__":
    sys.exit(main())
