"""The recorder on the emulated board: what it costs there, and an event. See scripts/test-board.sh."""
import argparse
import json
import os
import shutil
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "guest"))
import events  # noqa: E402  # the guest's, which is found by the line above

MEGABYTE = 1 << 20
# As image.sh divides the card.
DATA_BEGIN, DATA_SIZE = 1025 * MEGABYTE, 512 * MEGABYTE
# Without a line from the board for so long, of the host's time, the emulator hangs: it does that now and then.
SILENCE_SECONDS = 900
# Small pictures, for everything is computed by an emulated processor.
PICTURE = {"fps": 10, "bitrate": 600, "width": 320, "height": 180, "previewFps": 2, "encoder": "x264"}
# How sound is taken: from the card itself, and by ALSA's default, through which several programs may record.
CARDS = {"sound from the card": "hw:0,0", "sound by ALSA's default": ""}
SOURCES = ("camera0", "camera1", "audio", "gps", "acc", "other")
COST_SECONDS = 60
GOAL_PERCENT = 0.5
# Threads that take less are not listed.
LEAST_MS = 0.03
COUNT_TOLERANCE = 0.1
# As a timer's rounding shows it; a sensor's entry may fall on either side of the last second.
RATE_TOLERANCE = 0.15


def settings(picture, card=""):
    return {"pipeline": {"camera0": picture, "camera1": picture, "gps": {"path": "/dev/ttymxc0"}, "audio": {"device": card}},
            "events": {"startSeconds": -3, "durationSeconds": 8},
            "storage": {"eventsDir": "/data/events", "workDir": "/mnt/ramdisk", "backupDir": "/data/power_failure",
                        "restoreDir": "/data/power_restore", "minFreeBytes": 8 * MEGABYTE}}


