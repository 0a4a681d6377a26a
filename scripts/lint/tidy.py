#!/usr/bin/env python3
"""clang-tidy over the tree: tidy.py [--all | --seconds N] BUILD_DIR

Every source of the tree is looked at once, with the headers it includes, and every header without a source of its own is
compiled alone, with the flags that
BUILD_DIR/compile_commands.json has for it (a test's, for what that build leaves out: headers, fuzz targets, examples). What
was found clean is noted in build/lint/ under a hash of the tool's version, .clang-tidy, the flags, and the file with all of
the tree that it includes; until one of these changes it is not looked at again.

Files that git says were changed last come first, so that a limit of time leaves out what is oldest. With one, no further
file is begun when the time is over, and one line says how many are left for the next run or for --all.
"""
import argparse
import hashlib
import json
import os
import re
import shlex
import shutil
import subprocess
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from tree import CODE, list_files, read_includes, resolve

TOOL = "clang-tidy-14"
COMPILER = "clang++-14"
NOTES = Path("build/lint")
TOGETHER = re.compile(r'^#include "(/.*)"$', re.MULTILINE)
FINDING = re.compile(r"^\S+:\d+:\d+: (?:warning|error): ", re.MULTILINE)


def read_flags(build_dir):
    """Flags by file of the tree, without the input's and the output's names, and without precompiled headers: those are
    GCC's, and without them each file shows that it includes what it uses."""
    flags = {}
    for entry in json.loads((build_dir / "compile_commands.json").read_text()):
        arguments = shlex.split(entry["command"])[1:]
        output = arguments.index("-o")
        del arguments[output : output + 2]
        if "-include" in arguments:
            included = arguments.index("-include")
            del arguments[included : included + 2]
        # The last one is for files that are compiled together, and GCC's own.
        kept = [a for a in arguments if a not in ("-c", "-Wno-subobject-linkage") and not a.endswith(entry["file"])]
        for file in list_compiled(Path(entry["file"])):
            flags[os.path.relpath(file, ".")] = kept
    return flags


def list_compiled(file):
    """The file, or those that it compiles together."""
    return TOGETHER.findall(file.read_text()) if file.parent.name == "Unity" else [file]


def choose_flags(flags, path):
    if path in flags:
        return flags[path]
    room = os.path.dirname(path) + "/"
    # What all tests share needs more libraries than what lies beside it.
    places = ("tests/Integration/",) if room == "tests/Support/" else (room, "tests/Integration/")
    near = [other for place in places for other in sorted(flags) if other.startswith(place)]
    # Two libraries may share a room: whoever includes it has the libraries that it needs.
    like = next((other for other in near if any(name == path for _, name, _ in read_includes(".", other))), near[0])
    return [*flags[like], "-I" + os.getcwd(), "-I" + os.getcwd() + "/Platform"]


def build_command(path, flags):
    """Findings in a header come from the sources that include it; by itself it only has to compile."""
    if path.endswith(".h"):
        return [COMPILER, "-fsyntax-only", *flags, "-Wno-pragma-once-outside-header", "-x", "c++", path]
    return [TOOL, "--quiet", path, "--", *flags]


def header_of(path):
    return str(Path(path).with_suffix(".h"))


def list_units(files):
    return [path for path in files if path.endswith(".cpp") or str(Path(path).with_suffix(".cpp")) not in files]


def list_latest():
    """Changed files, the latest first: those not committed, then commit by commit. Without git none."""
    if shutil.which("git") is None:
        return []
    names = []
    for command in ("diff --name-only HEAD", "ls-files --others --exclude-standard", "log -n 300 --format= --name-only"):
        result = subprocess.run(["git", *command.split()], capture_output=True, text=True, check=False)
        names += result.stdout.splitlines()
    return list(dict.fromkeys(names))


def read_settings(path):
    """Without the comments: to explain a setting makes nobody's file unknown."""
    return "\n".join(line for line in Path(path).read_text().splitlines() if not line.startswith("#"))


class Hasher:
    """Hashes a file with all of the tree that it includes."""

    def __init__(self, files):
        self.files = set(files)
        version = subprocess.run([TOOL, "--version"], capture_output=True, text=True, check=True).stdout
        self.base = version + "".join(read_settings(path) for path in list_files(".", {".clang-tidy"}))
        self.texts = {}
        self.direct = {}

    def get_closure(self, path):
        found = set()
        todo = [path]
        while todo:
            current = todo.pop()
            if current in found:
                continue
            found.add(current)
            if current not in self.direct:
                names = (name for _, name, _ in read_includes(".", current))
                self.direct[current] = {resolve(self.files, current, name) for name in names} - {None}
                self.texts[current] = Path(current).read_text()
            todo += self.direct[current]
        return sorted(found)

    def hash(self, path, flags):
        digest = hashlib.sha256((self.base + " ".join(flags)).encode())
        for file in self.get_closure(path):
            digest.update(f"\n{file}\n{self.texts[file]}".encode())
        return digest.hexdigest()


class Run:
    def __init__(self, deadline):
        self.deadline = deadline
        self.lock = threading.Lock()
        self.told = set()
        self.failed = False
        self.left = 0

    def check(self, path, flags, key):
        if self.deadline is not None and time.monotonic() > self.deadline:
            with self.lock:
                self.left += 1
            return
        result = subprocess.run(build_command(path, flags), capture_output=True, text=True, check=False)
        if result.returncode == 0:
            note = NOTES / path
            note.parent.mkdir(parents=True, exist_ok=True)
            note.write_text(key)
            return
        with self.lock:
            self.failed = True
            self.tell(path, result.stderr if path.endswith(".h") else result.stdout or result.stderr)

    def tell(self, path, output):
        """A header's findings come once, not from everybody who includes it."""
        starts = [match.start() for match in FINDING.finditer(output)]
        if not starts:
            print(f"{path}: {output.strip()}")
        for start, end in zip(starts, starts[1:] + [len(output)]):
            finding = output[start:end].rstrip().replace(os.getcwd() + "/", "")
            if finding.splitlines()[0] not in self.told:
                self.told.add(finding.splitlines()[0])
                print(finding, flush=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build_dir", type=Path)
    parser.add_argument("--all", action="store_true")
    parser.add_argument("--seconds", type=int, default=30)
    options = parser.parse_args()
    files = list_files(".", CODE)
    flags = read_flags(options.build_dir)
    hasher = Hasher(files)
    latest = {path: place for place, path in enumerate(list_latest())}
    places = {path: min(latest.get(name, len(latest)) for name in (path, header_of(path))) for path in files}
    units = sorted(list_units(set(files)), key=lambda path: (places[path], path))
    if not options.all:
        # Beside other tests, some of which measure time.
        os.nice(10)
    run = Run(None if options.all else time.monotonic() + options.seconds)
    known = 0
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        for path in units:
            arguments = choose_flags(flags, path)
            key = hasher.hash(path, arguments)
            note = NOTES / path
            if note.exists() and note.read_text() == key:
                known += 1
            else:
                pool.submit(run.check, path, arguments, key)
    looked_at = len(units) - known - run.left
    print(f"{TOOL}: {looked_at} files looked at, {known} known to be clean, {run.left} left for want of time")
    return 1 if run.failed else 0


if __name__ == "__main__":
    sys.exit(main())
