#!/usr/bin/env python3
"""Runs the example job and the threaded stress where the system gives little: address space, mappings, stacks and a
control group's memory. Each run must end in time, with exit status 0 or with the orderly report of a refused request.

    restricted.py BIN_FOLDER TEST_FOLDER MESH [--short]

With --short a few runs of each kind, in some seconds. Where the system grants no control group, that is said. Exit
status 1: something failed, and is told with the command that repeats it.
"""

import contextlib
import errno
import os
import pathlib
import resource
import signal
import subprocess
import sys
import tempfile

from fault_injection import BACK_ENDS, Ground, judge_record, told

MIB = 1 << 20


def limited(which, value):
    return lambda: resource.setrlimit(which, (value, value))


class Restricted:
    def __init__(self, ground):
        self.ground = ground
        self.ends = {}

    def job(self, back_end, more=(), **options):
        return self.run([self.ground.bin / "elasticity", self.ground.mesh, "--quiet", "--no-check", "--backend",
                         *back_end, *more], **options)

    def run(self, command, variables=None, before=None, also_right=lambda ended: False):
        ended = self.ground.start(command, variables or {}, before)
        orderly = ended.returncode == 0 or (ended.returncode == 4 and "out of memory" in ended.stderr)
        if not orderly and not also_right(ended):
            self.ground.blame(ended, "restricted")
        self.ends[ended.returncode] = self.ends.get(ended.returncode, 0) + 1
        return ended

    def refused(self):
        return 4 in self.ends or -signal.SIGSEGV in self.ends

    def told(self, what):
        told(what, self.ends)
        self.ends = {}


def address_space(ground, short):
    """Less than it takes to load the program is for the loader or the runtimes to tell. The guarded back end
    faults where it is refused, by design. Where the job runs on the C runtime it runs on the heap, but for a little."""
    enough = {}
    loading = (address_space_to_load(ground, [ground.bin / "elasticity"], {}) or 0) // 1024
    for back_end in BACK_ENDS:
        runs = Restricted(ground)
        for kib in [loading + 512, loading + 2048] if short else range(8 * 1024, 40 * 1024, 768):
            before = limited(resource.RLIMIT_AS, kib * 1024)

            def also_right(ended, before=before, guarded=back_end == ["guarded"]):
                loaded = ground.start([ground.bin / "elasticity", "--version"], {}, before).returncode == 0
                return not loaded or (guarded and ended.returncode == -signal.SIGSEGV)
            ended = runs.job(back_end, before=before, also_right=also_right)
            if ended.returncode == 0:
                enough.setdefault(back_end[0], (kib, ended))
        if not runs.refused():
            ground.blame(ended, "with little address space nothing was refused")
        runs.told(f"address space of 8 to 40 MiB, job on {' '.join(back_end)}")
    if not short and enough["heap"][0] > enough["crt"][0] + 4096:
        ground.blame(enough["heap"][1], "the heap needs much more address space than the C runtime")


def mappings(ground, short):
    """The guarded back end faults where it is refused, by design."""
    variables = {"LD_PRELOAD": str(ground.tests / "libkxm_inject.so")}
    for back_end in BACK_ENDS:
        runs = Restricted(ground)

        def also_right(ended, guarded=back_end == ["guarded"]):
            return guarded and ended.returncode == -signal.SIGSEGV
        for left in [0] if short else [0, 1, 2, 3, 5, 8, 12, 20, 40, 100]:
            ended = runs.job(back_end, variables=variables | {"KXM_INJECT_MAPS": str(left)}, also_right=also_right)
        if not runs.refused():
            ground.blame(ended, "with no mapping left nothing was refused")
        runs.told(f"0 to 100 mappings left, job on {' '.join(back_end)}")


def stress(ground, seconds, seed, variables, stack_kib, most=resource.RLIM_INFINITY):
    """To be run: the command, its variables and its limits."""
    def before():
        resource.setrlimit(resource.RLIMIT_STACK, (stack_kib * 1024, stack_kib * 1024))
        resource.setrlimit(resource.RLIMIT_AS, (most, most))
    return [ground.tests / "stress", seconds, 8, seed], variables, before


def stacks(ground, short):
    runs = Restricted(ground)
    for variables in ground.stress_environments().values():
        runs.run(*stress(ground, 0.2 if short else 1, 1, variables, 64))
    runs.told("stacks of 64 KiB, stress")


