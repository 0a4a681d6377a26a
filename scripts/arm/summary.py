#!/usr/bin/env python3
"""What scripts/arm/inside.sh asks of test results and of an event.

summary.py skips ARCHITECTURE          one regular expression of the tests that skips.txt leaves out
summary.py failed JUNIT                one regular expression of the tests that failed, empty if none
summary.py tests ARCHITECTURE BUILD REGEX   the lines of the summary; exits with 1 if a test failed twice
summary.py filled SECONDS              exits with 0 when the status on standard input has that much of each source
summary.py event REPLY                 the line of the summary; exits with 1 if anything of the event is missing
"""
import glob
import json
import os
import re
import subprocess
import sys
import xml.etree.ElementTree

HERE = os.path.dirname(os.path.abspath(__file__))


def read_skips(architecture):
    """(regular expression, reason) of each line for this architecture."""
    with open(os.path.join(HERE, "skips.txt"), encoding="utf-8") as file:
        lines = [line.rstrip("\n").split(" ", 2) for line in file if line.strip() and not line.startswith("#")]
    return [(pattern, reason) for who, pattern, reason in lines if who in (architecture, "both")]


def read_results(path):
    """Each test's state (run, fail, notrun) and what it said, by name."""
    if not os.path.exists(path):
        return {}
    cases = xml.etree.ElementTree.parse(path).getroot().iter("testcase")
    return {case.get("name"): (case.get("status"), case.findtext("system-out") or "") for case in cases}


def of_failed(results):
    return [name for name, (state, _) in results.items() if state == "fail"]


def tell_why(text):
    """The line in which a test says why it skipped itself."""
    lines = [line.strip() for line in text.splitlines()]
    after = [lines[i + 1] for i, line in enumerate(lines[:-1]) if line.endswith(": Skipped")]
    return (after or [""])[0] or "it says no reason"


def list_tests(build):
    text = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1"], capture_output=True, text=True, check=True)
    return [test["name"] for test in json.loads(text.stdout)["tests"]]


def print_tests(architecture, build, wanted):
    results = read_results(os.path.join(build, "arm-tests.xml"))
    again = read_results(os.path.join(build, "arm-tests-again.xml"))
    failed = [name for name in of_failed(results) if again.get(name, ("fail",))[0] != "run"]
    late = [name for name in of_failed(results) if name not in failed]
    own = {name: tell_why(text) for name, (state, text) in results.items() if state == "notrun"}
    left_out = {
        name: reason
        for name in list_tests(build) if re.search(wanted, name)
        for pattern, reason in read_skips(architecture) if re.search(pattern, name)
    }
    for name, reason in sorted({**own, **left_out}.items()):
        print(f"skipped: {name}: {reason}")
    for name in late:
        print(f"second try: {name}")
    for name in failed:
        print(f"FAILED: {name}")
    passed = sum(state == "run" for state, _ in results.values()) + len(late)
    print(f"tests: {passed} passed, {len(failed)} failed, {len(own) + len(left_out)} skipped", end="")
    print(f", {len(late)} of the passed in a second try" if late else "")
    return 1 if failed or not passed else 0


def are_filled(status, seconds):
    sources = status.get("sources", {})
    wanted = ["camera0", "camera1", "audio", "gps", "acc", "other"]
    return all(
        name in sources and sources[name]["entries"] >= seconds * sources[name]["configuredRate"] for name in wanted
    )


def count_frames(path):
    probe = ["ffprobe", "-v", "error", "-select_streams", "v:0", "-count_frames", "-show_entries", "stream=nb_read_frames",
             "-of", "csv=p=0", path]
    return int(subprocess.run(probe, capture_output=True, text=True, check=True).stdout.strip() or 0)


def print_event(path):
    with open(path, encoding="utf-8") as file:
        text = file.read()
    reply = json.loads(text.splitlines()[0]) if text.startswith("{") else {"error": text.strip() or "no reply"}
    if not reply.get("ok"):
        print(f"event: FAILED, {reply.get('error')}")
        return 1
    frames = [count_frames(video) for video in sorted(glob.glob(os.path.join(reply["directory"], "video*.mp4")))]
    print(f"event: {reply['files']} files, nothing missing; frames that this machine's own ffmpeg decodes: {frames}")
    return 0 if len(frames) == 2 and min(frames) > 0 else 1


def main(arguments):
    if arguments[0] == "skips":
        print("|".join(pattern for pattern, _ in read_skips(arguments[1])))
    elif arguments[0] == "failed":
        print("|".join(f"^{re.escape(name)}$" for name in of_failed(read_results(arguments[1]))))
    elif arguments[0] == "tests":
        return print_tests(*arguments[1:])
    elif arguments[0] == "filled":
        text = sys.stdin.read()
        return 0 if text.startswith("{") and are_filled(json.loads(text.splitlines()[0]), int(arguments[1])) else 1
    elif arguments[0] == "event":
        return print_event(arguments[1])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
