// Bytes and blocks over the events of a run, with the phases of one thread as bands behind and as lanes, one for
// each depth, beneath.

const mostPoints = 1600;
const laneHeight = 18, mostLanes = 10;

class RunChart {
    // moved(from, to): the range shown has changed.
    constructor({place, lanes, line, range, moved}) {
        Object.assign(this, {place, lanes, line, rangeText: range, moved});
        this.plot = null;
        new ResizeObserver(() => this.fit()).observe(place);
        place.addEventListener("keydown", (event) => this.key(event));
        lanes.addEventListener("mousemove", (event) => this.tell(this.eventAt(event), event));
        lanes.addEventListener("mouseleave", () => this.line.textContent = "");
        lanes.addEventListener("click", (event) => {
            const stretch = this.stretchAt(event);
            if (stretch) {
                this.show(stretch.from, stretch.to);
            }
        });
    }
    setRun(run) {
        this.run = run;
        this.curve = run.curve;
        this.spans = null;
        this.from = this.curve.first;
        this.to = this.curve.end;
    }
    setThread(thread) {
        this.thread = thread;
        this.spans = this.run.spans.get(thread) ?? null;
        this.bandDepth = this.spans ? this.spans.bandDepth : 0;
        this.depths = this.spans ? Math.min(this.spans.deepest + 1, mostLanes) : 0;
        this.rebuild();
    }
    get whole() {
        return this.from <= this.curve.first && this.to >= this.curve.end;
    }
    // Shows events from..to, as far as the run has them.
    show(from, to) {
        const least = Math.min(Math.max(4, 2 * this.curve.levels[0].width), this.curve.end - this.curve.first);
        const middle = (from + to) / 2;
        const half = Math.max(to - from, least) / 2;
        from = Math.floor(middle - half);
        to = Math.ceil(middle + half);
        if (from < this.curve.first) {
            to += this.curve.first - from;
            from = this.curve.first;
        }
        if (to > this.curve.end) {
            from = Math.max(this.curve.first, from - (to - this.curve.end));
            to = this.curve.end;
        }
        this.from = from;
        this.to = to;
        this.update();
    }
    zoom(factor) {
        const middle = (this.from + this.to) / 2, half = (this.to - this.from) / 2 * factor;
        this.show(middle - half, middle + half);
    }
    showAround(event) {
        const half = Math.max((this.curve.end - this.curve.first) / 200, 50);
        this.show(Number(event) - half, Number(event) + half);
    }

    rebuild() {
        this.plot?.destroy();
        const stroke = colour("quiet"), lineColour = colour("line");
        const axis = (more) => ({stroke, grid: {stroke: lineColour, width: 1}, ticks: {stroke: lineColour},
            font: "12px system-ui, sans-serif", ...more});
        const series = (scale, ink, low) => ({scale, stroke: ink, width: low ? 0.5 : 1.5,
            paths: uPlot.paths.stepped({align: 1}), points: {show: false},
            fill: low && scale === "bytes" ? translucent(ink, 0.13) : undefined});
        const bytes = colour("bytes"), blocks = colour("blocks");
        const fromZero = (_, low, high) => [0, high > 0 ? high * 1.06 : 1];
        this.plot = new uPlot({
            width: this.place.clientWidth || 800,
            height: 320,
            legend: {show: false},
            scales: {
                x: {time: false, auto: false, range: () => [this.from, this.to]},
                bytes: {range: fromZero},
                blocks: {range: fromZero},
            },
            series: [{}, series("bytes", bytes, false), series("bytes", bytes, true),
                series("blocks", blocks, false), series("blocks", blocks, true)],
            bands: [{series: [1, 2], fill: translucent(bytes, 0.4)},
                {series: [3, 4], fill: translucent(blocks, 0.25)}],
            axes: [
                axis({space: 100, incrs: steps(10, [1, 2, 5]), values: (_, at) => at.map(grouped)}),
                axis({scale: "bytes", size: 76, incrs: steps(2, [1]), values: (_, at) => at.map(roundBytes)}),
                axis({scale: "blocks", side: 1, size: 76, incrs: steps(10, [1, 2, 5]),
                    grid: {show: false}, values: (_, at) => at.map(grouped)}),
            ],
            cursor: {
                y: false,
                points: {show: false},
                drag: {x: true, y: false, setScale: false},
                bind: {dblclick: () => () => this.show(this.curve.first, this.curve.end)},
            },
            hooks: {
                drawClear: [(plot) => this.drawBands(plot)],
                draw: [(plot) => this.drawPeak(plot)],
                setSelect: [(plot) => this.select(plot)],
                setCursor: [(plot) => this.tell(plot.cursor.left >= 0
                    ? plot.posToVal(plot.cursor.left, "x") : null)],
            },
        }, this.points(), this.place);
        this.update();
    }
    points() {
        const {columns, width} = this.curve.points(this.from, this.to,
            Math.min(mostPoints, Math.max(200, this.place.clientWidth)));
        this.width = width;
        return columns;
    }
    update() {
        this.plot.setData(this.points(), false);
        this.plot.setScale("x", {min: this.from, max: this.to});
        this.plot.redraw(true, true);
        this.drawLanes();
        const {high, low} = this.curve.extremes(this.from, this.to);
        this.rangeText.textContent =
            `Events ${grouped(this.from)} \u2013 ${grouped(this.to - 1)}: at most ${humanBytes(high)}, ` +
            `at least ${humanBytes(Math.min(low, high))}` +
            (this.curve.levels[0].width > 1
                ? `; finest step ${grouped(this.curve.levels[0].width)} events` : "");
        this.moved(this.from, this.to);
    }
    select(plot) {
        const {left, width} = plot.select;
        if (width > 2) {
            const from = plot.posToVal(left, "x"), to = plot.posToVal(left + width, "x");
            plot.setSelect({left: 0, top: 0, width: 0, height: 0}, false);
            this.show(from, to);
        }
    }
    fit() {
        const width = this.place.clientWidth;
        if (this.plot && width && width !== this.plot.width) {
            this.plot.setSize({width, height: 320});
            this.update();
        }
    }
    key(event) {
        const step = (this.to - this.from) / 4;
        const actions = {
            ArrowLeft: () => this.show(this.from - step, this.to - step),
            ArrowRight: () => this.show(this.from + step, this.to + step),
            "+": () => this.zoom(0.5),
            "=": () => this.zoom(0.5),
            "-": () => this.zoom(2),
            0: () => this.show(this.curve.first, this.curve.end),
            Escape: () => this.show(this.curve.first, this.curve.end),
        };
        if (actions[event.key] && !event.ctrlKey && !event.metaKey && !event.altKey) {
            actions[event.key]();
            event.preventDefault();
        }
    }

