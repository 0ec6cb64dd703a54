// The data of the page as memtrack wrote them (page_data.cpp), unpacked: curves, spans, the tree of phases.

// Numbers in seven-bit groups, lowest first; beyond 32 bits, so by arithmetic.
class Varints {
    constructor(base64) {
        const bytes = atob(base64);
        this.bytes = Uint8Array.from(bytes, (c) => c.charCodeAt(0));
        this.at = 0;
    }
    get more() {
        return this.at < this.bytes.length;
    }
    next() {
        let value = 0;
        for (let weight = 1; ; weight *= 128) {
            const byte = this.bytes[this.at++];
            value += (byte & 127) * weight;
            if (!(byte & 128)) {
                return value;
            }
        }
    }
    nextStep() {
        const value = this.next();
        return value % 2 ? -(value + 1) / 2 : value / 2;
    }
}

// Lowest and highest values of stretches of events, and of ever wider ones made of them: whatever the range
// shown, a few hundred of some width cover it, and no peak is lost.
class Curve {
    constructor({first, last, width, count, values}) {
        this.first = Number(first);
        this.end = count ? Number(last) + 1 : this.first; // behind the last event
        const names = ["bytesHigh", "bytesLow", "blocksHigh", "blocksLow"];
        const level = {width: Number(width), count};
        for (const name of names) {
            level[name] = new Float64Array(count);
        }
        const packed = new Varints(values);
        for (let i = 0, bytes = 0, blocks = 0; i < count; ++i) {
            bytes += packed.nextStep();
            level.bytesHigh[i] = bytes;
            level.bytesLow[i] = bytes - packed.next();
            blocks += packed.nextStep();
            level.blocksHigh[i] = blocks;
            level.blocksLow[i] = blocks - packed.next();
        }
        this.levels = [level];
        while (this.levels.at(-1).count > 256) {
            const finer = this.levels.at(-1);
            const wider = {width: 2 * finer.width, count: Math.ceil(finer.count / 2)};
            for (const name of names) {
                const pick = name.endsWith("High") ? Math.max : Math.min;
                wider[name] = Float64Array.from({length: wider.count}, (_, i) =>
                    pick(finer[name][2 * i], finer[name][Math.min(2 * i + 1, finer.count - 1)]));
            }
            this.levels.push(wider);
        }
    }
    // Stretches that cover events from..to, at most `most` and two: columns as uPlot takes them.
    points(from, to, most) {
        const level = this.levels.find((l) => (to - from) / l.width <= most) ?? this.levels.at(-1);
        const begin = Math.max(Math.floor((from - this.first) / level.width), 0);
        const end = Math.min(Math.ceil((to - this.first) / level.width) + 1, level.count);
        const columns = [[], [], [], [], []];
        for (let i = begin; i < end; ++i) {
            columns[0].push(this.first + i * level.width);
            columns[1].push(level.bytesHigh[i]);
            columns[2].push(level.bytesLow[i]);
            columns[3].push(level.blocksHigh[i]);
            columns[4].push(level.blocksLow[i]);
        }
        if (end === level.count && end > begin) { // what the last event left
            columns[0].push(this.end);
            for (const column of columns.slice(1)) {
                column.push(column.at(-1));
            }
        }
        return {columns, width: level.width};
    }
    at(event) {
        const level = this.levels[0];
        const i = Math.floor((event - this.first) / level.width);
        if (i < 0 || i >= level.count) {
            return null;
        }
        return {
            from: this.first + i * level.width, width: level.width,
            bytesHigh: level.bytesHigh[i], bytesLow: level.bytesLow[i],
            blocksHigh: level.blocksHigh[i], blocksLow: level.blocksLow[i],
        };
    }
    extremes(from, to) {
        const result = {high: 0, low: Infinity};
        const level = this.levels[0];
        const begin = Math.max(Math.floor((from - this.first) / level.width), 0);
        const end = Math.min(Math.ceil((to - this.first) / level.width), level.count);
        for (let i = begin; i < end; ++i) {
            result.high = Math.max(result.high, level.bytesHigh[i]);
            result.low = Math.min(result.low, level.bytesLow[i]);
        }
        return result;
    }
}

