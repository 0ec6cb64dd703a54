// Opens a file in DHAT's viewer without a browser, and prints the text that it shows.
//   node open_in_dh_view.js dh_view.js FILE
"use strict";
const fs = require("fs"), vm = require("vm");

class Element {
  constructor(text) { this.childNodes = []; this.text = text || ""; this.className = ""; }
  appendChild(child) { child.parentNode = this; this.childNodes.push(child); return child; }
  cloneNode() { return new Element(); }
  replaceChild(fresh, old) {
    fresh.parentNode = this;
    this.childNodes[this.childNodes.indexOf(old)] = fresh;
  }
  get selectedIndex() { return Math.max(this.childNodes.findIndex(child => child.selected), 0); }
  set textContent(text) { this.text = text; }
  get textContent() { return this.text + this.childNodes.map(child => child.textContent).join(""); }
}

const body = new Element();
const context = vm.createContext({
  console, performance, URLSearchParams, Intl, body,
  document: {
    body, location: { search: "" },
    createElement: () => new Element(), createTextNode: text => new Element(text),
  },
  FileReader: class {
    readAsText(file) { this.onload({ target: { result: fs.readFileSync(file.name, "utf8") } }); }
  },
});
context.window = context;
vm.runInContext(fs.readFileSync(process.argv[2], "utf8"), context);
context.chosen = process.argv[3];
vm.runInContext("onLoad(); gInput.files = [{ name: chosen }]; loadFile();", context);
console.log(body.textContent);
