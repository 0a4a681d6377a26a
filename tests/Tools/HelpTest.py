#!/usr/bin/env python3
"""Compares what the programs say of themselves with what they take: HelpTest.py BIN_DIR MAN_DIR

For each form of each program: the options of --help, of the manual page and of the parser are the same ones, a value that
is empty is refused in one line that names its option, and so is an option that there is not.
"""
import re
import subprocess
import sys
from pathlib import Path

# Each program's forms, and what else a form needs before an option is looked at.
FORMS = {
    "tavi-recorder": [([], []), (["run"], [])],
    "tavi-ctl": [([], ["status"])],
    "tavi-report": [([], ["/"])],
    "tavi-export": [([], ["/", "--gpx"])],
    "tavi-verify": [([], ["/"])],
    "tavi-upload": [([], []), (["run"], []), (["once"], [])],
    "tavi-mqtt": [([], [])],
    "tavi-web": [([], [])],
}
CTL_NEEDS = {"ignition": ["on"], "show": ["last"], "export": ["last", "--output=/tmp/x"], "protect": ["last"], "label": ["last", "x"],
             "remove": ["last"]}

OPTION = re.compile(r"--[a-z][a-z0-9-]*")
faults = []


def run(*words):
    done = subprocess.run(words, capture_output=True, text=True, timeout=60, stdin=subprocess.DEVNULL)
    return done.returncode, done.stdout, done.stderr


def read_help(program, form):
    """The options of a form, and whether each has a value."""
    status, text, _ = run(program, *form, "--help")
    if status != 0:
        faults.append(f"{program} {form}: --help ends with {status}")
    found = {}
    for line in text.splitlines():
        match = re.match(r"  (?:-h,)?(--[a-z][a-z0-9-]*)( [A-Z0-9]\S*)?", line)
        if match:
            found[match[1]] = bool(match[2])
    if "--help" not in found:
        faults.append(f"{program} {form}: --help names no options: {text}")
    return found, text


def read_page(path):
    return set(OPTION.findall(path.read_text().replace("\\-", "-")))


def expect_refusal(program, words, option):
    status, out, err = run(program, *words)
    if status != 2 or err.count("\n") != 1 or option not in err or out:
        faults.append(f"{Path(program).name} {words}: status {status}, {err!r} {out!r}")


def check_form(program, form, needs):
    options, _ = read_help(program, form)
    for option, has_value in options.items():
        if option in ("--help", "--version"):
            continue
        rest = [word for word in needs if not word.startswith(option + "=")]
        if has_value:
            expect_refusal(program, [*form, *rest, option, ""], option)
            expect_refusal(program, [*form, *rest, option + "="], option)
        else:
            expect_refusal(program, [*form, *rest, option + "=nonsense"], option)
    expect_refusal(program, [*form, *needs, "--nonsense"], "--nonsense")
    return set(options)


def check_program(bin_dir, man_dir, name):
    program = str(bin_dir / name)
    options = set()
    _, text = read_help(program, [])
    forms = list(FORMS[name])
    if name == "tavi-ctl":
        commands = re.findall(r"^  tavi-ctl ([a-z-]+)", text, re.MULTILINE)
        if len(commands) < 10:
            faults.append(f"tavi-ctl: --help names few forms: {commands}")
        forms += [([command], CTL_NEEDS.get(command, [])) for command in commands]
    for form, needs in forms:
        if form and form[0] not in text:
            faults.append(f"{name}: --help does not name the form {form}")
        options |= check_form(program, form, needs)
    page = read_page(man_dir / f"{name}.1")
    if name == "tavi-ctl":
        page_text = (man_dir / f"{name}.1").read_text().replace("\\-", "-")
        faults.extend(f"{name}.1: does not name {c}" for c in commands if not re.search(rf"^\.B {c}\b", page_text, re.MULTILINE))
        shown = set(OPTION.findall(text))
        faults.extend(f"{name}: its forms do not name {option}" for option in sorted(options - shown))
    faults.extend(f"{name}.1: does not name {option}" for option in sorted(options - page))
    faults.extend(f"{name}.1: names {option}, which there is not" for option in sorted(page - options))


def main():
    bin_dir, man_dir = Path(sys.argv[1]), Path(sys.argv[2])
    for name in FORMS:
        check_program(bin_dir, man_dir, name)
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
