#!/usr/bin/env python3
"""What scripts/arm/inside.sh asks of test results and of an event.

summary.py skips ARCHITECTURE          one regular expression of the tests that skips.txt leaves out
summary.py late BUILD REGEX            one of those that are still to be tried, by a slower clock; empty if none
summary.py tests ARCHITECTURE BUILD REGEX   the lines of the summary; exits with 1 if a test failed by each clock
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
    """(regular expression, reason) of each line for this architecture, or for "slow"."""
    with open(os.path.join(HERE, "skips.txt"), encoding="utf-8") as file:
        lines = [line.rstrip("\n").split(" ", 2) for line in file if line.strip() and not line.startswith("#")]
    return [(pattern, reason) for who, pattern, reason in lines if who == architecture or (who == "both" and architecture != "slow")]


def read_results(build):
    """Each test's state (run, fail, notrun), what it said, and how often it was tried, by name: its last try counts."""
    results = {}
    for path in sorted(glob.glob(os.path.join(build, "arm-tests*.xml")), key=os.path.getmtime):
        for case in xml.etree.ElementTree.parse(path).getroot().iter("testcase"):
            name = case.get("name")
            tries = results[name][2] + 1 if name in results else 1
            results[name] = (case.get("status"), case.findtext("system-out") or "", tries)
    return results


def of_failed(results):
    return [name for name, (state, _, _) in results.items() if state == "fail"]


def find_late(build, wanted):
    """Tests that failed, and those that were put off and not tried yet."""
    results = read_results(build)
    slow = [pattern for pattern, _ in read_skips("slow")]
    put_off = [name for name in list_tests(build)
               if name not in results and re.search(wanted, name) and any(re.search(pattern, name) for pattern in slow)]
    return of_failed(results) + put_off


def tell_why(text):
    """The line in which a test says why it skipped itself; of a script's the last one."""
    lines = [line.strip() for line in text.splitlines() if line.strip()]
    after = [lines[i + 1] for i, line in enumerate(lines[:-1]) if line.endswith(": Skipped")]
    return (after or lines[-1:] or ["it says no reason"])[0].removeprefix("skipped: ")


def list_tests(build):
    text = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1"], capture_output=True, text=True, check=True)
    return [test["name"] for test in json.loads(text.stdout)["tests"]]


def print_tests(architecture, build, wanted):
    results = read_results(build)
    failed = of_failed(results)
    own = {name: tell_why(text) for name, (state, text, _) in results.items() if state == "notrun"}
    left_out = {
        name: reason
        for name in list_tests(build) if re.search(wanted, name)
        for pattern, reason in read_skips(architecture) if re.search(pattern, name)
    }
    slow = [pattern for pattern, _ in read_skips("slow")]
    passed = [name for name, (state, _, _) in results.items() if state == "run"]
    again = [name for name in passed if results[name][2] > 1]
    put_off = [name for name in passed if any(re.search(pattern, name) for pattern in slow)]
    for name, reason in sorted({**own, **left_out}.items()):
        print(f"skipped: {name}: {reason}")
    for name in again:
        print(f"{results[name][2]} tries: {name}")
    for name in failed:
        print(f"FAILED: {name}")
    print(f"tests: {len(passed)} passed, {len(failed)} failed, {len(own) + len(left_out)} skipped; of those that passed {len(put_off)} "
          f"by a slower clock, {len(again)} tried more than once")
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
    elif arguments[0] == "late":
        print("|".join(f"^{re.escape(name)}$" for name in find_late(*arguments[1:])))
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
