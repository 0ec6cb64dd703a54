#!/usr/bin/env python3
"""Runs the example job and the threaded stress where the system gives little: address space, mappings, stacks and a
control group's memory. Each run must end in time, with exit status 0 or with the orderly report of a refused request.

    restricted.py BIN_FOLDER TEST_FOLDER MESH

What a part cannot be tried for, a control group that may not be made, is said. Exit status 1: something failed, and is
told with the command that repeats it.
"""

import pathlib
import resource
import signal
import sys
import tempfile

from fault_injection import BACK_ENDS, Ground, told

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

    def told(self, what):
        told(what, self.ends)
        self.ends = {}


def address_space(ground):
    """Less than it takes to load the program is for the loader or the runtimes to tell. The guarded back end
    faults where it is refused, by design. Where the job runs on the C runtime it runs on the heap, but for a little."""
    enough = {}
    for back_end in BACK_ENDS:
        runs = Restricted(ground)
        for kib in range(8 * 1024, 40 * 1024, 768):
            before = limited(resource.RLIMIT_AS, kib * 1024)

            def also_right(ended, before=before, guarded=back_end == ["guarded"]):
                loaded = ground.start([ground.bin / "elasticity", "--version"], {}, before).returncode == 0
                return not loaded or (guarded and ended.returncode == -signal.SIGSEGV)
            ended = runs.job(back_end, before=before, also_right=also_right)
            if ended.returncode == 0:
                enough.setdefault(back_end[0], (kib, ended))
        runs.told(f"address space of 8 to 40 MiB, job on {' '.join(back_end)}")
    if enough["heap"][0] > enough["crt"][0] + 4096:
        ground.blame(enough["heap"][1], "the heap needs much more address space than the C runtime")


def mappings(ground):
    variables = {"LD_PRELOAD": str(ground.tests / "libkxm_inject.so")}
    for back_end in BACK_ENDS:
        runs = Restricted(ground)
        for left in [0, 1, 2, 3, 5, 8, 12, 20, 40, 100]:
            runs.job(back_end, variables=variables | {"KXM_INJECT_MAPS": str(left)})
        runs.told(f"0 to 100 mappings left, job on {' '.join(back_end)}")


def stacks(ground):
    runs = Restricted(ground)
    for variables in [{}, {"KXA_DEADBEEF": "1"}, {"KXQ_USE_ALIGNED_MEMORY": "1"}, {"KXQ_DLALLOCATOR": "1"},
                      {"KXQ_DLALLOCATOR": "1", "KXM_STRESS_TINY": "1"},
                      {"KXQ_DLALLOCATOR": "1", "KXA_MEM_TRACK": "1", "KXA_MEM_OUTPUTDIR": str(ground.folder)}]:
        runs.run([ground.tests / "stress", "1", "8"], variables, limited(resource.RLIMIT_STACK, 64 * 1024))
    runs.told("stacks of 64 KiB, stress")


def control_group(ground):
    """A limit of the library below the group's is met first, so that the job reports and is not killed."""
    root = pathlib.Path("/sys/fs/cgroup")
    unified = (root / "cgroup.controllers").exists()
    group = root / ("" if unified else "memory") / "kxm_restricted"
    try:
        if unified: # where its children may have a limit of memory
            (root / "cgroup.subtree_control").write_text("+memory")
        group.mkdir()
    except OSError as error:
        print(f"control group (version {2 if unified else 1}): not tried, {error}")
        return
    try:
        (group / ("memory.max" if unified else "memory.limit_in_bytes")).write_text(str(60 * MIB))
        runs = Restricted(ground)
        for limit in ["2", "8", "40"]:
            runs.job(["heap"], ["--memory-limit", limit],
                     before=lambda: (group / "cgroup.procs").write_text("0"))
        runs.told(f"control group (version {2 if unified else 1}) of 60 MiB, job with limits of 2, 8 and 40 MiB")
    except OSError as error:
        print(f"control group (version {2 if unified else 1}): not tried, {error}")
    finally:
        group.rmdir()


def main():
    if len(sys.argv) != 4 or sys.argv[1].startswith("-"):
        sys.exit(__doc__)
    ground = Ground(*sys.argv[1:])
    with tempfile.TemporaryDirectory(prefix="kxm_restricted_") as folder:
        ground.folder = pathlib.Path(folder)
        address_space(ground)
        mappings(ground)
        stacks(ground)
        control_group(ground)
    return 1 if ground.faults else 0


if __name__ == "__main__":
    sys.exit(main())
