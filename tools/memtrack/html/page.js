// Puts the page together from the data, and keeps its parts in step: the rank chosen, the range shown, the
// thread whose phases are drawn.

const data = JSON.parse(byId("data").textContent);
const runs = data.runs.map((packed) => new Run(packed));
const merged = data.merged ? new Run(data.merged) : null;
let current = merged ?? runs[0];
let moment = "peak";

function setTheme(theme) {
    document.documentElement.dataset.theme = theme;
    byId("theme").textContent = theme === "dark" ? "Light" : "Dark";
}

// --- what is told of the whole ---

function showBanner() {
    const banner = byId("banner");
    banner.hidden = data.problemCount === 0;
    if (!banner.hidden) {
        const rest = data.problemCount - data.problems.length;
        banner.replaceChildren(
            make("strong", {}, `Incomplete: ${counted(data.problemCount, "problem")} with the files.`),
            " Figures are of what could be read.",
            make("ul", {}, ...data.problems.map((text) => make("li", {}, text)),
                ...(rest ? [make("li", {}, `and ${grouped(rest)} more`)] : [])));
    }
}

function figure(id, name, value, exact, more = "") {
    const element = make("div", {className: "figure"}, make("div", {className: "name"}, name),
        make("div", {className: "value"}, value), make("div", {className: "more"}, more));
    element.dataset.figure = id;
    element.dataset.value = String(exact);
    return element;
}

function bytesFigure(id, name, [bytes, blocks], more = "") {
    const exact = Number(bytes) >= 1024 ? `${grouped(bytes)} bytes in ` : "in ";
    return figure(id, name, humanBytes(bytes), bytes, `${exact}${counted(blocks, "block")}${more}`);
}

function showFigures(run) {
    const at = run.peakEvent;
    const types = Object.entries(run.byType).filter(([, count]) => Number(count) > 0)
        .map(([type, count]) => `${grouped(count)} ${type}`).join(", ");
    const peakMore = at ? `, at event ${grouped(at[0])} (${at[1]} of ${humanBytes(at[2])}, thread ${at[3]}, ` +
        `${run.phases.nodes[at[4]].path})` : merged === run ? "; the sum of the ranks' peaks, which need not be at one time" : "";
    const figures = [
        bytesFigure("peak", "Peak", run.peak, peakMore),
        bytesFigure("left", "Not released", run.left),
        bytesFigure("allocated", "Allocated over the run", run.allocated),
        figure("events", "Events", grouped(run.events), run.events,
            types + (run.files ? `; in ${counted(run.files, "file")}` : "")),
        figure("temporary", "Temporary", grouped(run.temporary), run.temporary,
            `${percent(run.temporary, run.allocated[1])} of the blocks were freed before anything else was allocated`),
        figure("failed", "Failed requests", grouped(run.failed), run.failed),
        figure("threads", "Threads", grouped(run.threadCount), run.threadCount),
        figure("phases", "Phases", grouped(run.phaseCount), run.phaseCount),
    ];
    if (Number(run.unknownReleases)) {
        figures.push(figure("unknown", "Released without being held", grouped(run.unknownReleases), run.unknownReleases));
    }
    if (Number(run.lostReleases)) {
        figures.push(figure("lost", "Given out again while held", grouped(run.lostReleases), run.lostReleases));
    }
    byId("figures").replaceChildren(...figures);
}

// --- ranks ---

const rankColumns = [
    {name: "peak", label: "Peak", kind: "bytes", get: (run) => run.peak[0]},
    {name: "left", label: "Not released", kind: "bytes", get: (run) => run.left[0]},
    {name: "allocated", label: "Allocated", kind: "bytes", get: (run) => run.allocated[0]},
    {name: "events", label: "Events", kind: "number", get: (run) => run.events},
    {name: "temporary", label: "Temporary", kind: "number", get: (run) => run.temporary},
    {name: "failed", label: "Failed", kind: "number", get: (run) => run.failed},
];
const mostMultiples = 48;

function showSpread() {
    const rows = rankColumns.map(({name, label, kind, get}) => {
        const values = runs.map((run) => Number(get(run)));
        const text = kind === "bytes" ? humanBytes : grouped;
        const mean = values.reduce((sum, value) => sum + value / runs.length, 0);
        const low = Math.min(...values), high = Math.max(...values);
        const of = (value) => runs[values.indexOf(value)].base;
        const row = make("tr", {}, make("th", {className: "text", scope: "row"}, label),
            make("td", {title: of(low)}, text(low)),
            make("td", {}, kind === "bytes" || Number.isInteger(mean) ? text(mean) : mean.toFixed(1)),
            make("td", {}, text(high)), make("td", {className: "text path"}, of(high)));
        row.dataset.spread = name;
        return row;
    });
    const head = ["", "Minimum", "Mean", "Maximum", "of rank"].map((label, i) =>
        make("th", {className: i === 0 || i === 4 ? "text" : "", scope: "col"}, label));
    byId("spread").replaceChildren(make("div", {className: "table-scroll"},
        make("table", {"aria-label": "Over the ranks"}, make("thead", {}, make("tr", {}, ...head)),
            make("tbody", {}, ...rows))));
}