// Phases as a tree, from columns. What is summed is by name; `inclusive` has it with all below.
class Phases {
    constructor(columns) {
        this.nodes = columns.name.map((name, i) => ({
            index: i, name, parent: null, children: [], depth: 0, path: name,
            own: {}, inclusive: {}, entries: columns.entries[i],
            peakWithin: columns.peakWithin[i], high: columns.high[i],
        }));
        const sums = ["events", "allocatedBytes", "allocatedBlocks", "temporary", "failed", "peakBytes",
            "peakBlocks", "leftBytes", "leftBlocks"];
        for (const node of this.nodes) { // parents stand before their children
            const parent = columns.parent[node.index];
            if (parent >= 0) {
                node.parent = this.nodes[parent];
                node.parent.children.push(node);
                node.depth = node.parent.depth + 1;
                node.path = `${node.parent.path}->${node.name}`;
            }
            for (const name of sums) {
                node.own[name] = node.inclusive[name] = Number(columns[name][node.index]);
            }
        }
        this.root = {index: -1, name: "all phases", path: "all phases", parent: null, depth: -1,
            children: this.nodes.filter((node) => !node.parent), own: {}, inclusive: {}};
        for (const name of sums) {
            this.root.own[name] = this.root.inclusive[name] = 0;
        }
        for (const node of this.nodes.toReversed?.() ?? [...this.nodes].reverse()) {
            const above = node.parent ?? this.root;
            for (const name of sums) {
                above.inclusive[name] += node.inclusive[name];
            }
        }
    }
    // The node at this depth above or at `node`; null above its root or below it.
    static at(node, depth) {
        while (node && node.depth > depth) {
            node = node.parent;
        }
        return node && node.depth === depth ? node : null;
    }
}

// Where in the phases a thread was: `node` from event `from` to event `to`; null: in several.
class Spans {
    constructor(packed, phases, end) {
        this.list = [];
        const numbers = new Varints(packed);
        for (let from = 0; numbers.more;) {
            from += numbers.next();
            const node = numbers.next();
            if (this.list.length) {
                this.list.at(-1).to = from;
            }
            this.list.push({from, to: end, node: node ? phases.nodes[node - 1] : null});
        }
    }
    indexAt(event) {
        let low = 0, high = this.list.length;
        while (low < high) {
            const middle = (low + high) >> 1;
            if (this.list[middle].from <= event) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        return low - 1;
    }
    at(event) {
        return this.list[this.indexAt(event)] ?? null;
    }
    // Stretches of one phase at this depth, within the range.
    stretches(depth, from, to) {
        const result = [];
        for (let i = Math.max(this.indexAt(from), 0); i < this.list.length && this.list[i].from < to; ++i) {
            const span = this.list[i];
            const node = Phases.at(span.node, depth);
            const last = result.at(-1);
            if (node && last && last.node === node && last.to === span.from) {
                last.to = span.to;
            } else if (node) {
                result.push({from: span.from, to: span.to, node});
            }
        }
        return result;
    }
    // The first depth at which the thread was in more than one phase.
    get bandDepth() {
        const deepest = this.deepest;
        for (let depth = 0; depth < deepest; ++depth) {
            if (this.stretches(depth, 0, Infinity).length > 1) {
                return depth;
            }
        }
        return Math.min(deepest, 1);
    }
    get deepest() {
        return this.list.reduce((most, span) => Math.max(most, span.node ? span.node.depth : 0), 0);
    }
}

// A run, or all ranks together (which have no curve and no spans).
class Run {
    constructor(packed) {
        Object.assign(this, packed);
        this.phases = new Phases(packed.phases);
        if (packed.curve) {
            this.curve = new Curve(packed.curve);
            this.spans = new Map(packed.spans.map(([thread, spans]) =>
                [thread, new Spans(spans, this.phases, this.curve.end)]));
        }
        const columns = Object.entries(packed.threads);
        this.threads = packed.threads.thread.map((_, i) =>
            Object.fromEntries(columns.map(([name, values]) => [name, values[i]])));
    }
    // Phases that a thread was in within the range, with those above them.
    phasesWithin(from, to) {
        const found = new Set();
        for (const spans of this.spans.values()) {
            for (let i = Math.max(spans.indexAt(from), 0); i < spans.list.length && spans.list[i].from < to; ++i) {
                for (let node = spans.list[i].node; node && !found.has(node); node = node.parent) {
                    found.add(node);
                }
            }
        }
        return found;
    }
}
