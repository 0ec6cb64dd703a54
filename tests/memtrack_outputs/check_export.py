"""memtrack export: each format is opened by what it is for, and the figures found there must be those of the run.

check_export.py FORMAT SCRATCH MEMTRACK...     ends with 77 where the consumer is not installed
"""
import csv
import gzip
import io
import json
import os
import re
import shutil
import subprocess
import sys

from recording import Event, Held, RELEASE, mixed, write

HERE = os.path.dirname(os.path.abspath(__file__))
FORMAT, SCRATCH, MEMTRACK = sys.argv[1], sys.argv[2], sys.argv[3:]
# Names that one format or another takes amiss.
PATHS = [b"ROOT", b"ROOT->as;semble #1, \"K\" {}", b"ROOT->solve", b"ROOT->solve->inner\n\x01\t\x7floop 7",
         b"ROOT->solve->\xff\xfegeschl\xc3\xbcsselt", b"ROOT->solve->=1+1->solve", b"ROOT->as;semble #1, \"K\" {}->hardly used"]


def skip(why):
    print("SKIPPED:", why)
    sys.exit(77)


def need(program):
    return shutil.which(program) or skip(f"{program} is not installed")


def run(*command, status=0, **options):
    result = subprocess.run(command, capture_output=True, timeout=300, **options)
    assert result.returncode == status, (command, result.returncode, result.stdout, result.stderr)
    return result.stdout.decode("utf-8", "replace"), result.stderr.decode("utf-8", "replace")


def same(found, expected, what):
    assert found == expected, f"{what}: found {found}, expected {expected}"


def export(*bases, options=()):
    """The file's bytes, and its name."""
    name = "out." + FORMAT
    if os.path.exists(name):
        os.remove(name)
    out, err = run(*MEMTRACK, "export", "--format", FORMAT, "-o", name, *options, *bases)
    assert out == "" and err.replace("\r", "") == f"Wrote {name}\n", (out, err)
    with open(name, "rb") as file:
        return file.read(), name


def names(path):
    return path.decode("utf-8", "replace").split("->")


def line_name(name, reserved="", instead="_"):
    text = "".join(instead if c in reserved else " " if ord(c) < 0x20 or c == "\x7f" else c for c in name)
    return text.replace("\ufffd", "?")


def stacks(held, amount, convert=lambda name: name):
    """Bytes by phase path, of phases that have any."""
    return {tuple(convert(name) for name in names(path)): getattr(share, amount)[0]
            for path, share in zip(PATHS, held.shares) if getattr(share, amount)[0]}


def below(by_stack, *beginning):
    return sum(n for stack, n in by_stack.items() if stack[:len(beginning)] == beginning)


def number(text):
    return int(text.replace(",", ""))


def massif(held):
    need("ms_print")
    data, name = export("run")
    out, err = run("ms_print", name)
    assert err == "", err
    rows = {int(m[1]): (number(m[2]), number(m[3]))
            for m in re.finditer(r"^ *(\d+) +([\d,]+) +([\d,]+) +[\d,]+ +0 +0$", out, re.M)}
    assert 100 < len(rows) <= 502, len(rows)
    peak = int(re.search(r"(\d+) \(peak\)", out)[1])
    same(rows[peak], (held.peak_number, held.peak[0]), "row of the peak")
    same(max(total for _, total in rows.values()), held.peak[0], "highest row")
    same(rows[len(rows) - 1], (held.events - 1, held.now[0]), "last row")
    trees = re.findall(r"^\d+\.\d\d% .*?(?=^-{20}|\Z)", out, re.M | re.S)  # of the peak and of the end
    same(len(trees), 2, "trees")
    for tree, amount in zip(trees, ("at_peak", "held")):
        expected = stacks(held, amount, lambda n: line_name(n, "#"))
        for path in {stack[:depth] for stack in expected for depth in range(1, len(stack) + 1)}:
            if below(expected, *path) * 50 > below(expected):  # small ones are put together
                assert f"({below(expected, *path):,}B) {path[-1]}\n" in tree, (path, tree)
    same(data.count(b" n0: 1 in 1 place, all below massif's threshold (1.00%)\n"), 2, "small ones")
    assert all(len(line) < 4096 for line in data.splitlines())


