"""The tree's C++ files, and what their includes mean: shared by the checks beside this file."""
import os
import re
from pathlib import Path

CODE = {".h", ".cpp"}
SKIPPED = {"build", "node_modules"}
INCLUDE = re.compile(r'\s*#\s*include\s*(["<])([^">]+)[">]')
# Where an include is looked for besides the folder of the file that has it; CMake gives the same.
ROOTS = ("", "Platform", "tests")


def list_files(root, suffixes):
    """Paths relative to `root` by their suffix, or their name where it has none, sorted; build trees, packages and hidden folders are
    not the tree's."""
    found = []
    for folder, folders, names in os.walk(root):
        folders[:] = [name for name in folders if name not in SKIPPED and not name.startswith(".")]
        relative = Path(folder).relative_to(root)
        # What is below it is put there for a package.
        if relative == Path("debian"):
            folders.clear()
        found += [str(relative / name) for name in names if (Path(name).suffix or name) in suffixes]
    return sorted(found)


def read_includes(root, path):
    """(line number, name, whether it stands in quotes) of each include."""
    lines = (Path(root) / path).read_text().splitlines()
    matches = ((number, INCLUDE.match(line)) for number, line in enumerate(lines, 1))
    return [(number, match[2], match[1] == '"') for number, match in matches if match]


def resolve(files, path, name):
    """The file of the tree that `name` means in `path`; None for one from outside. `files` is a set."""
    folders = (os.path.dirname(path), *ROOTS)
    candidates = (os.path.normpath(os.path.join(folder, name)) for folder in folders)
    return next((candidate for candidate in candidates if candidate in files), None)
