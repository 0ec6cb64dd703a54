#!/usr/bin/env python3
"""Holds the documents to the sources: the code that they show is the code of the examples, every variable that is read
from the environment has its row in docs/settings.md and the other way round, what they point to is there.

  check_documents.py TREE VERSION           tells what does not hold; status 1
  check_documents.py TREE VERSION --write   puts the examples' code into the documents
"""
import pathlib
import re
import subprocess
import sys
import textwrap

CODE = re.compile(r"<!-- code: (\S+) \[([\w-]+)\] -->\n(?:\n```\w*\n.*?\n```\n)?", re.S)
LANGUAGES = {".c": "c", ".cpp": "cpp", ".f90": "fortran", ".txt": "cmake"}
NAMED_LIKE_OURS = re.compile(r'"(KX[AQM]_[A-Z0-9_]+)"')
READ = re.compile(r'\b(?:secure_)?getenv\(\s*("[^"]*"|[^)]*)')


class Tree:
    def __init__(self, root):
        self.root = pathlib.Path(root)
        listed = subprocess.run(["git", "ls-files"], cwd=root, capture_output=True, text=True).stdout.split("\n")
        self.files = [self.root / name for name in listed if name] or \
            [path for path in self.root.rglob("*") if path.is_file() and "build" not in path.parts]
        self.faults = []

    def text(self, path):
        return (self.root / path).read_text(encoding="utf-8")

    def fault(self, text):
        self.faults.append(text)

    def documents(self):
        return [path for path in self.files if path.suffix == ".md" and path.is_file()]

    def sources(self, *folders):
        return [path for path in self.files
                if path.suffix in (".cpp", ".h", ".c", ".f90", ".F90") and path.is_file()
                and path.relative_to(self.root).parts[0] in folders]


def marked(tree, name, mark):
    """What stands between the two lines that hold [mark] in a file."""
    lines = tree.text(name).split("\n")
    at = [i for i, line in enumerate(lines) if re.fullmatch(rf"\s*(//|#|/\*|!) \[{mark}\]( \*/)?", line)]
    if len(at) != 2:
        raise ValueError(f"{name} has {len(at)} marks [{mark}], not 2")
    return textwrap.dedent("\n".join(lines[at[0] + 1:at[1]]))


def check_code(tree, write):
    shown = 0
    for path in tree.documents():
        text = path.read_text(encoding="utf-8")

        def block(match):
            nonlocal shown
            shown += 1
            name = match.group(1)
            return (f"<!-- code: {name} [{match.group(2)}] -->\n\n```{LANGUAGES[pathlib.Path(name).suffix]}\n"
                    f"{marked(tree, name, match.group(2))}\n```\n")
        right = CODE.sub(block, text)
        if right != text:
            if write:
                path.write_text(right, encoding="utf-8")
            else:
                tree.fault(f"{path}: the code shown is not the examples'; --write puts it right")
    if shown < 8:
        tree.fault(f"only {shown} pieces of code were found in the documents")


def check_settings(tree):
    document = tree.text("docs/settings.md") 
    rows = set(re.findall(r"^\| `([A-Z0-9_]+)` \|", document, re.M))
    named, read = set(), set()
    for path in tree.sources("KXMBase", "bindings", "tools"):
        text = re.sub(r"//[^\n]*", "", path.read_text(encoding="utf-8"))
        named |= set(NAMED_LIKE_OURS.findall(text))
        for what in READ.findall(text):
            if what.startswith('"'):
                if "launcher" not in path.parts:
                    read.add(what.strip('"'))
            elif "launcher" not in path.parts and not NAMED_LIKE_OURS.search(text):
                tree.fault(f"{path}: getenv({what}): which variable is that?")
        if re.search(r"\b(_wgetenv|_dupenv_s|GetEnvironmentVariable[AW])\b", text):
            tree.fault(f"{path}: reads the environment in a manner that this test does not know")
    launcher = tree.root / "docs/launcher.md"
    told = rows | set(re.findall(r"`([A-Z][A-Z0-9_]+)`", launcher.read_text(encoding="utf-8"))
                      if launcher.exists() else [])
    for name in sorted((named | read) - told):
        tree.fault(f"{name} is read from the environment, and docs/settings.md has no row for it")
    for name in sorted(rows - named - read):
        tree.fault(f"docs/settings.md tells of {name}, which nothing reads")
    if len(rows) < 15 or len(read) < 8:
        tree.fault(f"only {len(rows)} rows and {len(read)} reads were found")


def check_references(tree):
    for path in tree.documents():
        text = re.sub(r"^```.*?^```", "", path.read_text(encoding="utf-8"), flags=re.S | re.M)
        for target in re.findall(r"\]\(([^)\s]+)\)", text):
            if not re.match(r"https?:|#", target) and not (path.parent / target.split("#")[0]).exists():
                tree.fault(f"{path}: there is no {target}")
        for target in re.findall(r"`((?:docs|tools|bindings|examples|tests|scripts|cmake|packaging|KXMBase|KX0CORE)/"
                                 r"[\w./-]*)`", text):
            if not (tree.root / target).exists():
                tree.fault(f"{path}: there is no {target}")
        if path.parent == tree.root / "docs":  # installed side by side, without the tree around them
            for target in re.findall(r"(?:docs|bindings)/[\w./-]*", text):
                tree.fault(f"{path}: {target} is not where the document is installed")
            for target in re.findall(r"`([\w-]+\.md)`", text):
                if target != "CHANGELOG.md" and not (path.parent / target).exists():
                    tree.fault(f"{path}: there is no {target} beside it")


def main(root, version, *options):
    tree = Tree(root)
    check_code(tree, "--write" in options)
    check_settings(tree)
    check_references(tree)
    changes = tree.text("CHANGELOG.md")
    if f"## [{version}]" not in changes and "## [Unreleased]" not in changes:
        tree.fault(f"CHANGELOG.md has nothing of {version}, nor of what is unreleased")
    for fault in tree.faults:
        print(fault)
    return 1 if tree.faults else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
