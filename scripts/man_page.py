#!/usr/bin/env python3
"""Makes a man page of a tool from two sources: what the tool itself says of its options (--help, and that of
each of its commands), and a text with the sections that no help has.

  man_page.py PROGRAM TEXT VERSION DATE RESULT

The text begins with the line of the page's NAME; then each line [SECTION] begins a section. An empty line ends
a paragraph, lines that begin with blanks are shown as they stand, `this` is bold, and a line "- text" begins a
list's item. OPTIONS and COMMANDS are put in behind DESCRIPTION; a SYNOPSIS in the text stands for the help's.
"""
import itertools
import os
import re
import subprocess
import sys
import textwrap

OPTION_COLUMN = 30  # where the help's explanations begin


def escape(text):
    return guarded(text.replace("\\", "\\e").replace("-", "\\-"))


def guarded(line):
    """A line that begins with a dot or an apostrophe would be a request."""
    return re.sub(r"^(['.])", r"\\&\1", line)


def inline(text):
    """Escaped text, with `words` in bold."""
    parts = re.split(r"`([^`]*)`", text)
    return "".join(f"\\fB{escape(part)}\\fR" if i % 2 else escape(part)
                   for i, part in enumerate(parts))


def lines_of(roff):
    return "\n".join(guarded(line) for line in
                     textwrap.wrap(roff, 78, break_long_words=False, break_on_hyphens=False))


def wrapped(text):
    return lines_of(escape(text))


def help_of(program, command=None):
    arguments = [program] + ([command] if command else []) + ["--help"]
    environment = {k: v for k, v in os.environ.items() if not k.startswith(("KXA_", "KXQ_", "KXM_"))}
    return subprocess.run(arguments, check=True, capture_output=True, text=True, timeout=60,
                          env=environment).stdout


def entries(lines):
    """The rows of one of the help's lists: (name, explanation)."""
    found = []
    for line in lines:
        name, explanation = line[:OPTION_COLUMN].strip(), line[OPTION_COLUMN:].strip()
        if len(line) >= OPTION_COLUMN and line[OPTION_COLUMN - 1] != " ":  # a name that is too long
            name, explanation = line.strip(), ""
            cut = re.match(r"(.*?\S)\s{2,}(\S.*)", name)
            if cut:
                name, explanation = cut.groups()
        if name:
            found.append([name, explanation])
        elif found:
            found[-1][1] = f"{found[-1][1]} {explanation}".strip()
    return found


def parse_help(text):
    """description, usage, {list's title: rows}, what stands behind them"""
    description, usage, lists, footer, title = [], "", {}, [], None
    for line in text.splitlines():
        if line.startswith("Usage: "):
            usage = line[len("Usage: "):]
        elif re.fullmatch(r"[A-Z][A-Za-z ]*:", line) and not footer:
            title = line[:-1]
            lists[title] = []
        elif title and line.startswith("  ") and not footer:
            lists[title].append(line)
        elif line.strip() and (usage or title):
            footer.append(line)
        elif line.strip():
            description.append(line)
    return " ".join(description), usage, {t: entries(rows) for t, rows in lists.items()}, footer




def rows(found):
    return [line for name, explanation in found
            for line in (".TP", "\\fB" + escape(name) + "\\fR", wrapped(explanation) or "\\&")]


def paragraphs(lines):
    """A section of the text."""
    result = []
    for kind, group in itertools.groupby(lines + [""], lambda line: "shown" if line.startswith("    ")
                                         else "text" if line.strip() else "gap"):
        group = list(group)
        if kind == "shown":
            result += [".PP"] * bool(result) + [".RS 4", ".EX"]
            result += [escape(line[4:]) for line in group] + [".EE", ".RE"]
        elif kind == "text":
            for part in re.split(r"(?:^| )- ", " ".join(group)) if group[0].startswith("- ") else [None]:
                if part is None:
                    result += [".PP"] * bool(result) + [lines_of(inline(" ".join(group)))]
                elif part:
                    result += ['.IP "\\(bu" 3', lines_of(inline(part))]
    return result


def sections_of(text):
    first, *rest = text.splitlines()
    sections, name = {}, None
    for line in rest:
        match = re.fullmatch(r"\[(.+)\]", line)
        if match:
            name = match.group(1)
            sections[name] = []
        elif name:
            sections[name].append(line)
    return first, sections


def command_section(program, tool, name, common, common_footer):
    """Of one command, without the options and the words that the tool itself has."""
    description, usage, lists, footer = parse_help(help_of(program, name))
    page = [f'.SS "{escape(tool)} {escape(name)}"', wrapped(description + "."), ".PP",
            f"\\fB{escape(usage)}\\fR"]
    for title, found in lists.items():
        if title != "Subcommands":
            page += rows([row for row in found if row not in common])
    return page + ([".PP", wrapped(" ".join(footer))] if footer and footer != common_footer else [])


def man_page(program, text, version, date):
    tool = re.sub(r"[.]exe$", "", os.path.basename(program))
    name_line, sections = sections_of(text)
    _, usage, lists, footer = parse_help(help_of(program))
    page = [f'.TH {tool.upper()} 1 "{date}" "KXMBasMem {version}" "User Commands"',
            ".SH NAME", f"{escape(tool)} \\- {escape(name_line)}",
            ".SH SYNOPSIS"]
    page += paragraphs(sections.pop("SYNOPSIS", [f"`{usage}`"]))
    page += [".SH DESCRIPTION"] + paragraphs(sections.pop("DESCRIPTION"))
    for title in ("Positionals", "Options"):
        if lists.get(title):
            page += [f".SH {'ARGUMENTS' if title == 'Positionals' else 'OPTIONS'}"] + rows(lists[title])
    if lists.get("Subcommands"):
        page.append(".SH COMMANDS")
        for name, _ in lists["Subcommands"]:
            page += command_section(program, tool, name, lists.get("Options", []), footer)
    if footer and "EXIT STATUS" not in sections:
        page += [".SH NOTES", wrapped(" ".join(footer))]
    for name, lines in sections.items():
        page += [f'.SH "{name}"'] + paragraphs(lines)
    return "\n".join(page) + "\n"


if __name__ == "__main__":
    program_name, text_name, of_version, of_date, result_name = sys.argv[1:]
    with open(text_name, encoding="utf-8") as source:
        made = man_page(program_name, source.read(), of_version, of_date)
    with open(result_name, "w", encoding="utf-8") as target:
        target.write(made)