def dhat(held):
    node = need("node")
    viewer = "/usr/libexec/valgrind/dh_view.js"
    if not os.path.exists(viewer):
        skip("valgrind, which has dh_view.js, is not installed")
    data, name = export("run")
    out, err = run(node, os.path.join(HERE, "open_in_dh_view.js"), viewer, name)
    allocated = [sum(share.allocated[i] for share in held.shares) for i in (0, 1)]
    for label, amount in (("Total", allocated), ("At t-gmax", held.peak), ("At t-end", held.now)):
        found = re.search(label + r": +([\d,]+) bytes .* in ([\d,]+) blocks", out)
        assert found, (label, out)
        same([number(found[1]), number(found[2])], amount, label)
    assert f"t-gmax: {held.peak_number:,} transactions" in out, out
    points = json.loads(data)
    for path, share in zip(PATHS, held.shares):
        frames = names(path)[::-1]
        found = [p for p in points["pps"] if [points["ftbl"][i] for i in p["fs"]] == frames]
        same([(p["mb"], p["mbk"], p["tl"], p["gb"], p["eb"]) for p in found],
             [(*share.high, share.lifetimes, share.at_peak[0], share.held[0])] if share.allocated[1] else [],
             path)


def heaptrack(held):
    need("heaptrack_print")
    data, name = export("run")
    for cost, amount, field in (("peak", "at_peak", 0), ("leaked", "held", 0), ("allocations", "allocated", 1)):
        out, err = run("heaptrack_print", "-f", name, "-F", "flames", "--flamegraph-cost-type", cost,
                       "--disable-builtin-suppressions")
        found = {}
        with open("flames", encoding="utf-8") as file:
            for line in file:
                stack, cost_text = line.rstrip("\n").rsplit(" ", 1)
                if int(cost_text):
                    found[tuple(stack.rstrip(";").split(";"))] = int(cost_text)
        expected = {}
        for path, share in zip(PATHS, held.shares):
            if getattr(share, amount)[field]:
                text = ";".join(line_name(n) for n in names(path))
                expected[tuple(text.split(";"))] = getattr(share, amount)[field]
        same(found, expected, cost)
    assert f"calls to allocation functions: {held.requests}" in out, out
    assert f"total runtime: {(held.events - 1) / 1000:.2f}s" in out, out


def text_message(text):
    """What protoc prints, as lists of (field, value)."""
    stack = [[]]
    for line in text.splitlines():
        line = line.strip()
        if line.endswith("{"):
            stack[-1].append((line[:-2], []))
            stack.append(stack[-1][-1][1])
        elif line == "}":
            stack.pop()
        else:
            field, value = line.split(": ", 1)
            stack[-1].append((field, value if value.startswith('"') else int(value)))
    return stack[0]


def pprof(held):
    need("protoc")
    data, name = export("run")
    raw = gzip.decompress(data)  # checks the sum
    result = subprocess.run(["protoc", "--decode=perftools.profiles.Profile", "-I", HERE, "profile.proto"],
                            input=raw, capture_output=True)
    assert result.returncode == 0, result.stderr
    profile = text_message(result.stdout.decode())
    fields = lambda message, wanted: [value for field, value in message if field == wanted]
    strings = [re.sub(rb"\\(\d{3})", lambda m: bytes([int(m[1], 8)]), text[1:-1].encode())
               .replace(b'\\"', b'"').decode() for text in fields(profile, "string_table")]
    same(strings[0], "", "first string")
    types = [strings[fields(t, "type")[0]] for t in fields(profile, "sample_type")]
    functions = {fields(f, "id")[0]: strings[fields(f, "name")[0]] for f in fields(profile, "function")}
    lines = {fields(l, "id")[0]: functions[fields(fields(l, "line")[0], "function_id")[0]]
             for l in fields(profile, "location")}
    sums = {kind: {} for kind in types}
    for sample in fields(profile, "sample"):
        stack = tuple(lines[i] for i in fields(sample, "location_id")[::-1])
        same(strings[fields(fields(sample, "label")[0], "key")[0]], "thread", "label")
        for kind, value in zip(types, fields(sample, "value")):
            if value:
                sums[kind][stack] = sums[kind].get(stack, 0) + value
    for kind, amount in (("alloc_space", "allocated"), ("inuse_space", "held"), ("peak_space", "at_peak")):
        same(sums[kind], stacks(held, amount, line_name), kind)
    same(sum(sums["alloc_objects"].values()), held.requests, "alloc_objects")