    // --- phases ---

    drawBands(plot) {
        if (!this.spans) {
            return;
        }
        const {ctx, bbox} = plot;
        ctx.save();
        ctx.beginPath();
        ctx.rect(bbox.left, bbox.top, bbox.width, bbox.height);
        ctx.clip();
        ctx.font = `${11 * devicePixelRatio}px system-ui, sans-serif`;
        ctx.textBaseline = "top";
        for (const {from, to, node} of this.spans.stretches(this.bandDepth, this.from, this.to)) {
            const left = Math.max(plot.valToPos(from, "x", true), bbox.left);
            const right = Math.min(plot.valToPos(to, "x", true), bbox.left + bbox.width);
            ctx.fillStyle = translucent(bandColour(node.name), 0.17);
            ctx.fillRect(left, bbox.top, Math.max(right - left, 1), bbox.height);
            if (right - left > 30 * devicePixelRatio) {
                ctx.fillStyle = colour("quiet");
                ctx.fillText(shortened(ctx, node.name, right - left - 8), left + 4, bbox.top + 3);
            }
        }
        ctx.restore();
    }
    drawPeak(plot) {
        if (!this.run.peakEvent) {
            return;
        }
        const at = Number(this.run.peakEvent[0]);
        if (at < this.from || at >= this.to) {
            return;
        }
        const {ctx, bbox} = plot;
        const x = plot.valToPos(at, "x", true);
        const y = plot.valToPos(Number(this.run.peak[0]), "bytes", true);
        ctx.save();
        ctx.strokeStyle = ctx.fillStyle = colour("warning");
        ctx.setLineDash([4 * devicePixelRatio, 3 * devicePixelRatio]);
        ctx.beginPath();
        ctx.moveTo(x, bbox.top);
        ctx.lineTo(x, bbox.top + bbox.height);
        ctx.stroke();
        ctx.beginPath();
        ctx.arc(x, y, 4 * devicePixelRatio, 0, 2 * Math.PI);
        ctx.fill();
        ctx.font = `600 ${12 * devicePixelRatio}px system-ui, sans-serif`;
        const text = `peak ${humanBytes(this.run.peak[0])}`;
        const right = x + ctx.measureText(text).width + 14 * devicePixelRatio < bbox.left + bbox.width;
        ctx.textAlign = right ? "left" : "right";
        ctx.fillText(text, x + (right ? 7 : -7) * devicePixelRatio, Math.max(y, bbox.top) + 22 * devicePixelRatio);
        ctx.restore();
    }
    drawLanes() {
        const canvas = this.lanes;
        canvas.hidden = this.depths === 0;
        const width = this.place.clientWidth, height = this.depths * laneHeight;
        canvas.width = width * devicePixelRatio;
        canvas.height = height * devicePixelRatio;
        canvas.style.height = `${height}px`;
        if (!this.spans || !width) {
            return;
        }
        const ctx = canvas.getContext("2d");
        ctx.scale(devicePixelRatio, devicePixelRatio);
        ctx.font = "11px system-ui, sans-serif";
        ctx.textBaseline = "middle";
        const left = this.plot.bbox.left / devicePixelRatio, across = this.plot.bbox.width / devicePixelRatio;
        const x = (event) => left + across * (Math.min(Math.max(event, this.from), this.to) - this.from) /
            (this.to - this.from);
        for (let depth = 0; depth < this.depths; ++depth) {
            let drawn = -1;
            for (const {from, to, node} of this.spans.stretches(depth, this.from, this.to)) {
                const begin = x(from), end = Math.max(x(to), begin + 1);
                if (end <= drawn) {
                    continue;
                }
                drawn = end;
                ctx.fillStyle = boxColour(node.name);
                ctx.fillRect(begin, depth * laneHeight, Math.max(end - begin - 0.5, 0.7), laneHeight - 1);
                if (end - begin > 24) {
                    ctx.fillStyle = colour("text");
                    ctx.fillText(shortened(ctx, node.name, end - begin - 8), begin + 4,
                        depth * laneHeight + laneHeight / 2);
                }
            }
        }
    }
    eventAt(mouse) {
        const left = this.plot.bbox.left / devicePixelRatio, across = this.plot.bbox.width / devicePixelRatio;
        return this.from + (mouse.offsetX - left) / across * (this.to - this.from);
    }
    stretchAt(mouse) {
        const event = this.eventAt(mouse);
        const depth = Math.floor(mouse.offsetY / laneHeight);
        return this.spans?.stretches(depth, this.curve.first, this.curve.end)
            .find(({from, to}) => from <= event && event < to);
    }
    tell(event) {
        const there = event === null ? null : this.curve.at(event);
        if (!there) {
            this.line.textContent = "";
            return;
        }
        const both = (low, high, text) => low === high ? text(high) : `${text(low)} to ${text(high)}`;
        const events = there.width === 1 ? `Event ${grouped(there.from)}`
            : `Events ${grouped(there.from)} \u2013 ${grouped(there.from + there.width - 1)}`;
        const phase = this.spans?.at(event);
        this.line.textContent = `${events}: ${both(there.bytesLow, there.bytesHigh, humanBytes)} in ` +
            `${both(there.blocksLow, there.blocksHigh, grouped)} blocks` +
            (phase ? `; thread ${this.thread} in ${phase.node ? phase.node.path : "several phases"}` : "");
    }
}

