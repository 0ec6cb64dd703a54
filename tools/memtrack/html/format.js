// Numbers as memtrack's other commands write them, colours, and elements. Text from a recording reaches the
// page as text nodes and on canvases alone, never as markup.

// Numbers above 2^53 come as strings of digits.
function grouped(number) {
    const text = typeof number === "string" ? number : String(Math.round(number));
    return text.replace(/\B(?=(\d{3})+$)/g, "\u00a0");
}

function counted(number, noun) {
    return `${grouped(number)} ${noun}${Number(number) === 1 ? "" : "s"}`;
}

const units = ["KiB", "MiB", "GiB", "TiB", "PiB", "EiB"];

function humanBytes(bytes) {
    let value = Number(bytes);
    if (value < 1024) {
        return counted(Math.round(value), "byte");
    }
    value /= 1024;
    let unit = 0;
    while (value >= 1023.95 && unit + 1 < units.length) {
        value /= 1024;
        ++unit;
    }
    return `${value.toFixed(value < 99.995 ? 2 : 1)} ${units[unit]}`;
}

function percent(part, whole) {
    return `${(Number(whole) === 0 ? 0 : 100 * Number(part) / Number(whole)).toFixed(1)} %`;
}

// make("p", {className: "note", onclick}, "text", element...)
function make(tag, properties = {}, ...children) {
    const element = document.createElement(tag);
    for (const [name, value] of Object.entries(properties)) {
        if (name in element) {
            element[name] = value;
        } else {
            element.setAttribute(name, value);
        }
    }
    element.append(...children);
    return element;
}

function byId(id) {
    return document.getElementById(id);
}

function colour(variable) {
    return getComputedStyle(document.documentElement).getPropertyValue(`--${variable}`).trim();
}

// The same name has the same hue everywhere.
const hues = [212, 28, 140, 282, 350, 178, 50, 250, 95, 320, 12, 195];

function hueOf(name) {
    let hash = 7;
    for (let i = 0; i < name.length; ++i) {
        hash = (Math.imul(hash, 31) + name.charCodeAt(i)) >>> 0;
    }
    return hues[hash % hues.length];
}

function boxColour(name) {
    return `hsl(${hueOf(name)} ${colour("box-saturation")} ${colour("box-lightness")})`;
}