def validate(data, schema):
    try:
        import jsonschema
    except ImportError:
        skip("python3-jsonschema is not installed")
    content = json.loads(data)  # fails on what is not UTF-8
    with open(os.path.join(HERE, schema), encoding="utf-8") as file:
        jsonschema.validate(content, json.load(file))
    return content


def perfetto(held):
    trace = validate(export("run", "small")[0], "trace.schema.json")["traceEvents"]
    for pid, expected in ((1, held), (2, Held(SMALL, len(PATHS)))):
        counts = [e["args"]["bytes"] for e in trace if e["ph"] == "C" and e["pid"] == pid and
                  "bytes" in e["args"]]
        assert len(counts) <= 501, len(counts)
        same((max(counts), counts[-1]), (expected.peak[0], expected.now[0]), "counter")
        mark = [e for e in trace if e["ph"] == "i" and e["pid"] == pid]
        same([(e["ts"], e["args"]["bytes"]) for e in mark], [(expected.peak_number, expected.peak[0])], "mark")
    for track in {(e["pid"], e["tid"]) for e in trace if e["ph"] == "X"}:
        open_until = []
        for e in sorted((e for e in trace if e["ph"] == "X" and (e["pid"], e["tid"]) == track),
                        key=lambda e: (e["ts"], -e["dur"])):
            while open_until and open_until[-1] <= e["ts"]:
                open_until.pop()
            assert not open_until or e["ts"] + e["dur"] <= open_until[-1], ("not nested", e)
            open_until.append(e["ts"] + e["dur"])
    # More slices than a viewer takes: each thread's short ones go.
    write("restless", [Event(0, 4096 * (i + 1), 1, phase=1 + i % 2) for i in range(45000)], PATHS)
    content = json.loads(export("restless")[0])
    left = [e["name"] for e in content["traceEvents"] if e["ph"] == "X"]
    same((left, content["otherData"]["phases left out"], content["otherData"]["shorter than transactions"]),
         (["ROOT"], 45000, 2), "left out")
    found = {e["name"] for e in trace if e["ph"] == "X"}
    assert {name for path in PATHS[:6] for name in names(path)} <= found, found


def speedscope(held):
    content = validate(export("run", "small")[0], "speedscope.schema.json")
    frames = [frame["name"] for frame in content["shared"]["frames"]]
    same(len(content["profiles"]), 6, "profiles of two ranks")
    for profile, amount in zip(content["profiles"], ("at_peak", "held", "allocated")):
        found = dict(zip([tuple(frames[i] for i in stack) for stack in profile["samples"]], profile["weights"]))
        same(found, stacks(held, amount), amount)
        same(profile["endValue"], sum(profile["weights"]), "endValue")


def collapsed(held):
    for option, amount in (("peak", "at_peak"), ("left", "held"), ("allocated", "allocated")):
        text = export("run", options=("--amount", option))[0].decode()
        found = {}
        for line in text.splitlines():
            stack, count = line.rsplit(" ", 1)
            assert int(count) > 0
            found[tuple(stack.split(";"))] = int(count)
        same(found, stacks(held, amount, lambda n: line_name(n, ";", ":")), option)
    text = export("run", "small")[0].decode()
    assert "\nrank 1 (small);ROOT 200\n" in text and text.count("rank 0 (run);ROOT") == text.count("\n") - 1, text


def csv_(held):
    def rows(table):
        text = export("run", "small", options=("--table", table))[0].decode()
        return [row for row in csv.DictReader(io.StringIO(text, newline="")) if row["rank"] == "0"]
    found = {row["phase"]: row for row in rows("phases")}
    for path, share in zip(PATHS, held.shares):
        if share.allocated[1]:
            row = found[line_name(path.decode("utf-8", "replace"))]
            for column in ("allocated", "at_peak", "high"):
                same([int(row[column + "_bytes"]), int(row[column + "_blocks"])], getattr(share, column), path)
    same(sum(int(row["at_peak_bytes"]) for row in rows("threads")), held.peak[0], "threads at the peak")
    same(sum(int(row["left_blocks"]) for row in rows("threads")), held.now[1], "blocks that threads left")
    curve = rows("curve")
    assert len(curve) <= 501, len(curve)
    same(max((int(row["bytes"]), -int(row["transaction"])) for row in curve),
         (held.peak[0], -held.peak_number), "top of the curve")


