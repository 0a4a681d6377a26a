#!/usr/bin/env python3
"""The checks beside this file, on small trees with and without mistakes."""
import json
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
TABLE = """
top: Middle low
middle/left: low
middle/right: low
low:
Middle = middle/left middle/right
"""


def run(script, files, *arguments):
    with tempfile.TemporaryDirectory() as root:
        for name, text in files.items():
            path = Path(root) / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
        command = [sys.executable, HERE / script, root, *(Path(root) / argument for argument in arguments)]
        result = subprocess.run(command, capture_output=True, text=True, check=False)
        return result.returncode, result.stdout.replace(root + "/", "").splitlines(), result.stderr


def check_includes(table=TABLE, **sources):
    tree = {"top/t.h": "", "middle/left/l.h": "", "middle/right/r.h": "", "low/b.h": "", "table": table}
    tree.update({name.replace("__", "/").replace("_", "."): text for name, text in sources.items()})
    return run("includes.py", tree, "table")


class Includes(unittest.TestCase):
    def test_what_points_down_or_stays_or_lies_outside_is_right(self):
        sources = {"top__t_cpp": '#include "top/t.h"\n#include <map>\n#include "low/b.h"\n#include "middle/left/l.h"\n'}
        self.assertEqual(check_includes(**sources), (0, [], ""))

    def test_every_other_direction_is_told_with_file_line_and_what_is_allowed(self):
        sources = {
            "low__b_h": '#pragma once\n#include "middle/left/l.h"\n',
            "middle__left__l_h": '# include <middle/right/r.h>\n#include "../right/r.h"\n#include "low/none.h"\n',
        }
        status, lines, _ = check_includes(**sources)
        self.assertEqual(status, 1)
        self.assertEqual(lines, [
            'low/b.h:2: "middle/left/l.h": low may include nothing but itself',
            'middle/left/l.h:1: "middle/right/r.h": middle/left may include low',
            'middle/left/l.h:2: "../right/r.h": middle/left may include low',
            'middle/left/l.h:3: "low/none.h": there is no such file',
        ])

    def test_a_source_includes_its_own_header_first(self):
        status, lines, _ = check_includes(low__b_cpp='#include <map>\n#include "low/b.h"\n')
        self.assertEqual((status, lines), (1, ['low/b.cpp:2: "low/b.h": a source includes its own header first']))

    def test_a_folder_without_a_row_and_a_row_without_a_folder_are_mistakes(self):
        status, lines, _ = check_includes(TABLE + "cellar:\n", attic__a_h="")
        self.assertEqual((status, lines), (1, [
            "cellar: a room of the table without files",
            "attic/a.h: its folder is no room of the table",
        ]))

    def test_a_table_whose_arrows_run_up_or_in_a_circle_is_a_mistake(self):
        status, lines, _ = check_includes(TABLE.replace("low:", "low: middle/left"))
        self.assertEqual((status, lines), (1, ["table: low may not include middle/left, which is no room further down"]))


class Links(unittest.TestCase):
    def test_only_links_that_lead_somewhere_are_right(self):
        pages = {
            "a.md": "# A\n[b](docs/b.md#two-words) [c](https://example.org/none) `[d](none.md)`\n```\n[e](none.md)\n```\n",
            "docs/b.md": "## Two words\n[a](../a.md) [none](a.md)\n[none](../a.md#b)\n",
        }
        self.assertEqual(run("links.py", pages)[:2], (1, [
            "docs/b.md:2: (a.md): leads nowhere",
            "docs/b.md:3: (../a.md#b): there is no such heading",
        ]))


class Tidy(unittest.TestCase):
    def tidy(self, root, *arguments):
        command = [sys.executable, HERE / "tidy.py", *arguments, "build"]
        result = subprocess.run(command, cwd=root, capture_output=True, text=True, check=False)
        return result.returncode, result.stdout.splitlines(), result.stderr

    def test_what_is_clean_is_looked_at_again_only_when_it_or_what_it_includes_has_changed(self):
        with tempfile.TemporaryDirectory() as name:
            root = Path(name)
            (root / "build").mkdir()
            (root / ".clang-tidy").write_text("Checks: '-*,readability-container-size-empty'\nWarningsAsErrors: '*'\n")
            command = f"c++ -I{root} -o a.o -c {root}/a.cpp"
            entry = {"directory": name, "file": f"{root}/a.cpp", "command": command}
            (root / "build/compile_commands.json").write_text(json.dumps([entry]))
            (root / "a.h").write_text("struct Set { int size() const; bool empty() const; };\n")
            (root / "a.cpp").write_text('#include "a.h"\nbool f(const Set& s) { return s.size() == 0; }\n')
            for _ in range(2):  # a finding is never taken for known
                status, lines, errors = self.tidy(root)
                self.assertEqual((status, lines[0][:8], errors), (1, "a.cpp:2:", ""))
            (root / "a.h").write_text("struct Set { int size() const; };\n")
            for looked_at in (1, 0):
                self.assertEqual(self.tidy(root), (0, [
                    f"clang-tidy-14: {looked_at} files looked at, {1 - looked_at} known to be clean, 0 left for want of time",
                ], ""))
            (root / "a.h").write_text("struct Set { unsigned size() const; bool empty() const; };\n")
            status, lines, _ = self.tidy(root, "--seconds", "0")
            self.assertEqual((status, lines[0][-40:]), (0, "known to be clean, 1 left for want of time"[-40:]))
            self.assertEqual(self.tidy(root)[0], 1)


if __name__ == "__main__":
    unittest.main()