function drawMultiples() {
    const shown = [...runs].sort((a, b) => Number(b.peak[0]) - Number(a.peak[0])).slice(0, mostMultiples);
    const most = Math.max(...runs.map((run) => Number(run.peak[0])));
    const events = Math.max(...runs.map((run) => run.curve.end - run.curve.first), 1);
    byId("ranks-note").textContent = "Bytes held by each rank over its events, on one scale" +
        (shown.length < runs.length ? `; the ${shown.length} of ${grouped(runs.length)} with the highest peaks.` : ".");
    const canvases = shown.map((run) => [run, make("canvas")]);
    byId("multiples").replaceChildren(...canvases.map(([run, canvas]) =>
        make("button", {type: "button", onclick: () => chooseRank(run)}, canvas,
            make("div", {className: "name"}, run.base), make("div", {className: "note"},
                `peak ${humanBytes(run.peak[0])}${run.complete ? "" : ", incomplete"}`))));
    for (const [run, canvas] of canvases) {
        drawSmall(canvas, run.curve, most, events);
    }
}

function prepareRanks() {
    byId("rank-choice").hidden = false;
    byId("rank").replaceChildren(make("option", {value: "all"}, `all ${grouped(runs.length)}`),
        ...runs.map((run, i) => make("option", {value: String(i)}, `${i}: ${run.base}`)));
    byId("rank").onchange = ({target}) =>
        chooseRank(target.value === "all" ? merged : runs[Number(target.value)]);
    showSpread();
    new Table(byId("rank-table"), {
        title: "Each rank", sort: "peak",
        columns: [
            {name: "rank", label: "Rank", kind: "text", get: (run) => run.base, press: chooseRank},
            ...rankColumns,
            {name: "complete", label: "Files", kind: "text", get: (run) => run.complete ? "complete" : "incomplete"},
        ],
    }).show(runs);
}

function chooseRank(run) {
    current = run;
    byId("rank").value = run === merged ? "all" : String(runs.indexOf(run));
    showRun();
    scrollTo({top: 0});
}

// --- a run over its events ---

const chart = new RunChart({
    place: byId("chart"), lanes: byId("lanes"), line: byId("at"), range: byId("range"),
    moved: () => requestTables(),
});

function showThreads(run) {
    const busiest = [...run.threads].sort((a, b) => Number(b.events) - Number(a.events))
        .find(({thread}) => run.spans.has(thread));
    const threads = [...run.spans.keys()].sort((a, b) => a - b);
    byId("thread").replaceChildren(...threads.map((thread) =>
        make("option", {value: String(thread)}, String(thread))));
    byId("thread").disabled = threads.length < 2;
    chooseThread(busiest ? busiest.thread : threads[0]);
}

function chooseThread(thread) {
    byId("thread").value = String(thread);
    chart.setThread(thread);
}

// --- by phase ---

const icicle = new Icicle(byId("icicle"), byId("icicle-at"));
const momentNames = {peak: "At the peak", left: "At the end", allocated: "Allocated over the run"};

function showMoment(name) {
    moment = name;
    byId("moments").replaceChildren(...Object.entries(momentNames).map(([key, label]) =>
        make("button", {type: "button", role: "tab", "aria-selected": String(key === moment),
            onclick: () => showMoment(key)}, label)));
    icicle.show(current.phases, moment);
}

function showPhase(node) {
    icicle.zoom(node);
    byId("by-phase").scrollIntoView({block: "nearest"});
}

// --- tables ---

function showEvent(number) {
    chart.showAround(number);
    byId("run").scrollIntoView({block: "nearest"});
}

const phaseColumn = {name: "phase", label: "Phase", kind: "path", get: (row) => row.node.path,
    press: (row) => showPhase(row.node)};
const eventColumn = {name: "event", label: "Event", kind: "number", get: (row) => row.event,
    press: (row) => showEvent(row.event)};
const threadColumn = {name: "thread", label: "Thread", kind: "number", get: (row) => row.thread};

