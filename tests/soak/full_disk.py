#!/usr/bin/env python3
"""Runs the programs on a disk that fills up: a small file system in memory, with room for every number of pages from
none up to what the run needs (at most N of these numbers, spread).

    full_disk.py BIN_FOLDER TEST_FOLDER MESH [--most N]

- the example job, and threads under stress, recorded: end with their result and a whole record, or with the fatal
  error of the recorder and the files before the last whole; a missing table of phases is no error, by design
- the example job's own outputs, memtrack's reports, pages and exports over older files: whole, or the old file as it
  was, with the words and the exit status for it
- kxmrun recording: the program's own output and status, and a word where the recording is not whole

Needs root, or a user who may have a mount namespace; without, it says so. Exit status 1: something failed, and is
told with the command that repeats it.
"""

import os
import pathlib
import subprocess
import sys
import tempfile

from fault_injection import Ground, arguments_of, deflection, judge_record, spread, told

PAGE = 4096
OLD = "an older file\n"
EXPORTS = ["massif", "dhat", "heaptrack", "pprof", "perfetto", "speedscope", "collapsed", "csv", "json"]


def mount(folder, pages):
    """Anew, with room for so many pages. A size of 0 would be no limit, so one page is taken away."""
    subprocess.run(["umount", folder], stderr=subprocess.DEVNULL, check=False)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={(pages + 1) * PAGE}", "none", folder], check=True)
    (folder / "taken").write_bytes(b"x")


class FullDisk:
    def __init__(self, ground, disk, most):
        self.ground = ground
        self.disk = disk
        self.most = most

    def files(self):
        return {file.name: file.read_bytes() for file in self.disk.iterdir() if file.name != "taken"}

    def try_each(self, name, command, judge, variables=None, old=()):
        """judge(ended, plain, files): None, or what was wrong. Files named in `old` are there before the run."""
        ends = {}
        figures = self.ground.folder / "figures.json"

        def run(pages):
            mount(self.disk, pages)
            figures.unlink(missing_ok=True)
            for file in old:
                (self.disk / file).write_text(OLD)
            return self.ground.start(command, variables or {})

        plain = run(100000)
        self.whole = self.files()
        self.right = deflection(self.ground) if figures.exists() else None
        if plain.returncode != 0:
            self.ground.blame(plain, f"{name}: with room enough")
            return
        needed = sum(-(-len(content) // PAGE) for content in self.whole.values()) + len(old)
        # Up to the old files there is no disk with them on it.
        for pages in [len(old) + number - 1 for number in spread(needed, self.most)]:
            ended = run(pages)
            wrong = "did not end" if ended.returncode is None else judge(ended, plain, self.files())
            if wrong:
                self.ground.blame(ended, f"{name}, {pages} pages: {wrong}")
            ends[ended.returncode] = ends.get(ended.returncode, 0) + 1
        told(f"{name}, up to {needed} pages", ends)

    def over_old_files(self, name, command, old, status, words):
        """A program that replaces files: new and whole, or old and told."""
        def judge(ended, plain, files):
            if sorted(files) != sorted(old):
                return f"left {sorted(files)}"
            replaced = [file for file in old if files[file].decode(errors="replace") != OLD]
            if ended.returncode == 0 and len(replaced) < len(old):
                return "status 0, and an old file"
            if any(len(files[file]) != len(self.whole[file]) and file != "figures.json" for file in replaced):
                return "a part of a new file in the old one's place"
            if ended.returncode not in (0, status):
                return "another exit status"
            return None if ended.returncode == 0 or words in ended.stderr else f"no word of '{words}'"
        self.try_each(name, command, judge, old=old)

    def recorded_job(self, back_end):
        figures = self.ground.folder / "figures.json"
        command = [self.ground.bin / "elasticity", self.ground.mesh, "--quiet", "--no-check", "--json", figures,
                   "--backend", back_end]

        def judge(ended, plain, files):
            if ended.returncode == 0 and deflection(self.ground) != self.right:
                return "another result"
            return judge_record(self.ground, ended, "write:refuse", self.disk / "elasticity")
        self.try_each(f"recorded job on {back_end}", command, judge,
                      {"KXA_MEM_TRACK": "1", "KXA_MEM_OUTPUTDIR": str(self.disk)})

    def recorded_stress(self):
        """Its threads wait for the one that writes. No two runs leave as much."""
        def judge(ended, plain, files):
            return judge_record(self.ground, ended, "write:refuse", self.disk / "stress")
        self.try_each("recorded stress", [self.ground.tests / "stress", "1", "6"], judge,
                      {"KXQ_DLALLOCATOR": "1", "KXM_STRESS_REFUSED": "1", "KXA_MEM_TRACK": "1",
                       "KXA_MEM_OUTPUTDIR": str(self.disk)})

    def launched(self):
        def judge(ended, plain, files):
            if (ended.returncode, ended.stdout) != (0, plain.stdout):
                return "another result of the program"
            if self.whole.keys() == files.keys() and all(len(files[name]) == len(self.whole[name]) for name in files):
                return None
            return None if "could not be written" in ended.stderr else "no word of a recording that is not whole"
        self.try_each("sort under kxmrun", [self.ground.bin / "kxmrun", "--track-dir", self.disk, "--track-name", "s",
                                            "--", "sort", "--parallel=1", self.ground.mesh], judge)


def main():
    arguments = arguments_of(__doc__)
    if os.geteuid() != 0:
        if subprocess.run(["unshare", "-rm", "true"], stderr=subprocess.DEVNULL, check=False).returncode != 0:
            print("full disk: not tried, no file system may be mounted")
            return 0
        os.execvp("unshare", ["unshare", "-rm", sys.executable, "-B", *sys.argv])
    ground = Ground(arguments.bin, arguments.tests, arguments.mesh)
    with tempfile.TemporaryDirectory(prefix="kxm_full_disk_") as folder:
        ground.folder = pathlib.Path(folder)
        disk = ground.folder / "disk"
        disk.mkdir()
        trial = FullDisk(ground, disk, arguments.most)
        try:
            for back_end in ["crt", "heap"]:
                trial.recorded_job(back_end)
            trial.recorded_stress()
            trial.launched()
            trial.over_old_files("the job's outputs",
                                 [ground.bin / "elasticity", ground.mesh, "--quiet", "--no-check", "--output",
                                  disk / "result.vtu", "--json", disk / "figures.json"],
                                 ["figures.json", "result.vtu"], 2, "No space left on device")
            subprocess.run([ground.bin / "kxmrun", "-q", "--track-dir", ground.folder, "--track-name", "read", "--",
                            "sort", "--parallel=1", ground.mesh], stdout=subprocess.DEVNULL, check=True)
            for command in [["report"], ["report", "--json"], ["html"]] + [["export", "--format", f] for f in EXPORTS]:
                trial.over_old_files("memtrack " + " ".join(command),
                                     [ground.bin / "memtrack", *command, "-f", "-o", disk / "out",
                                      ground.folder / "read"], ["out"], 1, "cannot be written")
        finally:
            subprocess.run(["umount", disk], stderr=subprocess.DEVNULL, check=False)
    print(f"{ground.runs} runs, {ground.faults} failed")
    return 1 if ground.faults else 0


if __name__ == "__main__":
    sys.exit(main())