class Board:
    """One start of the board, with what it is to do on its card. Its time is its count of instructions, one a nanosecond."""

    def __init__(self, images, directory, job):
        self.images, self.directory, self.job = images, directory, job
        self.counter = os.path.join(directory, "counter.so") if "cost" in job else None
        self.damage = []

    def path(self, name):
        return os.path.join(self.directory, name)

    def run(self):
        """What the board reports; None if it does not, as often as an emulator may hang."""
        for attempt in ("", ", a second time"):
            self.make_card()
            self.make_chip()
            print(f"starting the board{attempt}", flush=True)
            if self.start():
                break
            print(f"the board has said nothing for {SILENCE_SECONDS} s: the emulator hangs", flush=True)
        self.copy_card()
        if not os.path.exists(self.path("out/report.json")):
            return None
        with open(self.path("out/report.json"), encoding="utf-8") as file:
            return json.load(file)

    def make_card(self):
        data = self.path("data")
        shutil.rmtree(data, ignore_errors=True)
        os.makedirs(data)
        with open(os.path.join(data, "job.json"), "w", encoding="utf-8") as file:
            json.dump(dict(self.job, time=time.time()), file)
        subprocess.run(["cp", "--sparse=always", f"{self.images}/card.img", self.path("card.img")], check=True)
        subprocess.run(["mke2fs", "-q", "-t", "ext4", "-F", "-E", f"offset={DATA_BEGIN}", "-d", data, self.path("card.img"),
                        f"{DATA_SIZE // MEGABYTE}M"], check=True)

    def make_chip(self):
        """The accelerometer as a memory of registers: it is there, and its FIFO always holds a block and the sample that the
        recorder waits for besides. The emulated memory takes addresses of two bytes, of which the recorder sends the second."""
        page = bytearray((index * 7) % 5 for index in range(256))
        page[0x00] = 11
        page[0x0D] = 0x1A
        with open(self.path("chip.img"), "wb") as file:
            file.write(bytes(page) * 256)

    def command(self):
        wire = self.path("wire")
        plugin = [] if self.counter is None else ["-plugin", f"{self.counter},out={self.path('counts')}"]
        return ["nice", "-n", "19", "qemu-system-arm", *plugin, "-M", "sabrelite", "-smp", "1", "-m", "1G", "-nodefaults", "-no-reboot",
                "-display", "none", "-icount", "shift=0,sleep=off",
                # The receiver's port, the console, the other end of the receiver's wire, and a port that leads nowhere.
                "-chardev", f"socket,id=port,path={wire},server=on,wait=off", "-chardev", f"socket,id=feed,path={wire}",
                "-serial", "chardev:port", "-serial", f"file:{self.path('console.log')}", "-serial", "chardev:feed", "-serial", "null",
                "-drive", f"file={self.path('card.img')},format=raw,if=none,id=card", "-device", "sd-card,drive=card",
                "-drive", f"file={self.path('chip.img')},format=raw,if=none,id=chip",
                "-device", "at24c-eeprom,bus=i2c-bus.1,address=0x1c,rom-size=65536,drive=chip",
                "-kernel", f"{self.images}/zImage", "-dtb", f"{self.images}/board.dtb", "-initrd", f"{self.images}/initrd.gz",
                "-append", "console=ttymxc1,115200 quiet panic=-1"]

    def start(self):
        """Shows what the board says until it ends. False if it had to be ended."""
        for name in ("wire", "console.log"):
            if os.path.exists(self.path(name)):
                os.remove(self.path(name))
        with open(self.path("emulator.log"), "ab") as log:
            process = subprocess.Popen(self.command(), stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        shown, heard, running = 0, time.monotonic(), True
        try:
            while running and time.monotonic() < heard + SILENCE_SECONDS:
                time.sleep(1)
                running = process.poll() is None
                lines = self.read_console()
                if len(lines) > shown:
                    heard = time.monotonic()
                    print("\n".join(lines[shown:]), flush=True)
                    shown = len(lines)
            return not running
        finally:
            process.kill()
            process.wait()

    def read_console(self):
        """The whole lines that the job has said."""
        if not os.path.exists(self.path("console.log")):
            return []
        with open(self.path("console.log"), encoding="utf-8", errors="replace") as file:
            text = file.read()
        return [line for line in text[:text.rfind("\n") + 1].splitlines() if line.startswith("board: ")]

    def copy_card(self):
        """The card's second partition, into a file of its own."""
        with open(self.path("card.img"), "rb") as card, open(self.path("data.img"), "wb") as image:
            for offset in range(0, DATA_SIZE, MEGABYTE):
                part = os.pread(card.fileno(), MEGABYTE, DATA_BEGIN + offset)
                if part.strip(b"\0"):
                    os.pwrite(image.fileno(), part, offset)
            image.truncate(DATA_SIZE)
        self.damage = events.copy_out(self.path("data.img"), self.path("out"))


def spend(measured):
    """What each of the recorder's threads did in between: by name, milliseconds a second."""
    before, after = measured["before"], measured["after"]
    seconds = after["time"] - before["time"]
    tasks = {}
    for task, end in after["tasks"].items():
        begin = before["tasks"].get(task, {"ran": 0})
        tasks[end["name"]] = tasks.get(end["name"], 0) + (end["ran"] - begin["ran"]) / 1e6 / seconds
    return tasks


def rate(measured, name):
    """How often a second."""
    before, after = measured["before"], measured["after"]
    return (after[name] - before[name]) / (after["time"] - before["time"])


def busy(measured):
    """Milliseconds a second in which the machine did not stand still."""
    return 1000 - rate(measured, "idleTicks") * 10


def add_counts(path, measurements):
    """Gives each measurement its millions of instructions a second, of programs and of the kernel: two lines of the file each."""
    with open(path, encoding="ascii") as file:
        lines = [[int(word) for word in line.split()] for line in file]
    for index, measured in enumerate(measurements):
        begin, end = lines[2 * index:2 * index + 2]
        seconds = measured["after"]["time"] - measured["before"]["time"]
        measured["counts"] = [(end[mode] - begin[mode]) / 1e6 / seconds for mode in (0, 1)]


def judge_sources(status, ended):
    found = [] if ended == 0 else [f"the recorder ended with {ended}"]
    for name in SOURCES:
        source = status.get("sources", {}).get(name, {})
        if source.get("state") != "running":
            found.append(f"{name}: {source.get('state')} {source.get('problem', '')}")
        elif abs(source["rate"] / source["configuredRate"] - 1) > RATE_TOLERANCE:
            found.append(f"{name}: {source['rate']} of {source['configuredRate']} entries a second")
    return found


def judge_cost(idle, work):
    """Lines for the summary, and what is not right with them."""
    threads = spend(work)
    own = sum(threads.values())
    user, system = (work["counts"][mode] - idle["counts"][mode] for mode in (0, 1))
    # A million instructions is a millisecond.
    share, by_time = user + system, busy(work) - busy(idle)
    rows = [("what the recorder costs", f"{share:.2f} ms a second, {share / 10:.2f} % (goal: {GOAL_PERCENT} %)"),
            ("the same by the time without work", f"{by_time:.2f} ms a second"),
            ("of it programs, kernel", f"{user:.2f}, {system:.2f} ms a second"),
            ("of it in the recorder's threads, elsewhere", f"{own:.2f}, {share - own:.2f} ms a second")]
    rows.append(("changes of threads, interrupts", f"{rate(work, 'switches') - rate(idle, 'switches'):.0f}, "
                 f"{rate(work, 'interrupts') - rate(idle, 'interrupts'):.0f} a second"))
    rows += [(f"thread {name}", f"{spent:.2f} ms a second")
             for name, spent in sorted(threads.items(), key=lambda item: -item[1]) if spent >= LEAST_MS]
    rows.append(("memory, at most (VmHWM)", f"{work['memory']['VmHWM'] / 1024:.1f} MB, {work['memory']['Threads']} threads"))
    found = judge_sources(work["status"], work["ended"])
    # Measured twice, so that neither can be wrong alone.
    if abs(by_time - share) > COUNT_TOLERANCE * share:
        found.append(f"{share:.2f} million instructions a second in {by_time:.2f} ms of time")
    return rows, found


def judge_event(programs, out, event):
    """The streams for the summary, and what is not right with the event."""
    made, reply = events.read_events(out), event["reply"]
    if len(made) != 1 or not reply.get("ok"):
        return [], [f"{len(made)} events, and the reply {reply}"] + judge_sources(event["status"], event["ended"])
    directory, description = made[0]
    found = events.check_event(programs, directory, description) + events.find_debris(out)
    rows = events.list_streams(description)
    return rows, found + judge_sources(event["status"], event["ended"])


def main():
    parser = argparse.ArgumentParser()
    for name in ("images", "programs", "directory"):
        parser.add_argument(f"--{name}", required=True)
    parser.add_argument("--no-cost", action="store_true")
    parser.add_argument("--no-event", action="store_true")
    options = parser.parse_args()
    job = {}
    if not options.no_cost:
        job["cost"] = {"seconds": COST_SECONDS, "cases": {name: settings({}, card) for name, card in CARDS.items()}}
    if not options.no_event:
        job["event"] = {"settings": settings(PICTURE), "words": "--before 5 --duration 10 --preview --label 'six sources'"}
    begin, wrong = time.monotonic(), []
    board = Board(options.images, options.directory, job)
    report = board.run()
    if report is None:
        print(f"\nthe board reports nothing, see console.log, emulator.log and out/recorder.log in {options.directory}")
        return 1
    print(f"\nkernel {report['kernel']}, one processor of 1 GHz that takes a nanosecond for each instruction")
    if "cost" in report:
        idle, cases = report["cost"]["without"], report["cost"]["with"]
        add_counts(board.path("counts"), [idle, *cases.values()])
        for name, work in cases.items():
            rows, found = judge_cost(idle, work)
            wrong += found
            events.show(f"What it costs in {COST_SECONDS} s, {name}", ("", ""), rows, found)
    if "event" in report:
        rows, found = judge_event(options.programs, board.path("out"), report["event"])
        found += board.damage
        wrong += found
        events.show("An event of six sources", ("stream", "entries", "from, s", "to, s"), rows, found)
    print(f"\n{time.monotonic() - begin:.0f} s, {len(wrong)} findings")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
