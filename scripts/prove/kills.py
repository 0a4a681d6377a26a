"""Kills a recorder again and again, and looks at what the next one makes of it. Called by scripts/prove-kills.sh."""
import argparse
import json
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time

# What an event's moment must be old for its event to outlive a kill.
SAFE_SECONDS = 2.0
SETTINGS = {
    "events": {"withPreview": False},
    # Small pictures, so that several proofs run beside each other.
    "pipeline": {"camera0": {"bitrate": 500, "width": 320, "height": 180},
                 "camera1": {"bitrate": 800, "width": 320, "height": 180}},
    "storage": {"minFreeBytes": 0},
}


class Recorder:
    """One process after another on the same directories."""

    def __init__(self, programs, directory):
        self.programs = programs
        self.directory = directory
        self.socket = os.path.join(directory, "ctl", "socket")
        self.process = None
        with open(os.path.join(directory, "settings.json"), "w", encoding="utf-8") as file:
            json.dump(SETTINGS, file)

    def start(self):
        log = open(os.path.join(self.directory, "log"), "ab")
        self.process = subprocess.Popen(
            [os.path.join(self.programs, "tavi-recorder"), "run", "--simulate", "--config",
             os.path.join(self.directory, "settings.json"), "--output", self.directory, "--control", self.socket],
            stdout=log, stderr=log)
        log.close()

    def end(self, how):
        self.process.send_signal(how)
        return self.process.wait(60)

    def ask(self, *words):
        done = subprocess.run([os.path.join(self.programs, "tavi-ctl"), "--json", "--control", self.socket, *words],
                              capture_output=True, text=True, check=False)
        try:
            return json.loads(done.stdout)
        except ValueError:
            return {}

    def wait_until_recording(self, entries):
        deadline = time.monotonic() + 90
        while time.monotonic() < deadline:
            status = self.ask("status")
            if status.get("state") == "recording" and status["sources"]["camera0"]["entries"] >= entries:
                return
            if self.process.poll() is not None:
                raise RuntimeError(f"the recorder has ended with status {self.process.returncode}")
            time.sleep(0.1)
        raise RuntimeError("the recorder does not record")


class Proof:
    def __init__(self, recorder, chance):
        self.recorder = recorder
        self.chance = chance
        # Each request by its label: how old its moment was at the end of the process.
        self.ages = {}
        self.kills = 0
        self.early_kills = 0

    def run_round(self, number):
        """One process from its start to its death."""
        self.recorder.start()
        if self.chance.random() < 0.3:
            # In the middle of what the one before has left.
            time.sleep(self.chance.uniform(0.0, 1.5))
            self.early_kills += 1
        else:
            self.recorder.wait_until_recording(60)
            self.take_events(number)
        self.recorder.end(signal.SIGKILL)
        self.kills += 1

    def take_events(self, number):
        asked = {}
        end = time.monotonic() + self.chance.uniform(0.0, 9.0)
        for event in range(self.chance.randint(1, 3)):
            label = f"round {number} event {event}"
            moment = time.monotonic()
            reply = self.recorder.ask("event", "--before", "3", "--duration", str(self.chance.randint(3, 8)),
                                      "--label", label)
            if reply.get("ok"):
                asked[label] = moment
            time.sleep(max(0.0, min(self.chance.uniform(0.0, 3.0), end - time.monotonic())))
        time.sleep(max(0.0, end - time.monotonic()))
        for label, moment in asked.items():
            self.ages[label] = time.monotonic() - moment

    def read_events(self):
        root = os.path.join(self.recorder.directory, "events")
        events = []
        for name in sorted(os.listdir(root)):
            if name.startswith(".") or name == "index.html":
                continue
            with open(os.path.join(root, name, "event.json"), encoding="utf-8") as file:
                events.append(json.load(file))
        return events

    def find_debris(self):
        found = []
        for place in ("work", "power_failure", "power_restore", "events/.recovered"):
            path = os.path.join(self.recorder.directory, place)
            found += [os.path.join(place, name) for name in os.listdir(path)] if os.path.isdir(path) else []
        hidden = os.listdir(os.path.join(self.recorder.directory, "events"))
        return found + [name for name in hidden if name.startswith(".") and name not in (".lock", ".recovered", ".chain")]

    def judge(self):
        events = self.read_events()
        labels = [event["label"] for event in events]
        old = [label for label, age in self.ages.items() if age > SAFE_SECONDS]
        lost = [label for label in old if label not in labels]
        doubled = sorted({label for label in labels if labels.count(label) > 1})
        foreign = [label for label in labels if label not in self.ages]
        without = []
        for event in events:
            if event["label"] not in old:
                continue
            cameras = [stream for stream in event["streams"] if stream["type"].startswith("Video")]
            if len(cameras) < 2 or any(stream["fromSeconds"] > 0 or stream["toSeconds"] < 0 for stream in cameras):
                without.append(event["label"])
        rows = [("kills", self.kills, None), ("of them while the one before was recovered", self.early_kills, None),
                ("events asked for", len(self.ages), None),
                (f"of them more than {SAFE_SECONDS:.0f} s old", len(old), None),
                ("of all events interrupted", sum(event["interrupted"] for event in events), None),
                ("lost", len(lost), lost), ("without their moment in both cameras", len(without), without),
                ("doubled", len(doubled), doubled), ("of no request", len(foreign), foreign)]
        verified = subprocess.run([os.path.join(self.recorder.programs, "tavi-verify"),
                                   os.path.join(self.recorder.directory, "events")],
                                  capture_output=True, text=True, check=False)
        told = [line for line in verified.stdout.splitlines() if ": intact" not in line]
        broken = [] if verified.returncode == 0 else told or [f"status {verified.returncode}: {verified.stderr.strip()}"]
        rows.append(("findings of tavi-verify", len(broken), broken))
        debris = self.find_debris()
        rows.append(("left over", len(debris), debris))
        print("| | |\n|---|---|")
        for name, value, examples in rows:
            print(f"| {name} | {value} |" + (f" {', '.join(examples[:5])}" if examples else ""))
        return not (lost or without or doubled or foreign or broken or debris)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--programs", required=True)
    parser.add_argument("--rounds", type=int, default=1000)
    parser.add_argument("--seed", type=int, default=None)
    options = parser.parse_args()
    seed = options.seed if options.seed is not None else random.SystemRandom().randrange(1 << 32)
    print(f"{options.rounds} rounds, seed {seed}", flush=True)
    directory = tempfile.mkdtemp(prefix="tavi-kills-")
    recorder = Recorder(os.path.abspath(options.programs), directory)
    proof = Proof(recorder, random.Random(seed))
    good = False
    try:
        for number in range(options.rounds):
            proof.run_round(number)
        recorder.start()
        recorder.wait_until_recording(1)
        good = recorder.end(signal.SIGTERM) == 0 and proof.judge()
    finally:
        if recorder.process is not None and recorder.process.poll() is None:
            recorder.end(signal.SIGKILL)
        if good:
            shutil.rmtree(directory)
        else:
            print(f"what was found is in {directory}")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
