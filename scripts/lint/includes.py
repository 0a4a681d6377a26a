#!/usr/bin/env python3
"""Holds every include of the tree to the table of directions: includes.py [ROOT [TABLE]]

Prints one line a mistake and exits with 1 if there is any. Angle brackets count like quotes where they mean a file of the
tree; a name in quotes that means none is a mistake. A source includes its own header first, so that the header is known to
compile alone.
"""
import re
import sys
from pathlib import Path

from tree import CODE, list_files, read_includes, resolve


class Table:
    """Rooms with those that each may include, as written and as single rooms."""

    def __init__(self, path):
        self.written = {}
        self.allowed = {}
        self.mistakes = []
        groups = {}
        for number, line in enumerate(Path(path).read_text().splitlines(), 1):
            match = re.fullmatch(r"\s*([^\s:=]+)\s*([:=])(.*)", line.split("#")[0])
            if match:
                (self.written if match[2] == ":" else groups)[match[1]] = match[3].split()
            elif line.split("#")[0].strip():
                self.mistakes.append(f'{path}:{number}: neither "room: rooms" nor "Group = rooms"')
        order = {room: row for row, room in enumerate(self.written)}
        for room, names in self.written.items():
            self.allowed[room] = expand(names, groups)
            for other in sorted(self.allowed[room]):
                if order.get(other, -1) <= order[room]:
                    self.mistakes.append(f"{path}: {room} may not include {other}, which is no room further down")

    def find_room(self, path):
        rooms = [room for room in self.written if path.startswith(room + "/")]
        return max(rooms, key=len, default=None)


def expand(names, groups):
    rooms = set()
    for name in names:
        rooms |= expand(groups[name], groups) if name in groups else {name}
    return rooms


def check_file(root, files, table, path):
    room = table.find_room(path)
    if room is None:
        return [f"{path}: its folder is no room of the table"]
    mistakes = []
    includes = read_includes(root, path)
    header = str(Path(path).with_suffix(".h"))
    for index, (number, name, quoted) in enumerate(includes):
        target = resolve(files, path, name)
        if target is None:
            if quoted:
                mistakes.append(f'{path}:{number}: "{name}": there is no such file')
            continue
        other = table.find_room(target)
        if other not in {room, None} | table.allowed[room]:
            may = " ".join(table.written[room]) or "nothing but itself"
            mistakes.append(f'{path}:{number}: "{name}": {room} may include {may}')
        if target == header and path.endswith(".cpp") and index > 0:
            mistakes.append(f'{path}:{number}: "{name}": a source includes its own header first')
    return mistakes


def main():
    root = Path(sys.argv[1] if len(sys.argv) > 1 else ".")
    table = Table(sys.argv[2] if len(sys.argv) > 2 else root / "scripts/lint/includes.txt")
    files = list_files(root, CODE)
    mistakes = list(table.mistakes)
    rooms = {table.find_room(path) for path in files}
    mistakes += [f"{room}: a room of the table without files" for room in table.written if room not in rooms]
    for path in files:
        mistakes += check_file(root, set(files), table, path)
    print("\n".join(mistakes), end="\n" if mistakes else "")
    return 1 if mistakes else 0


if __name__ == "__main__":
    sys.exit(main())
