"""kxmrun on small programs: the same answers as without it, on each back end, with and without recording; what it
refuses to run; how programs end, and what it says then. Usage: test_launcher.py BIN_FOLDER VICTIMS_FOLDER"""
import os
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest

BIN, VICTIMS = sys.argv.pop(1), sys.argv.pop(1)
KXMRUN, MEMTRACK = os.path.join(BIN, "kxmrun"), os.path.join(BIN, "memtrack")
BACKENDS = {"heap": [], "tiny": ["--tiny"], "c": ["--backend", "c"], "guarded": ["--backend", "guarded"],
            "aligned": ["--backend", "aligned"]}
# The user's own settings are not what is tried.
ENVIRONMENT = {name: value for name, value in os.environ.items() if not name.startswith(("KXA_", "KXQ_", "KXM"))}


def victim(name):
    return os.path.join(VICTIMS, name)


def run(command, **options):
    environment = dict(ENVIRONMENT, **options.pop("environment", {}))
    return subprocess.run(command, capture_output=True, text=True, timeout=120, env=environment, **options)


class Launcher(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = scratch.name

    def ran(self, command, status=0, **options):
        result = run(command, **options)
        self.assertEqual(result.returncode, status, f"{command}\n{result.stdout[-2000:]}{result.stderr[-2000:]}")
        return result

    def recordings(self, result):
        """The recordings that the words name, each of which memtrack must read as whole; with its report."""
        names = re.findall(r"memtrack report (\S+)$", result.stderr, re.M)
        reports = {}
        for name in names:
            report = self.ran([MEMTRACK, "report", name])
            self.assertEqual(report.stderr, "")
            self.assertNotIn("INCOMPLETE", report.stdout)
            self.assertTrue(os.path.exists(name + ".phaseStack"), name)
            reports[name] = report.stdout
        return reports

    def on_each(self, command, recorded, plain=None):
        for name, options in BACKENDS.items():
            for track in [[], ["--track-dir", os.path.join(self.folder, name)]] if recorded else [[]]:
                with self.subTest(backend=name, recorded=bool(track)):
                    result = self.ran([KXMRUN, *options, *track, "--", *command])
                    if plain is not None:
                        self.assertEqual(result.stdout, plain.stdout)
                    if track:
                        self.assertTrue(self.recordings(result))
                    else:
                        said = [line for line in result.stderr.splitlines() if "requests refused by the" not in line]
                        self.assertEqual(said, [])

    def test_answers_are_those_of_the_c_runtime(self):
        command = [victim("launcher_conformance")]
        self.on_each(command, True, self.ran(command))

    def test_threads_forks_and_libraries(self):
        command = [victim("launcher_storm"), victim("launcher_plugin.so")]
        self.on_each(command, True, self.ran(command))

    def test_signal_handlers_that_allocate(self):
        for options in [], ["--tiny"], ["--track-dir", self.folder]:
            result = self.ran([KXMRUN, *options, "--", victim("launcher_storm"), victim("launcher_plugin.so"), "alarms"])
            self.assertEqual(result.stdout, "the storm is over\n")

    def test_handlers_and_vfork_in_the_midst(self):
        handlers, recorded = victim("launcher_handlers"), ["--track-dir", self.folder]
        for options in [], ["--tiny"], recorded:
            for how in "fork", "end":
                self.assertEqual(self.ran([KXMRUN, *options, "--", handlers, how]).stdout, "handled\n")
        self.assertIn("1 request refused", self.ran([KXMRUN, "--limit", "64M", "--", handlers, "vfork"]).stderr)
        # Keys and timers have codes like those of faults, and do not come again.
        self.recordings(self.ran([KXMRUN, *recorded, "--", handlers, "alarm"], status=142))

    def test_damage_is_told_on_the_guarded_back_end(self):
        result = self.ran([KXMRUN, "--backend", "guarded", "--", victim("launcher_overwrite")])
        self.assertEqual(re.sub("0x[0-9a-f]+", "X", result.stderr),
                         "".join(f"FREE:memory overwrite detected at X {end} end\n" for end in ("back", "front", "front")))

    def test_a_limit_refuses_and_is_told(self):
        result = self.ran([KXMRUN, "--limit", "8M", "--", victim("launcher_work_arrays")])
        self.assertRegex(result.stdout, r"total +221400000\.0\nrefused +T\n")
        words = re.search(r"launcher_work.*: 1 request refused by the limit of 8388608 bytes .*largest was "
                          r"3200000000 bytes.*peak (\d+) bytes", result.stderr)
        self.assertTrue(words, result.stderr)
        self.assertTrue(3200000 < int(words[1]) < 8 << 20, result.stderr)
        # A recorded run has as much: the recorder itself holds more than that.
        again = self.ran([KXMRUN, "--limit", "8M", "--track-dir", self.folder, "--",
                          victim("launcher_work_arrays")])
        self.assertEqual(again.stdout, result.stdout)
        self.assertIn("Failed: 1 request", list(self.recordings(again).values())[0])
        self.assertIn("refused by the limit", again.stderr)

    def test_every_way_to_be_replaced_ends_a_recording(self):
        for end in "q_":
            result = self.ran([KXMRUN, "--track-dir", self.folder, "--", victim("launcher_replaced"), "vpPefalLE" + end,
                               "x"], status=3)
            reports = self.recordings(result)
            self.assertEqual(len(reports), 10, result.stderr)
            for report in reports.values():
                self.assertIn("Not released: ", report)

    def test_each_process_has_a_recording_of_its_own(self):
        work = victim("launcher_work_arrays")
        result = self.ran([KXMRUN, "--track-dir", self.folder, "--track-name", "run%%.%r.%p", "--", "/bin/sh", "-c",
                           f"{work} & {work} & wait; cd /; exec {work}"], environment={"PMI_RANK": "5"})
        reports = self.recordings(result)
        self.assertEqual(len(reports), 6, result.stderr) # the shell, its two children, and what they became
        processes = {re.fullmatch(self.folder + r"/run%\.5\.(\d+)(\.2)?", name)[1] for name in reports}
        self.assertEqual(len(processes), 3)
        plain = self.ran([KXMRUN, "--track-dir", self.folder, "--track-name", "one", "--", "/bin/sh", "-c",
                          f"{work}; exit 3"], status=3)
        self.assertIn(self.folder + "/one", self.recordings(plain))

    def test_a_recording_outlives_its_process(self):
        for how, status in (("kill -TERM $$", 143), ("kill -SEGV $$", 139), ("kill -ABRT $$", 134)):
            result = self.ran([KXMRUN, "--track-dir", self.folder, "--", "/bin/sh", "-c", how], status=status)
            self.assertEqual(len(self.recordings(result)), 1, result.stderr)
        killed = self.ran([KXMRUN, "--track-dir", self.folder, "--", "/bin/sh", "-c", "kill -KILL $$"], status=137)
        self.assertIn("ended by a signal", killed.stderr)
        # And the process its recording.
        folder = os.path.join(self.folder, "gone")
        result = self.ran([KXMRUN, "--track-dir", folder, "--", "/bin/sh", "-c",
                           f"rm -r {folder}; i=0; while [ $i -lt 60000 ]; do i=$((i+1)); x=$x; done; echo through"])
        self.assertEqual(result.stdout, "through\n")
        self.assertIn("could not be written", result.stderr)

    def test_the_librarys_own_clients(self):
        """One copy of the library, and forks while its own entries are in use."""
        backend = self.ran([KXMRUN, "--", os.path.join(BIN, "kxmdiag"), "backend"])
        self.assertRegex(backend.stdout, "(?i)heap")
        for client in ([], ["pool"]):
            for variables in {}, {"KXQ_DLALLOCATOR": "1"}, {"KXQ_DLALLOCATOR": "1", "KXA_MEM_TRACK": "1"}:
                with tempfile.TemporaryDirectory() as folder:
                    base = os.path.join(folder, "run")
                    self.ran([victim("launcher_fork_client"), base, *client], environment=variables)
                    if "KXA_MEM_TRACK" in variables:
                        names = {n.removesuffix(".phaseStack") for n in os.listdir(folder) if n.endswith("Stack")}
                        self.assertEqual(len(names), 21) # twenty children, each under its own number
                        for name in names:
                            self.assertNotIn("INCOMPLETE", self.ran([MEMTRACK, "report",
                                                                     os.path.join(folder, name)]).stdout)
        for name in "heap", "tiny", "c", "guarded": # mem_Realloc of the aligned one reads past the block's end
            with self.subTest(backend=name):
                self.ran([KXMRUN, *BACKENDS[name], "--", victim("launcher_fork_client")])

    def test_what_cannot_be_run(self):
        def made(name, content, mode=0o755):
            path = os.path.join(self.folder, name)
            with open(path, "wb") as file:
                file.write(content)
            os.chmod(path, mode)
            return path

        with open("/bin/true", "rb") as file:
            true = file.read()
        static = victim("launcher_static")
        trace = os.path.join(self.folder, "trace")
        script = f"#!/bin/sh\ntouch {trace}\n".encode()
        for command, words in (
                (static, "statically linked"), (made("suid", true, 0o4755), "set-user-id"),
                (made("sgid", true, 0o2755), "set-group-id"), (made("bits", true[:4] + b"\1" + true[5:]), "32-bit"),
                (made("s1", f"#!{static} -x\n".encode()), "statically linked"),
                (made("s2", b"#! /no/such/interpreter\n"), "interpreter"), (made("data", b"\0\1\2"), "no program"),
                (made("plain", script, 0o644), "denied"), (self.folder, "directory"), ("no-such-program", "no such"),
                (made("other", true.replace(b"ld-linux-x86-64.so.2", b"ld-nobody-x86-64.so2")), "loader")):
            result = self.ran([KXMRUN, "--", command], status=2)
            self.assertIn(words, result.stderr)
        for wrong in ([], ["--limit", "5X", "--", "true"], ["--backend", "c", "--limit", "1G", "--", "true"], ["true"],
                      ["--track-name", "a%q", "--", "true"], ["--track-name", "", "--", "true"],
                      ["--no-such", "--", "true"],
                      *([option, "--", "true"] for option in (
                          "--track-name=a/b", "--track-name=%", "--limit=", "--limit=M", "--limit=64Mi", "--limit=1023K",
                          "--limit=8388608T", "--limit=99999999999999999999", "--granularity=32K", "--granularity=65537"))):
            self.assertTrue(self.ran([KXMRUN, *wrong], status=2).stderr)
        with open("/dev/full", "w") as full:
            help_lost = subprocess.run([KXMRUN, "--help"], stdout=full, stderr=subprocess.PIPE, text=True)
        self.assertEqual((help_lost.returncode, help_lost.stderr), (2, "kxmrun: cannot write the output\n"))
        for size in "8388608", "8192K", "8MiB":
            self.assertIn("by the limit of 8388608 bytes", self.ran(
                [KXMRUN, "--limit", size, "--", victim("launcher_work_arrays")]).stderr)
        self.ran([KXMRUN, "--track-dir", "/proc/nowhere", "--", "/bin/sh", "-c", f"touch {trace}"], status=2)
        self.assertFalse(os.path.exists(trace))
        self.ran([KXMRUN, "--", made("good", script)])
        self.assertTrue(os.path.exists(trace))

    def test_the_program_is_as_without_the_launcher(self):
        result = self.ran([KXMRUN, "--", "/bin/sh", "-c", "cat; echo x >&2; exit 7", "--", "-h"], status=7,
                          input="through\n")
        self.assertEqual((result.stdout, result.stderr), ("through\n", "x\n"))
        fds = "ls -l /proc/self/fd | wc -l; echo $(ps -o pgid= $$)"
        plain, launched = self.ran(["/bin/sh", "-c", fds]), self.ran([KXMRUN, "--", "/bin/sh", "-c", fds])
        self.assertEqual(plain.stdout, launched.stdout)
        for number, status in ((signal.SIGTERM, 143), (signal.SIGUSR1, 138)):
            process = subprocess.Popen([KXMRUN, "--", "/bin/sleep", "60"], env=ENVIRONMENT)
            time.sleep(0.3)
            process.send_signal(number)
            self.assertEqual(process.wait(10), status)
        # Stopped and continued as one.
        process = subprocess.Popen([KXMRUN, "--", "/bin/sh", "-c", "kill -STOP $$; exit 5"], env=ENVIRONMENT)
        self.assertTrue(os.WIFSTOPPED(os.waitpid(process.pid, os.WUNTRACED)[1]))
        process.send_signal(signal.SIGCONT)
        self.assertEqual(process.wait(10), 5)
        self.assertIn("malloc of its own", self.ran([KXMRUN, "--", victim("launcher_own_malloc")]).stderr)
        file = os.path.join(self.folder, "summary")
        self.ran([KXMRUN, f"--summary={file}", "-q", "--", "/bin/ls"])
        with open(file) as summary:
            self.assertRegex(summary.read(), r"(?s)back end +heap.*exit status +0.* ls +[1-9]\d+")
        nowhere = self.ran([KXMRUN, "--summary=no/such/folder", "--", "/bin/ls"]).stderr
        self.assertRegex(nowhere, r"(?s)^kxmrun: the summary cannot be written to no/such/folder: No such .*summary: ")


if __name__ == "__main__":
    unittest.main(verbosity=1)
