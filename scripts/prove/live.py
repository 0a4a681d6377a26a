"""Proves that live viewers cost the recording nothing. Called by scripts/prove-live.sh.

A stalled viewer reads until it has seen pictures and then never again. The others note the time of each fragment (ISO/IEC
14496-12, "tfdt"): what is missing shows as a step of more than a frame.
"""
import argparse
import http.client
import json
import pathlib
import re
import shutil
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
TICKS = 90_000
JSON, FRAGMENTS = 0, {2: "camera0", 4: "camera1"}
WARM_UP = 35  # seconds until the rings are full
EVENT_SECONDS = 20


class Unit:
    """A recorder in the simulated car with the console beside it."""

    def __init__(self, options):
        self.programs = ROOT / options.programs
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="tavi-live-"))
        self.socket = self.directory / "ctl/socket"
        size = {"width": options.width, "height": options.height}
        settings = self.directory / "settings.json"
        settings.write_text(json.dumps({"pipeline": {"camera0": {**size, "bitrate": 2000}, "camera1": {**size, "bitrate": 2000}}}))
        with open(self.directory / "log", "w") as log:
            self.recorder = subprocess.Popen(
                [self.programs / "tavi-recorder", "run", "--simulate", "--config", settings, "--output", self.directory,
                 "--control", self.socket], stdout=log, stderr=log)
            self.wait_until_recording()
            console = self.directory / "web.json"
            console.write_text(json.dumps({"port": 8099, "controlSocket": str(self.socket)}))
            self.web = subprocess.Popen([self.programs / "tavi-web", "--config", console], stdout=subprocess.PIPE, stderr=log,
                                        text=True)
        self.address = re.search(r"//([^/]+)", self.web.stdout.readline())[1]

    def ask(self, *command):
        done = subprocess.run([self.programs / "tavi-ctl", "--json", "--control", self.socket, *command], capture_output=True,
                              text=True, check=False)
        return json.loads(done.stdout) if done.stdout.strip() else {}

    def wait_until_recording(self):
        while self.ask("status").get("state") != "recording":
            if self.recorder.poll() is not None:
                raise SystemExit((self.directory / "log").read_text())
            time.sleep(0.5)

    def count(self):
        """(entries, missed) of each camera and the sound, as the recorder counts them."""
        sources = self.ask("status")["sources"]
        return {name: (source["entries"], source["missed"]) for name, source in sources.items()
                if name in ("camera0", "camera1", "audio")}

    def get_megabytes(self, process):
        text = pathlib.Path(f"/proc/{process.pid}/status").read_text()
        return int(re.search(r"VmRSS:\s+(\d+)", text)[1]) / 1000

    def close(self):
        for process in (self.web, self.recorder):
            process.send_signal(signal.SIGTERM)
            process.wait(timeout=60)
        shutil.rmtree(self.directory)


class Viewer(threading.Thread):
    """Reads the live messages until it is told to end; a stalled one only until both cameras have moved."""

    def __init__(self, address, stalls):
        super().__init__(daemon=True)
        self.address, self.stalls, self.ends = address, stalls, False
        self.times = {name: [] for name in FRAGMENTS.values()}
        self.gaps, self.first, self.problem = [], {}, ""

    def run(self):
        try:
            self.begun = time.monotonic()
            self.connection = http.client.HTTPConnection(self.address, timeout=20)
            if self.stalls:
                # Else the kernel would take some megabytes for it.
                self.connection.sock = socket.socket()
                self.connection.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8192)
                host, port = self.address.rsplit(":", 1)
                self.connection.sock.connect((host, int(port)))
            self.connection.request("GET", "/api/live")
            answer = self.connection.getresponse()
            if answer.status != 200:
                raise OSError(f"status {answer.status}")
            while not self.ends and not (self.stalls and self.moves()):
                self.take(answer)
            while not self.ends:
                time.sleep(0.1)
        except (OSError, http.client.HTTPException, struct.error) as error:
            self.problem = repr(error)

    def take(self, answer):
        kind, size = struct.unpack(">BI", answer.read(5))
        payload = answer.read(size)
        if kind in FRAGMENTS:
            at = payload.index(b"tfdt") + 4
            wide = payload[at] == 1
            self.times[FRAGMENTS[kind]].append(struct.unpack_from(">Q" if wide else ">I", payload, at + 4)[0])
            self.first.setdefault(kind, time.monotonic() - self.begun)
        elif kind == JSON and b'"gap"' in payload:
            self.gaps.append(payload.decode())

    def moves(self):
        return all(len(times) > 10 for times in self.times.values())

    def count_lost(self):
        """Frames that are missing between two fragments, by the usual distance of two."""
        lost = 0
        for times in self.times.values():
            steps = [b - a for a, b in zip(times, times[1:])]
            usual = statistics.median(steps) if steps else TICKS
            lost += sum(round(step / usual) - 1 for step in steps)
        return lost


