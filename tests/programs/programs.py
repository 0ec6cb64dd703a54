"""The programs: what each is given to do, what of that must be the same however its memory is served, and what it
does of its own accord when memory is refused."""
import os
import re
import shutil
import subprocess

MODELS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "models")
PYTHON = "/usr/bin/python3"  # Debian's, which has numpy


class Program:
    """name; models: files given to it; command; results: files that must be equal byte for byte (with "out" and
    "err", what it printed); limits: limits of the heap that refuse, in MiB; ends: how it ends then of its own accord,
    by exit status, with its words (a regular expression on what it printed), if not with the right results; events: a
    tracked run records at least so many; processes: at least so many take part; prepare: makes further files in the
    folder given; check: raises if the results are wrong by themselves; counted: its requests are counted by memcheck as
    well."""

    def __init__(self, name, models, command, results, limits, ends, events, processes=1, environment=None, stdin=None,
                 prepare=None, check=None, counted=False):
        self.name = name
        self.models = models
        self.command = command
        self.results = results
        self.limits = limits
        self.ends = ends
        self.events = events
        self.processes = processes
        self.environment = environment or {}
        self.stdin = stdin
        self._prepare = prepare
        self.counted = counted
        self.check = check or (lambda folder: None)

    def prepare(self, folder):
        for model in self.models:
            shutil.copy(os.path.join(MODELS, model), folder)
        if self._prepare:
            self._prepare(folder)


def quietly(*command, folder):
    subprocess.run(command, cwd=folder, check=True, stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL, timeout=120)


def inductor_mesh(size):
    return lambda folder: quietly("gmsh", "-3", "-setnumber", "size", str(size), "inductor.geo", "-format", "msh22",
                                  "-o", "inductor.msh", folder=folder)


def bracket_mesh(size):
    """CalculiX takes the triangles that gmsh writes for groups of nodes as elements of their own: they go."""

    def prepare(folder):
        quietly("gmsh", "-3", "-order", "2", "-setnumber", "size", str(size), "bracket.geo", "-format", "inp", "-o",
                "all.inp", folder=folder)
        wanted = True
        with open(os.path.join(folder, "all.inp")) as whole, open(os.path.join(folder, "mesh.inp"), "w") as mesh:
            for line in whole:
                if line.startswith("*"):
                    wanted = not line.startswith("*ELEMENT, type=CPS")
                if wanted:
                    mesh.write(line)
        os.remove(os.path.join(folder, "all.inp"))

    return prepare


def flux_in_the_gap(folder):
    """By Ampere's law 400 ampere turns over a gap of 4 mm make 0.126 tesla, less what the iron and the field
    beside the gap take."""
    with open(os.path.join(folder, "gap.txt")) as table:
        middle = [float(line.split()[-1]) for line in table if abs(float(line.split()[2]) - 60) < 1]
    assert middle and all(0.10 < -value < 0.126 for value in middle), f"flux density in the gap: {middle}"


def first_frequency(folder):
    """A steel bracket of a decimetre rings at some kilohertz."""
    with open(os.path.join(folder, "bracket.dat")) as data:
        found = re.search(r"E I G E N V A L U E.*?\n\s+1\s+\S+\s+\S+\s+(\S+)", data.read(), re.S)
    assert found and 1e3 < float(found[1]) < 1e4, f"first natural frequency: {found and found[1]}"


def getdp(size):
    return Program("getdp", ["inductor.geo", "inductor.pro"],
                   ["getdp", "inductor.pro", "-msh", "inductor.msh", "-solve", "Solve", "-pos", "Tables"],
                   ["energy.txt", "inductance.txt", "gap.txt", "core.pos"],
                   [12],  # above, it goes on with what its solver could not finish: NaN, and status 0
                   {1: "Out of memory|PETSC ERROR", 255: "malloc failed"},  # its own, PETSc's, an ordering's of MUMPS
                   100000,
                   # Without the daemon of Open MPI, which outlives the program by a moment.
                   environment={"OMPI_MCA_ess_singleton_isolated": "1"}, prepare=inductor_mesh(size), check=flux_in_the_gap)


def ccx(size):
    return Program("ccx", ["bracket.geo", "bracket.inp"], ["ccx", "bracket"], ["bracket.dat"],
                   [50],
                   {16: r"\*ERROR in u_[a-z]*alloc: error allocating memory"}, 500000,
                   environment={"OMP_NUM_THREADS": "2"}, prepare=bracket_mesh(size), check=first_frequency)


def gmsh(size):
    return Program("gmsh", ["bracket.geo"], ["gmsh", "-3", "-setnumber", "size", str(size), "bracket.geo", "-o",
                                             "bracket.msh"],
                   ["bracket.msh"], [16, 32], {1: "Error +: Out of memory", 134: "std::bad_alloc"}, 1000000)


PROGRAMS = [
    gmsh(4),
    getdp(9),
    ccx(12),
    Program("octave", ["laplace.m"], ["octave-cli", "-q", "--norc", "laplace.m"], ["out", "err"],
            [12, 24],  # with 12 a factorisation of its libraries writes to null
            {1: "error: out of memory", 139: "fatal: caught signal Segmentation fault"}, 1000000),
    Program("scipy", ["conduction.py"], [PYTHON, "conduction.py"], ["out", "err"],
            [20, 40], {1: "MemoryError|RuntimeError: SUPERLU_MALLOC fails"}, 20000),
    Program("g++", ["templates.cpp"], ["g++", "-std=c++20", "-O1", "-c", "templates.cpp"],
            ["out", "err", "templates.o"], [8], {1: "cc1plus: out of memory allocating"}, 1000000, processes=3),
    Program("sqlite3", ["queries.sql"], ["sqlite3", "mesh.db"], ["out", "err", "mesh.db"],
            [2, 8], {1: "Runtime error near .*: out of memory"}, 1000000,
            stdin="queries.sql", counted=True),
    Program("git", ["history.sh"], ["sh", "history.sh"], ["out", "err"],
            [8], {128: "fatal: Out of memory, malloc failed"}, 20000, processes=100),
    Program("make", ["many.mk"], ["make", "-s", "-j3", "-f", "many.mk"], ["out", "err", "program"],
            [1], {2: "cc1: out of memory allocating"}, 500000, processes=100),
    Program("python", ["pool.py"], [PYTHON, "pool.py"], ["out", "err"], [24], {1: "MemoryError"}, 1000000,
            processes=17, environment={"PYTHONMALLOC": "malloc"}),
]
