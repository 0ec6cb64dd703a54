// A table that sorts by any column and shows the rows whose text has all the words of its filter.

class Table {
    // columns: {name, label, kind: "text" | "path" | "number" | "bytes" | "share", get(row), press(row), title}
    constructor(place, {title, note = "", columns, sort, most = 12}) {
        this.columns = columns;
        this.most = this.shown = most;
        this.sort = sort;
        this.falling = true;
        this.rows = [];
        this.within = null;
        this.filter = make("input", {
            type: "search", placeholder: "Filter", "aria-label": `Filter: ${title}`,
            oninput: () => this.render(),
        });
        this.count = make("span", {className: "note"});
        this.heads = columns.map((column) => make("th", {scope: "col", className: this.classOf(column)},
            make("button", {type: "button", title: column.title ?? "", onclick: () => this.sortBy(column.name)},
                column.label)));
        this.body = make("tbody");
        this.more = make("button", {type: "button", className: "more-rows", onclick: () => {
            this.shown += 200;
            this.render();
        }});
        this.place = place;
        place.replaceChildren(
            make("div", {className: "table-head"}, make("h2", {}, title),
                make("div", {className: "controls"}, this.count, this.filter)),
            ...(note ? [make("p", {className: "note"}, note)] : []),
            make("div", {className: "table-scroll"},
                make("table", {"aria-label": title}, make("thead", {}, make("tr", {}, ...this.heads)),
                    this.body)),
            this.more);
    }
    classOf({kind}) {
        return kind === "path" ? "text path" : kind === "text" ? "text" : "";
    }
    static text(column, row) {
        const value = column.get(row);
        switch (column.kind) {
        case "bytes": return humanBytes(value);
        case "number": return grouped(value);
        default: return String(value);
        }
    }
    sortBy(name) {
        this.falling = this.sort === name ? !this.falling
            : !["text", "path"].includes(this.columns.find((column) => column.name === name).kind);
        this.sort = name;
        this.render();
    }
    // within(row): false for a row that is not in the range shown; null: all are.
    show(rows, within = null) {
        this.rows = rows;
        this.within = within;
        this.render();
    }
    chosen() {
        const words = this.filter.value.toLowerCase().split(/\s+/).filter(Boolean);
        const text = (row) => this.columns.map((column) => Table.text(column, row)).join(" ")
            .replaceAll("\u00a0", "").toLowerCase();
        const rows = this.rows.filter((row) => (!this.within || this.within(row)) &&
            (!words.length || words.every((word) => text(row).includes(word))));
        const {get, kind} = this.columns.find((column) => column.name === this.sort);
        const compare = kind === "text" || kind === "path"
            ? (a, b) => String(get(a)).localeCompare(String(get(b)), "en", {numeric: true})
            : (a, b) => Number(get(a)) - Number(get(b));
        return rows.sort((a, b) => this.falling ? compare(b, a) : compare(a, b));
    }
    render() {
        const rows = this.chosen();
        this.count.textContent = rows.length === this.rows.length ? counted(rows.length, "row")
            : `${grouped(rows.length)} of ${counted(this.rows.length, "row")}`;
        this.columns.forEach((column, i) => this.heads[i].setAttribute("aria-sort",
            column.name !== this.sort ? "none" : this.falling ? "descending" : "ascending"));
        this.heads.forEach((head, i) => head.firstChild.textContent = this.columns[i].label +
            (this.columns[i].name !== this.sort ? "" : this.falling ? " \u25be" : " \u25b4"));
        this.body.replaceChildren(...rows.slice(0, this.shown).map((row) =>
            make("tr", {}, ...this.columns.map((column) => this.cell(column, row)))));
        this.more.hidden = rows.length <= this.shown;
        this.more.textContent = `${grouped(rows.length - this.shown)} more`;
    }
    cell(column, row) {
        const cell = make("td", {className: this.classOf(column)});
        if (column.kind === "share") {
            const meter = make("span", {className: "meter", role: "img",
                "aria-label": percent(column.get(row), 1)});
            meter.style.setProperty("--part", `${100 * column.get(row)}%`);
            cell.append(meter);
            return cell;
        }
        const text = Table.text(column, row);
        if (column.kind === "bytes") {
            cell.title = `${grouped(column.get(row))} bytes`;
        }
        cell.append(column.press
            ? make("button", {type: "button", className: "link", onclick: () => column.press(row)}, text)
            : text);
        return cell;
    }
}
