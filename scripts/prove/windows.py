"""Proves windows: what was asked of a recorder against what its files show. Called by scripts/prove-windows.sh.

The scene of a simulated camera shows the wall clock in every frame; it is read back from the MP4 files and compared with
the time that event.json and the file give to the frame. White frames (the first 100 ms of each second) are compared with
the sound's ticks.
"""
import argparse
import array
import json
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = ROOT / "build/release/bin"
SHARES = (0.5, 0.9, 1.0, 1.1)
STALL_MS = 3500
BURST = 20
# The clock's place in the picture, in dots of 12 pixels (Platform/SoftImx/ScenePainter.cpp).
DOT, CLOCK_X, CLOCK_Y, CHARACTERS, ADVANCE, ROWS = 12, 214, 160, 12, 6, 7
WIDTH = CHARACTERS * ADVANCE - 1
CLIPS = {"VideoCamera0": "camera1", "VideoCamera1": "camera0"}


def read_glyphs():
    """The digits of the scene's font, from its source: bits of 5 by 7 dots to the character."""
    source = (ROOT / "Platform/SoftImx/BitmapFont.cpp").read_text()
    characters = re.search(r'Characters = "([^"]+)"', source).group(1)
    rows = re.findall(r"\{((?:0x[0-9A-F]{2}(?:, )?){7})\}", source[source.index("Glyphs[]"):])
    glyphs = {}
    for character, bits in zip(characters, rows):
        if character.isdigit():
            glyphs[character] = [int(value, 16) for value in bits.split(", ")]
    return glyphs


GLYPHS = read_glyphs()


def read_clock(picture):
    """Seconds of the day that a clock's dots show; None where it cannot be read, "flash" where all is white."""
    mean = sum(picture) / len(picture)
    if min(picture) > 180:
        return "flash"
    text = ""
    for n in range(CHARACTERS):
        if n in (2, 5, 8):
            continue
        dots = [[picture[row * WIDTH + n * ADVANCE + column] > max(mean, 110) for column in range(5)] for row in range(ROWS)]

        def distance(glyph):
            return sum(bool(glyph[row] >> (4 - column) & 1) != dots[row][column] for row in range(ROWS) for column in range(5))

        best = min(GLYPHS, key=lambda character: distance(GLYPHS[character]))
        if distance(GLYPHS[best]) > 4:
            return None
        text += best
    hours, minutes, seconds, thousandths = int(text[:2]), int(text[2:4]), int(text[4:6]), int(text[6:])
    return hours * 3600 + minutes * 60 + seconds + thousandths / 1000


def run(*command):
    return subprocess.run(command, capture_output=True, check=False).stdout


def read_frames(clip, seconds):
    """(time in the file, clock) of each frame within the first seconds."""
    crop = f"crop={WIDTH * DOT}:{ROWS * DOT}:{CLOCK_X}:{CLOCK_Y},scale={WIDTH}:{ROWS}:flags=area,format=gray"
    raw = run("ffmpeg", "-v", "error", "-t", str(seconds), "-i", clip, "-an", "-vf", crop, "-fps_mode", "passthrough",
              "-f", "rawvideo", "-")
    times = run("ffprobe", "-v", "error", "-read_intervals", f"%+{seconds + 1}", "-select_streams", "v", "-show_entries",
                "packet=pts_time", "-of", "csv=p=0", clip).decode().split()
    size = WIDTH * ROWS
    pictures = [raw[i:i + size] for i in range(0, len(raw) - size + 1, size)]
    return [(float(at.strip(",")), read_clock(picture)) for at, picture in zip(times, pictures)]


def read_ticks(clip):
    """Times in the file at which a tick of the sound begins."""
    rate, block = 44100, 220
    raw = run("ffmpeg", "-v", "error", "-i", clip, "-vn", "-af", "aresample=async=1:first_pts=0", "-ac", "1", "-ar", str(rate),
              "-f", "s16le", "-")
    samples = array.array("h", raw[:len(raw) // 2 * 2])
    ticks, quiet = [], 0
    for i in range(0, len(samples) - block, block):
        loud = max(samples[i:i + block]) > 6000
        if loud and quiet > 40:
            ticks.append(i / rate)
        quiet = 0 if loud else quiet + 1
    return ticks


def apart(first, second, period):
    """The signed distance of two times on a circle."""
    return (first - second + period / 2) % period - period / 2


class Recorder:
    def __init__(self, share, stalls):
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="tavi-prove-"))
        suffix = f"@{share}" + (f"~{STALL_MS}" if stalls else "")
        settings = {"pipeline": {"camera0": {"device": "sim:camera1" + suffix}, "camera1": {"device": "sim:camera0" + suffix}},
                    "events": {"queueLength": BURST, "withPreview": False}}
        (self.dir / "settings.json").write_text(json.dumps(settings))
        self.log = open(self.dir / "log", "w")
        self.process = subprocess.Popen([BIN / "tavi-recorder", "run", "--simulate", "--config", self.dir / "settings.json",
                                         "--output", self.dir, "--control", self.dir / "ctl/socket"],
                                        stdout=self.log, stderr=subprocess.STDOUT)
        while self.ask("status").get("state") != "recording":
            time.sleep(0.5)
        # Until the rings are full.
        time.sleep(33)

    def ask(self, *words):
        reply = run(BIN / "tavi-ctl", "--json", "--control", self.dir / "ctl/socket", *words)
        try:
            return json.loads(reply.splitlines()[0])
        except (ValueError, IndexError):
            return {}

    def settle(self):
        while True:
            status = self.ask("status")
            if not status.get("running") and not status.get("waiting"):
                return
            time.sleep(1)

    def end(self, keep):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(60)
        self.log.close()
        if not keep:
            shutil.rmtree(self.dir)