const tables = {
    phases: new Table(byId("phase-table"), {
        title: "Phases", sort: "peak",
        note: "Of the blocks made in the phase itself, not below it. \u201cAt most\u201d is the most that they held at a time; " +
            "\u201crun at most\u201d the most that the whole run held at an event in the phase or below.",
        columns: [
            phaseColumn,
            {name: "events", label: "Events", kind: "number", get: ({node}) => node.own.events,
                title: "Without frees, whose records tell no phase"},
            {name: "entries", label: "Entered", kind: "number", get: ({node}) => node.entries},
            {name: "allocated", label: "Allocated", kind: "bytes", get: ({node}) => node.own.allocatedBytes},
            {name: "temporary", label: "Temporary", kind: "number", get: ({node}) => node.own.temporary},
            {name: "failed", label: "Failed", kind: "number", get: ({node}) => node.own.failed},
            {name: "high", label: "At most", kind: "bytes", get: ({node}) => node.high},
            {name: "within", label: "Run at most", kind: "bytes", get: ({node}) => node.peakWithin},
            {name: "peak", label: "At the peak", kind: "bytes", get: ({node}) => node.own.peakBytes},
            {name: "left", label: "Not released", kind: "bytes", get: ({node}) => node.own.leftBytes},
        ],
    }),
    leftPhases: new Table(byId("left-phase-table"), {
        title: "Not released, by phase", sort: "left",
        columns: [
            phaseColumn,
            {name: "left", label: "Bytes", kind: "bytes", get: ({node}) => node.own.leftBytes},
            {name: "share", label: "Share", kind: "share",
                get: ({node}) => node.own.leftBytes / (Number(current.left[0]) || 1)},
            {name: "blocks", label: "Blocks", kind: "number", get: ({node}) => node.own.leftBlocks},
            {name: "made", label: "of blocks made", kind: "number", get: ({node}) => node.own.allocatedBlocks},
        ],
    }),
    threads: new Table(byId("thread-table"), {
        title: "Threads", sort: "allocated",
        columns: [
            {name: "thread", label: "Thread", kind: "number", get: (row) => row.thread,
                press: (row) => current.spans?.has(row.thread) && chooseThread(row.thread),
                title: "A click draws its phases on the chart"},
            {name: "events", label: "Events", kind: "number", get: (row) => row.events},
            {name: "allocated", label: "Allocated", kind: "bytes", get: (row) => row.allocatedBytes},
            {name: "blocks", label: "Blocks", kind: "number", get: (row) => row.allocatedBlocks},
            {name: "temporary", label: "Temporary", kind: "number", get: (row) => row.temporary},
            {name: "failed", label: "Failed", kind: "number", get: (row) => row.failed},
            {name: "high", label: "At most", kind: "bytes", get: (row) => row.high},
            {name: "peak", label: "At the peak", kind: "bytes", get: (row) => row.peakBytes},
            {name: "left", label: "Not released", kind: "bytes", get: (row) => row.leftBytes},
            {name: "foreign", label: "Freed others\u2019 blocks", kind: "number", get: (row) => row.releasedForeign},
        ],
    }),
    sizes: new Table(byId("size-table"), {
        title: "Sizes of requests", sort: "from", most: 65,
        columns: [
            {name: "from", label: "From bytes", kind: "number", get: (row) => row.from},
            {name: "to", label: "To bytes", kind: "number", get: (row) => row.to},
            {name: "blocks", label: "Requests", kind: "number", get: (row) => row.blocks},
            {name: "share", label: "Share", kind: "share", get: (row) => row.blocks / (row.all || 1)},
            {name: "bytes", label: "Bytes together", kind: "bytes", get: (row) => row.bytes},
        ],
    }),
    refusals: new Table(byId("refusal-table"), {
        title: "Failed requests", sort: "event",
        columns: [
            eventColumn,
            {name: "type", label: "Type", kind: "text", get: (row) => row.type},
            {name: "size", label: "Size", kind: "bytes", get: (row) => row.size},
            threadColumn, phaseColumn,
        ],
    }),
    left: new Table(byId("left-table"), {
        title: "Largest blocks not released", sort: "size",
        columns: [
            {name: "size", label: "Size", kind: "bytes", get: (row) => row.size},
            {name: "address", label: "Address", kind: "text", get: (row) => row.address},
            {...eventColumn, label: "Made by event"}, threadColumn, phaseColumn,
        ],
    }),
};
tables.sizes.falling = tables.refusals.falling = false;

