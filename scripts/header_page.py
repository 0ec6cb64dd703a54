#!/usr/bin/env python3
"""Doxygen's filter of a header: the comment that it begins with becomes the text of its page. Nothing moves to
another line."""
import os
import re
import sys


def plain(comment):
    """Words in angle brackets are no tags, and what stands apart and indented is code."""
    lines = comment.split("\n")
    indent = min((len(line) - len(line.lstrip()) for line in lines[1:] if line.strip()), default=0)
    inside = False
    for i, line in enumerate(lines):
        code = bool(line.strip()) and line.startswith(" " * (indent + 2))
        if code and not inside and i > 0:
            before = lines[i - 1].rstrip()
            if not before or before.endswith(":"):
                depth = len(line) - len(line.lstrip())
                lines[i] = "@code{.cpp} " + line.lstrip()
                inside = True
        elif inside:
            lines[i] = line[min(depth, len(line) - len(line.lstrip())):]
        if not inside:
            lines[i] = re.sub(r"<(?=[a-z]+>)", "&lt;", lines[i])
        if inside and not any(next_line.strip() and next_line.startswith(" " * (indent + 2))
                              for next_line in lines[i + 1:i + 3]):
            lines[i] += " @endcode"
            inside = False
    return "\n".join(lines)


def page(text, name):
    block = re.match(r"/\*(?!\*)(.*?)\*/", text, re.S)
    if block:
        return f"/** @file {name} {plain(block.group(1)).lstrip()}*/" + text[block.end():]
    lines = re.match(r"(?://(?!/).*\n)+", text)
    if lines:
        comment = plain("\n".join(line[2:] for line in lines.group(0).splitlines()))
        return "/// @file " + name + " " + comment.lstrip().replace("\n", "\n///") + "\n" + text[lines.end():]
    return text


def without_specializations(text):
    """Doxygen looks for these members in the template and does not find them."""
    return re.sub(r"^template <>[^;{]*;", lambda match: "\n" * match.group(0).count("\n"), text, flags=re.M)


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as header:
        sys.stdout.write(without_specializations(page(header.read(), os.path.basename(sys.argv[1]))))