function bandColour(name) {
    return `hsl(${hueOf(name)} 65% 50%)`;
}

function translucent(ink, part) {
    return `color-mix(in srgb, ${ink} ${100 * part}%, transparent)`;
}

function steps(base, of) {
    const result = [];
    for (let power = 1; power < 2 ** 60; power *= base) {
        result.push(...of.map((n) => n * power));
    }
    return result;
}

// Of an axis: without digits that say nothing.
function roundBytes(bytes) {
    return humanBytes(bytes).replace(/\.?0+ (?=[A-Z])/, " ").replace(/ bytes?$/, " B");
}

function shortened(ctx, text, width) {
    if (ctx.measureText(text).width <= width) {
        return text;
    }
    let low = 0, high = text.length;
    while (low < high) {
        const middle = (low + high + 1) >> 1;
        if (ctx.measureText(`${text.slice(0, middle)}\u2026`).width <= width) {
            low = middle;
        } else {
            high = middle - 1;
        }
    }
    return low ? `${text.slice(0, low)}\u2026` : "";
}

// A small chart without axes, of the bytes of a run; `most` bytes and `events` are the same for all beside it.
function drawSmall(canvas, curve, most, events) {
    const width = canvas.clientWidth, height = canvas.clientHeight;
    canvas.width = width * devicePixelRatio;
    canvas.height = height * devicePixelRatio;
    const ctx = canvas.getContext("2d");
    ctx.scale(devicePixelRatio, devicePixelRatio);
    const [x, high] = curve.points(curve.first, curve.end, width).columns;
    ctx.beginPath();
    ctx.moveTo(0, height);
    for (let i = 0; i < x.length; ++i) {
        const y = height - (height - 3) * high[i] / (most || 1);
        ctx.lineTo(width * (x[i] - curve.first) / events, i ? height - (height - 3) * high[i - 1] / (most || 1) : height);
        ctx.lineTo(width * (x[i] - curve.first) / events, y);
    }
    ctx.lineTo(width * (curve.end - curve.first) / events, height);
    ctx.fillStyle = translucent(colour("bytes"), 0.35);
    ctx.fill();
    ctx.strokeStyle = colour("bytes");
    ctx.stroke();
}
