"""Whole programs that nobody here wrote, under kxmrun's back ends, beside the C runtime and other allocators preloaded;
then recorded, beside heaptrack and massif.

bench_programs.py --kxmrun PROGRAM [--rounds N] [--programs A,B] SCRATCH

The candidates take turns, round by round. A row tells the median of seconds by the clock and of processor time, of all
processes together, and the peak resident size of the largest; ratios are to plain of the same round: the median and,
in brackets, the quartiles. Results are compared with plain's: a candidate that changes them has failed.
"""
import argparse
import os
import shutil
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, os.pardir, "tests", "programs"))
import programs  # noqa: E402

MIB = 1024 * 1024
LIBRARIES = "/usr/lib/x86_64-linux-gnu"


def allocators(kxmrun):
    """Names with what stands before the command and what is preloaded."""
    return {
        "plain": ([], None),
        "c": ([kxmrun, "-q", "--backend", "c", "--"], None),
        "heap": ([kxmrun, "-q", "--"], None),
        "heap --tiny": ([kxmrun, "-q", "--tiny", "--"], None),
        "aligned": ([kxmrun, "-q", "--backend", "aligned", "--"], None),
        "jemalloc": ([], "libjemalloc.so.2"),
        "mimalloc": ([], "libmimalloc.so.2.0"),
        "tcmalloc": ([], "libtcmalloc_minimal.so.4"),
    }


def recorders(kxmrun, massif):
    track = ["--track-dir", "tracks", "--track-name", "run.%p", "--"]
    candidates = {
        "plain": ([], None),
        "heap": ([kxmrun, "-q", "--"], None),
        "c, tracked": ([kxmrun, "-q", "--backend", "c", *track], None),
        "heap, tracked": ([kxmrun, "-q", *track], None),
        "heaptrack": (["heaptrack", "-o", "tracks/heaptrack"], None),
    }
    if massif:  # minutes, on the others
        candidates["massif"] = (["valgrind", "-q", "--tool=massif", "--massif-out-file=tracks/massif"], None)
    return candidates


def run(program, before, preload, folder, given):
    """Seconds, processor seconds, peak resident bytes, bytes left in files, results; None if it failed."""
    shutil.rmtree(folder, ignore_errors=True)
    shutil.copytree(given, folder)
    os.mkdir(os.path.join(folder, "tracks"))
    environment = {"PATH": "/usr/bin:/bin", "HOME": folder, "LC_ALL": "C", "TZ": "UTC", "OMP_NUM_THREADS": "1",
                   **program.environment}
    if preload:
        environment["LD_PRELOAD"] = os.path.join(LIBRARIES, preload)
    with open(os.path.join(folder, "out"), "wb") as out:
        start = time.perf_counter()
        child = subprocess.Popen([*before, *program.command], cwd=folder, env=environment, stdin=subprocess.DEVNULL,
                                 stdout=out, stderr=subprocess.STDOUT)
        _, status, usage = os.wait4(child.pid, 0)
        seconds = time.perf_counter() - start
    child.returncode = os.waitstatus_to_exitcode(status)
    results = []
    for name in program.results:
        try:
            with open(os.path.join(folder, name), "rb") as file:
                results.append(file.read())
        except FileNotFoundError:
            return None
    tracks = os.path.join(folder, "tracks")
    left = sum(os.path.getsize(os.path.join(tracks, name)) for name in os.listdir(tracks))
    if child.returncode != 0:
        return None
    return seconds, usage.ru_utime + usage.ru_stime, usage.ru_maxrss * 1024, left, results


def compare(program, candidates, rounds, scratch, given, once=()):
    figures = {name: [] for name in candidates}
    failed = set()
    expected = None
    for turn in range(rounds):
        for name, (before, preload) in candidates.items():
            if name in failed or (name in once and turn > 0):
                continue
            found = run(program, before, preload, os.path.join(scratch, "run"), given)
            if found is None or (expected is not None and found[4] != expected):
                failed.add(name)
                continue
            expected = expected or found[4]
            figures[name].append(found[:4])
    return figures, failed


def ratios(mine, plain, which):
    """Round by round."""
    each = [one[which] / other[which] for one, other in zip(mine, plain)]
    if len(each) < 3:
        return f"{statistics.median(each):5.2f}{'':14}"
    low, _, high = statistics.quantiles(each, n=4, method="inclusive")
    return f"{statistics.median(each):5.2f} ({low:.2f} {high:.2f})  "


def tell(figures, failed, with_files):
    print(f"{'':14} {'seconds':>8}  {'of plain':20} {'processor':>9}  {'of plain':20} {'peak MiB':>8}  of plain"
          + ("    files MiB" if with_files else ""))
    for name, mine in figures.items():
        if name in failed or not mine:
            print(f"{name:14} failed, or changed the results")
            continue
        middle = [statistics.median(column) for column in zip(*mine)]
        line = (f"{name:14} {middle[0]:8.2f}  {ratios(mine, figures['plain'], 0):20} {middle[1]:9.2f}  "
                f"{ratios(mine, figures['plain'], 1):20} {middle[2] / MIB:8.1f}  "
                f"{middle[2] / statistics.median(one[2] for one in figures['plain']):8.2f}")
        print(line + (f" {middle[3] / MIB:12.1f}" if with_files else ""))
    sys.stdout.flush()


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--kxmrun", required=True)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--programs", default="getdp,ccx,gmsh")
    parser.add_argument("scratch")
    arguments = parser.parse_args()
    kxmrun = os.path.abspath(arguments.kxmrun)
    scratch = os.path.abspath(arguments.scratch)
    chosen = {"getdp": (programs.getdp(5), "magnetostatics in 3D, edge elements, direct solver"),
              "ccx": (programs.ccx(7), "elasticity and natural frequencies, two threads"),
              "gmsh": (programs.gmsh(1.6), "a mesh of tetrahedra")}
    for name in arguments.programs.split(","):
        program, what = chosen[name]
        given = os.path.join(scratch, "given")
        shutil.rmtree(scratch, ignore_errors=True)
        os.makedirs(given)
        program.prepare(given)
        print(f"\n{name}: {what}; {arguments.rounds} rounds")
        tell(*compare(program, allocators(kxmrun), arguments.rounds, scratch, given), False)
        print(f"\n{name}, recorded" + ("; massif once" if name == "getdp" else ""))
        tell(*compare(program, recorders(kxmrun, name == "getdp"), min(arguments.rounds, 3), scratch, given, ("massif",)), True)
        shutil.rmtree(scratch)
    return 0


if __name__ == "__main__":
    sys.exit(main())