def take_events(unit, seconds):
    """Events one after the other; what is missing of them."""
    events, missing, end = 0, [], time.monotonic() + seconds
    while time.monotonic() < end or events == 0:
        reply = unit.ask("event", "--before", "10", "--duration", str(EVENT_SECONDS), "--no-preview", "--wait")
        events += 1
        missing += reply.get("missing", []) if reply.get("ok") or "missing" in reply else [reply]
    return events, missing


def measure(unit, options, viewers):
    before = unit.count()
    for viewer in viewers:
        viewer.start()
    events, missing = take_events(unit, options.seconds)
    held = unit.get_megabytes(unit.web)
    for viewer in viewers:
        viewer.ends = True
    after = unit.count()
    for viewer in viewers:
        viewer.join(timeout=30)
    lost = {name: after[name][1] - before[name][1] for name in after}
    entries = {name: after[name][0] - before[name][0] for name in after}
    return {"entries": entries, "lost": lost, "events": events, "missing": missing, "held": held}


def show(title, result, viewers):
    reading = [viewer for viewer in viewers if not viewer.stalls]
    first = sorted(max(viewer.first.values()) for viewer in viewers if len(viewer.first) == len(FRAGMENTS))
    pictures = "-"
    if viewers:
        counts = [len(times) for viewer in reading for times in viewer.times.values()]
        pictures = f"{min(counts)} to {max(counts)} pictures a camera, {sum(v.count_lost() for v in reading)} missing, " \
                   f"{sum(len(v.gaps) for v in reading)} gaps"
    soon = f"{statistics.median(first):.2f} s, {first[-1]:.2f} s" if first else "-"
    entries, lost = "/".join(map(str, result["entries"].values())), "/".join(map(str, result["lost"].values()))
    print(f"| {title} | {entries} | {lost} | {result['events']} | {len(result['missing'])} | {pictures} | {soon} | "
          f"{result['held']:.0f} MB |", flush=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=int, default=60)
    parser.add_argument("--viewers", type=int, default=10)
    parser.add_argument("--stalled", type=int, default=3)
    parser.add_argument("--programs", default="build/release/bin")
    parser.add_argument("--width", type=int, default=640)
    parser.add_argument("--height", type=int, default=360)
    options = parser.parse_args()
    unit = Unit(options)
    try:
        time.sleep(WARM_UP)
        print("| viewers | entries of cameras and sound | missed | events | missing of them | who reads sees | first pictures "
              "of both, median and latest | tavi-web holds |\n|---|---|---|---|---|---|---|---|")
        alone = measure(unit, options, [])
        show("none", alone, [])
        viewers = [Viewer(unit.address, stalls=n < options.stalled) for n in range(options.viewers)]
        watched = measure(unit, options, viewers)
        show(f"{options.viewers}, {options.stalled} stalled", watched, viewers)
        failed = [viewer.problem for viewer in viewers if viewer.problem]
        reading = [viewer for viewer in viewers if not viewer.stalls]
        wrong = failed or watched["missing"] or sum(watched["lost"].values()) > sum(alone["lost"].values()) or any(
            not viewer.moves() or viewer.gaps or viewer.count_lost() for viewer in reading)
        if wrong:
            print(f"a goal is missed: {failed} {watched['missing']}", file=sys.stderr)
        return 1 if wrong else 0
    finally:
        unit.close()


if __name__ == "__main__":
    sys.exit(main())