function rowsOf(run) {
    const item = ([event, what, size, thread, node]) => ({event, size, thread, node: run.phases.nodes[node]});
    const sizes = [];
    for (let i = 0; i < run.sizes.length; i += 3) {
        const [bucket, blocks, bytes] = run.sizes.slice(i, i + 3);
        const from = bucket === 0 ? 0n : 1n << BigInt(bucket - 1);
        sizes.push({from: String(from), to: String(bucket === 0 ? 0n : 2n * from - 1n), blocks, bytes,
            all: Number(run.allocated[1])});
    }
    const phases = run.phases.nodes.map((node) => ({node}));
    return {
        phases: phases.filter(({node}) => node.own.events > 0 || node.own.allocatedBlocks > 0 || node.entries > 0),
        leftPhases: phases.filter(({node}) => node.own.leftBlocks > 0),
        threads: run.threads, sizes,
        refusals: (run.refusals ?? []).map((row) => ({...item(row), type: row[1]})),
        left: (run.leftBlocks ?? []).map((row) => ({...item(row), address: row[1]})),
    };
}

let tablesRequested = false;

function requestTables() {
    if (!tablesRequested) {
        tablesRequested = true;
        requestAnimationFrame(() => {
            tablesRequested = false;
            showTables();
        });
    }
}

function showTables() {
    const rows = rowsOf(current);
    const follows = current.curve && byId("follow").checked && !chart.whole;
    byId("follow-line").hidden = !current.curve;
    byId("follow-text").textContent = follows
        ? `Phases, failed requests and blocks of events ${grouped(chart.from)} \u2013 ${grouped(chart.to - 1)}.` : "";
    const active = follows ? current.phasesWithin(chart.from, chart.to) : null;
    const inPhases = active && (({node}) => active.has(node));
    const inEvents = follows && ((row) => Number(row.event) >= chart.from && Number(row.event) < chart.to);
    tables.phases.show(rows.phases, inPhases);
    tables.leftPhases.show(rows.leftPhases, inPhases);
    tables.threads.show(rows.threads);
    tables.sizes.show(rows.sizes);
    tables.refusals.show(rows.refusals, inEvents);
    tables.left.show(rows.left, inEvents);
    byId("left-phase-table").hidden = rows.leftPhases.length === 0;
    byId("refusal-table").hidden = rows.refusals.length === 0;
    byId("left-table").hidden = rows.left.length === 0;
}

// --- all of it ---

function showRun() {
    const run = current;
    const nothing = Number(run.events) === 0;
    showFigures(run);
    byId("empty").hidden = !nothing;
    byId("run").hidden = nothing || !run.curve;
    byId("ranks").hidden = run !== merged;
    for (const id of ["figures", "by-phase", "phase-table", "left-phase-table", "thread-table", "size-table",
        "refusal-table", "left-table", "follow-line"]) {
        byId(id).hidden = nothing;
    }
    if (run === merged) {
        drawMultiples();
    }
    if (nothing) {
        return;
    }
    showMoment(moment);
    if (run.curve) {
        chart.setRun(run);
        showThreads(run);
    }
    showTables();
}

function start() {
    setTheme(matchMedia("(prefers-color-scheme: dark)").matches ? "dark" : "light");
    byId("theme").onclick = () => {
        setTheme(document.documentElement.dataset.theme === "dark" ? "light" : "dark");
        repaint();
    };
    const name = merged ? `${grouped(runs.length)} ranks` : current.base;
    document.title = `Memory of ${name}`;
    byId("title").textContent = `Memory of ${name}`;
    byId("subtitle").textContent = "Recorded with KXA_MEM_TRACK. The horizontal axis counts the events: " +
        "a recording knows no time.";
    byId("made").textContent = `Made by ${data.program}.`;
    showBanner();
    if (merged) {
        prepareRanks();
    }
    byId("thread").onchange = ({target}) => chooseThread(Number(target.value));
    byId("zoom-in").onclick = () => chart.zoom(0.5);
    byId("zoom-out").onclick = () => chart.zoom(2);
    byId("zoom-peak").onclick = () => current.peakEvent && chart.showAround(current.peakEvent[0]);
    byId("zoom-reset").onclick = () => chart.show(chart.curve.first, chart.curve.end);
    byId("follow").onchange = showTables;
    showRun();
    preparePrint();
}

// Colours of canvases and boxes are taken when they are drawn.
function repaint() {
    if (Number(current.events) === 0) {
        return;
    }
    icicle.render();
    if (current === merged) {
        drawMultiples();
    } else {
        chart.rebuild();
    }
}

function preparePrint() {
    let before = null;
    addEventListener("beforeprint", () => {
        before = document.documentElement.dataset.theme;
        setTheme("light");
        repaint();
    });
    addEventListener("afterprint", () => {
        setTheme(before ?? "light");
        repaint();
    });
}

start();
