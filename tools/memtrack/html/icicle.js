// Phases as boxes, callers above what they enter, as wide as the bytes that were allocated in and below them.
// A click on a box makes it as wide as the page, a click on one above it goes back; so do the keys.

class Icicle {
    constructor(place, line) {
        this.place = place;
        this.line = line;
        place.addEventListener("keydown", (event) => this.key(event));
    }
    // figure: "peak", "left" or "allocated".
    show(phases, figure) {
        if (phases !== this.phases) {
            this.focus = phases.root;
        }
        this.phases = phases;
        this.bytes = `${figure}Bytes`;
        this.blocks = `${figure}Blocks`;
        if (this.focus.inclusive[this.bytes] === 0) {
            this.focus = phases.root;
        }
        this.render();
    }
    zoom(node) {
        this.focus = node.inclusive[this.bytes] > 0 ? node : this.phases.root;
        this.render();
        this.boxes.get(this.focus)?.focus({preventScroll: true});
    }
    render() {
        this.boxes = new Map();
        const whole = this.focus.inclusive[this.bytes];
        if (whole === 0) {
            this.place.replaceChildren(make("p", {className: "note"}, "Nothing was held."));
            this.place.style.height = "auto";
            this.line.textContent = "";
            return;
        }
        const above = [];
        for (let node = this.focus; node; node = node.parent ?? (node === this.phases.root ? null : this.phases.root)) {
            above.unshift(node);
        }
        above.forEach((node, row) => this.add(node, row, 0, 1, node !== this.focus));
        let rows = above.length;
        const below = (node, row, left) => {
            for (const child of [...node.children].sort((a, b) => b.inclusive[this.bytes] - a.inclusive[this.bytes])) {
                const width = child.inclusive[this.bytes] / whole;
                if (width < 0.0008) {
                    break;
                }
                this.add(child, row, left, width, false);
                rows = Math.max(rows, row + 1);
                if (row < above.length + 30) {
                    below(child, row + 1, left);
                }
                left += width;
            }
        };
        below(this.focus, above.length, 0);
        this.place.style.height = `${rows * 24}px`;
        this.place.replaceChildren(...this.boxes.values());
        this.boxes.get(this.focus).tabIndex = 0;
        this.tell(this.focus);
    }
    add(node, row, left, width, isAbove) {
        const box = make("button", {
            type: "button", className: isAbove ? "box above" : "box", tabIndex: -1, role: "treeitem",
            title: this.words(node), "aria-level": String(node.depth + 2),
            onclick: () => this.zoom(node),
            onmouseenter: () => this.tell(node),
            onfocus: () => this.tell(node),
        }, width > 0.02 ? `${node.name}  ${humanBytes(node.inclusive[this.bytes])}` : "\u00a0");
        box.style.top = `${row * 24}px`;
        box.style.left = `${left * 100}%`;
        box.style.width = `${width * 100}%`;
        box.style.background = node.index < 0 ? colour("line") : boxColour(node.name);
        this.boxes.set(node, box);
    }
    words(node) {
        const bytes = node.inclusive[this.bytes];
        const own = node.own[this.bytes];
        return `${node.path}: ${humanBytes(bytes)} in ${counted(node.inclusive[this.blocks], "block")}, ` +
            `${percent(bytes, this.phases.root.inclusive[this.bytes])} of all` +
            (node.children.length && node.index >= 0 ? `; ${humanBytes(own)} of it in the phase itself` : "");
    }
    tell(node) {
        this.line.textContent = this.words(node);
    }
    key(event) {
        const node = [...this.boxes].find(([, box]) => box === document.activeElement)?.[0];
        if (!node) {
            return;
        }
        const shown = (nodes) => nodes.filter((other) => this.boxes.has(other))
            .sort((a, b) => parseFloat(this.boxes.get(a).style.left) - parseFloat(this.boxes.get(b).style.left));
        const above = node.parent ?? (node.index < 0 ? null : this.phases.root);
        const beside = above ? shown(above.children) : [node];
        const to = {
            ArrowUp: above,
            ArrowDown: shown(node.children)[0],
            ArrowLeft: beside[beside.indexOf(node) - 1],
            ArrowRight: beside[beside.indexOf(node) + 1],
        }[event.key];
        if (to) {
            this.boxes.get(to)?.focus();
        } else if (event.key === "Escape") {
            this.zoom(this.phases.root);
        } else if (!event.key.startsWith("Arrow")) {
            return;
        }
        event.preventDefault();
    }
}
