"""The recorder in a machine with the kernel's own drivers: an event, faults of devices, power cuts. See scripts/test-guest.sh."""
import argparse
import math
import os
import random
import subprocess
import sys
import time

import cuts
import disk
import events
import faults
import machine

DISK_MB = 512
# Small pictures, for everything is computed by an emulated processor.
PICTURE = {"fps": 10, "bitrate": 600, "width": 320, "height": 180, "previewFps": 2, "encoder": "x264"}
# Where pictures are not what is looked at.
PLAIN = dict(PICTURE, fps=5, previewEnabled=False)


class Bench:
    """The machine's disk and its starts, one after another. Its clock goes on from start to start, as one with a battery."""

    def __init__(self, images, programs, directory):
        self.images, self.programs, self.directory = images, programs, directory
        self.image = os.path.join(directory, "data.img")
        self.disk = None
        self.disks = 0

    def new_disk(self):
        with open(self.image, "wb") as file:
            file.truncate(DISK_MB << 20)
        subprocess.run(["mke2fs", "-q", "-t", "ext4", "-F", self.image], check=True)
        self.disks += 1
        self.disk = disk.Disk(self.image, os.path.join(self.directory, f"disk{self.disks}"))

    def start(self):
        return machine.Machine(self.images, self.directory, os.path.join(self.directory, f"disk{self.disks}"), time.time())

    def keep_state(self):
        state = os.path.join(self.images, "state")
        if not os.path.exists(state):
            print("booting the machine, once", flush=True)
            self.new_disk()
            booted = machine.Machine(self.images, self.directory, os.path.join(self.directory, f"disk{self.disks}"))
            try:
                booted.keep_state(state)
            finally:
                booted.cut()

    @staticmethod
    def settings(receiver="/dev/ttyS1", picture=PLAIN):
        return {"pipeline": {"camera0": picture, "camera1": picture, "gps": {"path": receiver}, "restartAfterSeconds": 3},
                "events": {"startSeconds": -3, "durationSeconds": 8},
                "storage": {"eventsDir": "/data/events", "workDir": "/mnt/ramdisk", "backupDir": "/data/power_failure",
                            "restoreDir": "/data/power_restore", "minFreeBytes": 8 << 20}}


def take_event(bench):
    """One event of six sources. Its lines for the summary, and what is not right with it."""
    guest = bench.start()
    try:
        guest.record(bench.settings(picture=PICTURE), ("camera0", "camera1", "audio", "gps", "acc", "other"))
        guest.sleep(6)
        reply = guest.ask("event --wait --before 5 --duration 10 --preview --label 'six sources'")
        kernel = guest.run("uname -rv").strip()
        guest.power_off()
    finally:
        guest.cut()
    target = os.path.join(bench.directory, "out")
    found = events.copy_out(bench.image, target)
    made = events.read_events(target)
    if len(made) != 1 or not reply.get("ok"):
        return kernel, [], found + [f"{len(made)} events, and the reply {reply}"]
    directory, description = made[0]
    found += events.check_event(bench.programs, directory, description) + events.find_debris(target)
    rows = events.list_streams(description)
    return kernel, rows, found


def main():
    parser = argparse.ArgumentParser()
    for name in ("images", "programs", "directory"):
        parser.add_argument(f"--{name}", required=True)
    parser.add_argument("--cuts", type=int, default=3)
    parser.add_argument("--minutes", type=float, default=math.inf)
    parser.add_argument("--faults", choices=("short", "all", "none"), default="short")
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--no-event", action="store_true")
    parser.add_argument("--young", action="store_true")
    options = parser.parse_args()
    seed = options.seed if options.seed is not None else random.SystemRandom().randrange(1 << 32)
    bench = Bench(options.images, options.programs, options.directory)
    bench.keep_state()
    begin, wrong = time.monotonic(), []
    if not options.no_event:
        bench.new_disk()
        kernel, rows, found = take_event(bench)
        wrong += found
        events.show(f"An event of six sources, kernel {kernel}", ("stream", "entries", "from, s", "to, s"), rows, found)
    if options.faults != "none":
        bench.new_disk()
        inflicted = faults.Faults(bench)
        rows = inflicted.run(options.faults == "all")
        wrong += inflicted.findings
        events.show("Faults", ("fault", "what the event says", "back after"), rows, inflicted.findings)
    if options.cuts:
        bench.new_disk()
        cut = cuts.Cuts(bench, random.Random(seed), options.young)
        made = cut.run(options.cuts, options.minutes)
        rows = [(name, f"{value} {', '.join(examples[:5])}" if examples else value) for name, value, examples in made]
        wrong += cut.findings
        events.show(f"Power cuts, seed {seed}", ("", ""), rows, cut.findings)
    print(f"\n{time.monotonic() - begin:.0f} s, {len(wrong)} findings")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
