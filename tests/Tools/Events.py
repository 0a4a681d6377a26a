# Events for the tests: what the recorder makes in the simulated car, and a description beside it.
import hashlib
import json
import pathlib
import struct
import subprocess

RATES = {"VideoCamera1": 15.0, "VideoCamera0": 30.0, "Audio": 38.28, "Gps": 1.0, "Acc": 10.0, "Other": 1.0}


def record(recorder, directory):
    """One event of 2 s before and 2 s after; the path of each file by its type."""
    run = subprocess.run([recorder, "--simulate", "--json", "--output", directory, "--collect-after", "3", "--start", "-2",
                          "--duration", "4"], capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stderr
    return json.loads(run.stdout)["files"]


def count_entries(path):
    """Entries of a file that stores each with its length."""
    content = pathlib.Path(path).read_bytes()
    count = at = 0
    while at < len(content):
        at += 4 + struct.unpack_from("<I", content, at)[0]
        count += 1
    return count


def describe(directory, files, label="", **more):
    """Writes event.json for `files`, with further members. Camera 0 is said to begin 0.4 s before camera 1; nothing else depends on it."""
    def window(kind):
        early = 0.4 if kind == "VideoCamera0" else 0.0
        return {"type": kind, "entries": 0, "rate": RATES[kind], "fromSeconds": -2 - early, "toSeconds": 2 - early,
                "firstTimestampNs": None, "lastTimestampNs": None}

    def entry(kind, path):
        content = pathlib.Path(path).read_bytes()
        return {"type": kind, "name": pathlib.Path(path).name, "bytes": len(content),
                "sha256": hashlib.sha256(content).hexdigest()}

    pathlib.Path(directory, "event.json").write_text(json.dumps({
        "schema": 1, "id": "9f3ca1b2", "software": "tavi-recorder 0.1.0", "label": label, "trigger": "request",
        "time": "2026-11-21T13:40:05.123Z", "manager": "first", "queuedSeconds": 0.0, "interrupted": False,
        "request": {"startSeconds": -2, "durationSeconds": 4, "preview": False}, "maxSpeedKnots": None, "maxG": None,
        "position": None, "previewSeconds": 0, "streams": [window(kind) for kind in files if kind in RATES],
        "files": [entry(kind, path) for kind, path in files.items()], **more}))