def json_(held):
    content = json.loads(export("run")[0])
    same((content["complete"], content["problems"]), (True, []), "complete")
    found = content["runs"][0]
    same((found["peak"]["bytes"], found["peak"]["blocks"], found["peak"]["transaction"]),
         (*held.peak, held.peak_number), "peak")
    same(found["left"], {"bytes": held.now[0], "blocks": held.now[1]}, "left")
    same(found["events"], held.events, "events")
    same({p["path"]: p["at_peak"]["bytes"] for p in found["phases"] if p["at_peak"]["bytes"]},
         {"->".join(stack): n for stack, n in stacks(held, "at_peak").items()}, "phases at the peak")
    # What is there already is not lost, and damage is told in the file too.
    out, err = run(*MEMTRACK, "export", "--format", "json", "-o", "out.json", "run", status=2)
    assert "--force" in err, err
    with open("run.memT0", "rb") as file:
        whole = file.read()
    with open("cut.memT0", "wb") as file:
        file.write(whole[:-50])
    out, err = run(*MEMTRACK, "export", "--format", "json", "-qf", "-o", "out.json", "cut", status=1)
    with open("out.json", encoding="utf-8") as file:
        content = json.load(file)
    same((content["complete"], content["runs"][0]["events"]), (False, held.events - 2), "cut run")
    assert "cut.memT0" in [p["file"] for p in content["problems"]] and "cut.memT0, byte" in err, err
    run(*MEMTRACK, "export", "--format", "massif", "-o", "out.two", "run", "small", status=2)
    page = subprocess.run([*MEMTRACK, "html", "run"], capture_output=True)
    assert page.stdout.endswith(b"</html>\n") or b"built without html" in page.stderr, page.stdout[-100:]
    # Devices are written in place, and one that is full is told.
    run(*MEMTRACK, "report", "-fo", "/dev/null", "run")
    out, err = run(*MEMTRACK, "report", "-fo", "/dev/full", "run", status=1)
    assert err == "memtrack: /dev/full cannot be written to its end\n", err
    with open("/dev/full", "wb") as full:
        for command in ("--help", "report"):
            told = subprocess.run([*MEMTRACK, command, *["run"] * (command == "report")], stdout=full, stderr=subprocess.PIPE)
            assert told.returncode == 1 and b"standard output cannot be written to its end" in told.stderr, told


SMALL = [Event(0, 4096 * (i + 1), 10) for i in range(20)]


def main():
    os.makedirs(SCRATCH, exist_ok=True)
    os.chdir(SCRATCH)
    events = mixed(5000, 6)
    events.insert(10, Event(0, 4096, 1, phase=6))
    write("run", events, PATHS)
    write("small", SMALL, PATHS)
    write("bare", [Event(RELEASE, 4096)], PATHS[:1])
    write("gone", [Event(0, 4096, 5, phase=-1), Event(1, 4096), Event(0, 4096, 5), Event(1, 4096)], [b"ROOT->" + b"p" * 100000])
    write("none", [], PATHS[:1])
    os.remove("none.memT0")  # a run without an event has none
    held = Held(events, len(PATHS))
    assert held.peak_number not in (0, len(events) - 1) and held.refused and held.now[0]
    {"csv": csv_, "json": json_}.get(FORMAT, globals().get(FORMAT))(held)
    # Runs that allocated nothing, have no event, or left nothing are opened as well; several are ranks.
    for bases in (("bare",), ("none",), ("gone",), ("none", "gone")):
        if len(bases) > 1 and FORMAT in ("massif", "heaptrack"):
            continue
        data, name = export(*bases)
        for consumer in ({"massif": ["ms_print"], "heaptrack": ["heaptrack_print", "-f"]}.get(FORMAT, []),):
            if consumer:
                run(*consumer, name)
        if FORMAT == "pprof":
            piped = subprocess.run([*MEMTRACK, "export", "--format", FORMAT, *bases], stdout=subprocess.PIPE).stdout
            same(gzip.decompress(piped), gzip.decompress(data), "what goes to standard output")
        if FORMAT in ("perfetto", "speedscope"):
            validate(data, {"perfetto": "trace", "speedscope": "speedscope"}[FORMAT] + ".schema.json")


main()