class Worst:
    """The largest value of each kind, with what it was."""

    def __init__(self):
        self.values = {}

    def note(self, kind, value, what):
        if kind not in self.values or value > self.values[kind][0]:
            self.values[kind] = (value, what)


def check_event(path, look_at_all, worst):
    event = json.loads((path / "event.json").read_text())
    asked_from = event["request"]["startSeconds"]
    asked_to = asked_from + event["request"]["durationSeconds"]
    hours, minutes, seconds = event["time"][11:-1].split(":")
    # The scene's clock is the system's; the event's is the receiver's.
    moment = int(hours) * 3600 + int(minutes) * 60 + float(seconds) + (event["systemAheadSeconds"] or 0.0)
    still = {part["type"] for part in event["missing"] if "nothing came" in part["reason"]}
    for stream in event["streams"]:
        kind = stream["type"]
        worst.note(("late", kind), stream["fromSeconds"] - asked_from, event["id"])
        worst.note(("early", kind), asked_to - stream["toSeconds"], event["id"])
        if kind not in CLIPS:
            continue
        clip = next(path / file["name"] for file in event["files"] if file["type"] == kind)
        frames = read_frames(clip, 200 if look_at_all else 2)
        offsets = [apart(clock, moment + stream["fromSeconds"] + at, 86400) for at, clock in frames if isinstance(clock, float)]
        if not offsets:
            worst.note(("unread", kind), 1, event["id"])
            continue
        worst.note(("clock", kind), max(abs(offset) for offset in offsets), event["id"])
        if look_at_all and kind not in still:
            flashes = [at for (_, before), (at, clock) in zip(frames, frames[1:]) if clock == "flash" and before != "flash"]
            ticks = read_ticks(clip)
            for flash in flashes:
                near = [abs(flash - tick) for tick in ticks if abs(flash - tick) < 0.4]
                if near:
                    worst.note(("tick", kind), min(near), event["id"])
    return any(stream["fromSeconds"] <= 0 <= stream["toSeconds"] for stream in event["streams"] if stream["type"] in CLIPS)


def prove(share, count, chance, keep, worst):
    stalls = share == 1.0
    recorder = Recorder(share, stalls)
    accepted, refused = [], 0
    while len(accepted) < count:
        burst = min(BURST if chance.random() < 0.15 else 1, count - len(accepted))
        for _ in range(burst):
            before = chance.randint(0, 25)
            length = before + chance.randint(0 if before else 1, 8)
            reply = recorder.ask("event", "--before", str(before), "--duration", str(length))
            if reply.get("ok"):
                accepted.append(reply["event"])
            else:
                refused += 1
        time.sleep(chance.random() * 6)
    recorder.settle()
    directories = {path.name[-8:]: path for path in (recorder.dir / "events").iterdir() if path.name[0].isdigit()}
    lost = [event for event in accepted if event not in directories]
    without = 0
    for number, event in enumerate(accepted):
        if event in directories and not check_event(directories[event], number % 10 == 0, worst):
            without += 1
    print(f"cameras at {share} of their rate{', standing still at times' if stalls else ''}: {len(accepted)} accepted, "
          f"{refused} refused, {len(lost)} lost, {without} without their moment", flush=True)
    recorder.end(keep)
    return len(lost) + without


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--events", type=int, default=300)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--shares", type=float, nargs="+", default=SHARES, help="of their rate that the cameras deliver")
    parser.add_argument("--keep", action="store_true", help="keep the events' directories in /tmp")
    options = parser.parse_args()
    chance = random.Random(options.seed)
    missed = 0
    for share in options.shares:
        worst = Worst()
        missed += prove(share, max(options.events // len(options.shares), 1), chance, options.keep, worst)
        kinds = sorted({kind for _, kind in worst.values})
        print(f"  {'stream':14}{'late s':>9}{'early s':>9}{'clock ms':>10}{'tick ms':>9}")
        for kind in kinds:
            value = lambda name: worst.values.get((name, kind), (None, ""))[0]
            cell = lambda number, scale, width: f"{'-' if number is None else f'{number * scale:.{3 if scale == 1 else 1}f}':>{width}}"
            print(f"  {kind:14}{cell(value('late'), 1, 9)}{cell(value('early'), 1, 9)}{cell(value('clock'), 1000, 10)}{cell(value('tick'), 1000, 9)}")
            frame = 1000 / (30 if kind == "VideoCamera0" else 15) / min(share, 1)
            clock = value("clock")
            goals = [(value("late") or 0) <= 0.005, (value("early") or 0) <= 0.005, clock is None or clock * 1000 <= frame,
                     value("unread") is None]
            if not all(goals):
                missed += 1
                print(f"    MISS: {', '.join(str(worst.values[(name, kind)]) for name in ('late', 'early', 'clock', 'unread') if (name, kind) in worst.values)}")
    print("every goal met" if missed == 0 else f"{missed} goals missed")
    return 1 if missed else 0


sys.exit(main())