def address_space_to_load(ground, command, variables):
    """In bytes; None, told, where no reasonable size is enough."""
    for size in range(4 * MIB, 128 * MIB, MIB // 4):
        ended = ground.start(command, variables, limited(resource.RLIMIT_AS, size))
        if ended.returncode == 2:  # the words on how to call it
            return size
    ground.blame(ended, "not loaded in 128 MiB of address space")
    return None


def threads(ground, short):
    """Under a limit of address space and with few mappings left, where memory and threads are refused again and again.
    The guarded back end faults where it is refused, by design. Elsewhere nothing is to be lost, of which the preloaded
    library keeps account, and the record is whole."""
    refused = {"LD_PRELOAD": str(ground.tests / "libkxm_inject.so"), "KXM_STRESS_REFUSED": "often",
               "MALLOC_ARENA_MAX": "1"}
    for name, variables in ground.stress_environments().items():
        loading = address_space_to_load(ground, [ground.tests / "stress", "0"], refused | variables)
        if loading is None:
            continue
        trials = [({}, loading + more * MIB) for more in ([3] if short else [2, 3, 4, 5, 6, 8, 10, 12, 16, 24, 32, 48])]
        trials += [({"KXM_INJECT_MAPS": str(left)}, resource.RLIM_INFINITY)
                   for left in ([5] if short else [0, 1, 2, 3, 4, 5, 6, 8, 10, 14, 18, 25, 40, 100])]
        runs = Restricted(ground)
        refusals = 0

        def also_right(ended, guarded=name == "guarded"):
            return guarded and ended.returncode == -signal.SIGSEGV
        for seed in range(1, 2 if short else 6):
            for more, most in trials:
                ground.empty_folder()
                ended = runs.run(*stress(ground, 0.2, seed, refused | variables | more, 256, most),
                                 also_right=also_right)
                refusals += ended.returncode != 0 or " 0 refusals" not in ended.stdout
                wrong = (judge_record(ground, ended, "none:", ground.folder / "stress")
                         if name == "recorded" and ended.returncode == 0 else None)
                if wrong:
                    ground.blame(ended, f"restricted: {wrong}")
        if refusals == 0:
            ground.blame(ended, "nothing was refused")
        runs.told(f"little address space or few mappings left, stress on {name}")


class NotGranted(Exception):
    """The system has no control of memory, or none for this process."""


class ControlGroup:
    """A group of processes that has so much memory; of either version."""

    def __init__(self, size):
        root = pathlib.Path("/sys/fs/cgroup")
        self.unified = (root / "cgroup.controllers").exists()
        if "memory" not in (root / "cgroup.controllers").read_text().split() if self.unified else (
                not (root / "memory" / "memory.limit_in_bytes").exists()):
            raise NotGranted("no memory controller")
        root = root if self.unified else root / "memory"
        self.folder = root / f"kxm_restricted_{os.getpid()}"
        for left in root.glob("kxm_restricted_*"):  # by a run that was killed, maybe with processes still in it
            if left == self.folder or not pathlib.Path("/proc", left.name.rpartition("_")[2]).exists():
                with contextlib.suppress(OSError):
                    left.rmdir()
        try:
            # Busy: a group inside a container whose processes are not in groups of their own.
            if self.unified and "memory" not in (root / "cgroup.subtree_control").read_text().split():
                (root / "cgroup.subtree_control").write_text("+memory")
            self.folder.mkdir()
        except OSError as error:
            if error.errno in (errno.EACCES, errno.EPERM, errno.EROFS, errno.EBUSY):
                raise NotGranted(error) from error
            raise
        try:
            (self.folder / ("memory.max" if self.unified else "memory.limit_in_bytes")).write_text(str(size))
            swap = self.folder / ("memory.swap.max" if self.unified else "memory.memsw.limit_in_bytes")
            if swap.exists():
                swap.write_text("0" if self.unified else str(size))
            self.try_entering()
        except BaseException:
            self.folder.rmdir()
            raise

    def try_entering(self):
        """What refuses it is not told of a child that is about to become another program."""
        with subprocess.Popen(["cat"], stdin=subprocess.PIPE) as child:
            try:
                (self.folder / "cgroup.procs").write_text(str(child.pid))
            except PermissionError as error:
                raise NotGranted(error) from error
            finally:
                child.stdin.close()

    def enter(self):
        (self.folder / "cgroup.procs").write_text("0")


def control_group(ground, short):
    """A job that the group's limit would have killed ends in its report where the library's limit is met first."""
    mesh = ground.folder / "beam.msh"  # wants 48 MiB
    subprocess.run([ground.bin / "beam_mesh", "10,1,1", "40,6,6", "2", mesh], check=True)
    command = [ground.bin / "elasticity", mesh, "--quiet", "--no-check", "--backend", "heap"]
    try:
        group = ControlGroup(32 * MIB)
    except NotGranted as error:
        print(f"control group: not tried, {error}")
        return
    name = f"control group (version {2 if group.unified else 1}) of 32 MiB"
    try:
        killed = ground.start(command, {}, group.enter)
        if killed.returncode == 0:
            print(f"{name}: not tried, it does not keep its members from having more")
            return
        if killed.returncode != -signal.SIGKILL:
            ground.blame(killed, f"{name}: neither killed nor done")
        runs = Restricted(ground)
        for limit in [30] if short else [2, 8, 16, 24, 28, 30]:
            ended = runs.run([*command, "--memory-limit", limit], before=group.enter)
            if ended.returncode != 4:
                ground.blame(ended, f"{name}: no report")
        runs.told(f"{name}, job that it kills, with limits below it")
    finally:
        group.folder.rmdir()


def reports_in_control_groups(ground, short):
    """A small program's report of a refusal ends whatever the group has: what there is to read of the program and of the
    system's libraries for its call stack takes less, or would take more."""
    runs = Restricted(ground)
    for mib in range(8, 40, 5 if short else 1):
        try:
            group = ControlGroup(mib * MIB)
        except NotGranted as error:
            print(f"reports in control groups: not tried, {error}")
            return
        try:
            ended = runs.run([ground.tests / "new_probe", "throw", 10**14], {"KXQ_DLALLOCATOR": "1"}, group.enter)
            if "bad_alloc" not in ended.stdout or "1)" not in ended.stdout:
                ground.blame(ended, f"no call stack, {mib} MiB")
        finally:
            group.folder.rmdir()
    runs.told("reports in control groups of 8 to 40 MiB")


def main():
    arguments = [argument for argument in sys.argv[1:] if argument != "--short"]
    if len(arguments) != 3 or arguments[0].startswith("-"):
        sys.exit(__doc__)
    short = "--short" in sys.argv
    ground = Ground(*arguments)
    with tempfile.TemporaryDirectory(prefix="kxm_restricted_") as folder:
        ground.folder = pathlib.Path(folder)
        for part in [address_space, mappings, stacks, threads, control_group, reports_in_control_groups]:
            part(ground, short)
    print(f"{ground.runs} runs, {ground.faults} failed")
    return 1 if ground.faults else 0


if __name__ == "__main__":
    sys.exit(main())
