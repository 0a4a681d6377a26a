#!/usr/bin/env python3
"""Looks at every relative link of the tree's Markdown files: links.py [ROOT]

Prints one line for each that leads nowhere, or to a heading that is not there, and exits with 1 if there is any.
"""
import re
import sys
from pathlib import Path

from tree import list_files

LINK = re.compile(r"\]\(([^)\s]+)\)")
HEADING = re.compile(r"#+\s+(.*)")


def strip_code(lines):
    """The lines, those of code blocks and spans made empty."""
    in_block = False
    for line in lines:
        if line.lstrip().startswith("```"):
            in_block = not in_block
        yield "" if in_block else re.sub(r"`[^`]*`", "", line)


def read_anchors(path):
    """Headings as the anchors that a forge makes of them."""
    headings = (HEADING.match(line) for line in path.read_text().splitlines())
    return {re.sub(r"[^\w\- ]", "", match[1].lower()).replace(" ", "-") for match in headings if match}


def find_fault(root, path, link):
    target, _, anchor = link.partition("#")
    if re.match(r"[a-z]+:", target):
        return None
    file = (root / path).parent / target if target else root / path
    if not file.exists():
        return "leads nowhere"
    if anchor and anchor not in read_anchors(file):
        return "there is no such heading"
    return None


def main():
    root = Path(sys.argv[1] if len(sys.argv) > 1 else ".")
    status = 0
    for path in list_files(root, {".md"}):
        lines = (root / path).read_text().splitlines()
        for number, line in enumerate(strip_code(lines), 1):
            for link in LINK.findall(line):
                fault = find_fault(root, path, link)
                if fault:
                    print(f"{path}:{number}: ({link}): {fault}")
                    status = 1
    return status


if __name__ == "__main__":
    sys.exit(main())
