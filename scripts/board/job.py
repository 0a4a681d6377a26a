"""What the board does: measures what the recorder costs, records an event. /data/job.json says what of it, and how; /data/report.json
has what came out, and /data/recorder.log what the recorder said."""
import glob
import json
import os
import shlex
import subprocess
import threading
import time

import feeds
import instructions

# The port that the recorder reads, the other end of its wire, and one whose wire leads nowhere.
RECEIVER, FEED, NOWHERE = "/dev/ttymxc0", "/dev/ttymxc2", "/dev/ttymxc3"
FREE = {"GST_REGISTRY": "/var/cache/registry-free.bin", "GST_PLUGIN_PATH": "/usr/lib/board/free"}
SOFTWARE = {"GST_REGISTRY": "/var/cache/registry.bin"}
SOURCES = ("camera0", "camera1", "audio", "gps", "acc", "other")
# How long the recorder may take to begin, and how long it has to be at work before it is looked at: its rings hold 32 seconds.
START_SECONDS, FILL_SECONDS = 120, 40


def say(text):
    """A sign of life for the host, too."""
    print(f"board: {time.monotonic():.1f} s: {text}", flush=True)


def ask(words):
    """A reply of the recorder, {} where it gives none."""
    done = subprocess.run(["tavi-ctl", "--json", *shlex.split(words)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=False)
    lines = [line for line in done.stdout.decode(errors="replace").splitlines() if line.startswith("{")]
    return json.loads(lines[0]) if lines else {}


class Recorder:
    """Runs from Start() to the end of "with"; status is how it ended."""

    def __init__(self, settings, environment):
        with open("/run/recorder.json", "w", encoding="utf-8") as file:
            json.dump(settings, file)
        self.environment = dict(os.environ, GST_REGISTRY_FORK="no", **environment)
        self.status = None
        self.process = None

    def start(self):
        """When it returns all sources deliver, unless they do not in time; the status then tells."""
        with open("/data/recorder.log", "ab") as log:
            self.process = subprocess.Popen(["tavi-recorder", "run", "--config", "/run/recorder.json"], stdin=subprocess.DEVNULL,
                                            stdout=log, stderr=log, env=self.environment)
        end = time.monotonic() + START_SECONDS
        while time.monotonic() < end and self.process.poll() is None:
            status = ask("status")
            sources = status.get("sources", {})
            if status.get("state") == "recording" and all(sources.get(name, {}).get("state") == "running" for name in SOURCES):
                say("the recorder records")
                break
            time.sleep(1)
        else:
            say("the recorder does not record")
        return self

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        try:
            self.status = self.process.wait(60)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.status = self.process.wait()
        say(f"the recorder ended with {self.status}")

    def read_memory(self):
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as file:
            lines = dict(line.split(":", 1) for line in file.read().splitlines())
        return {name: int(lines[name].split()[0]) for name in ("VmHWM", "VmRSS", "Threads")}


def read_tasks(process):
    """Of each thread: its name, and the nanoseconds that it ran. What is its own and what the kernel's the kernel only samples."""
    tasks = {}
    for path in glob.glob(f"/proc/{process}/task/*"):
        try:
            with open(f"{path}/schedstat", encoding="ascii") as file:
                ran = int(file.read().split()[0])
            with open(f"{path}/comm", encoding="utf-8") as file:
                tasks[os.path.basename(path)] = {"name": file.read().strip(), "ran": ran}
        except OSError:
            continue  # it has ended
    return tasks


def look(process):
    """The machine's time without work, its interrupts and changes of threads so far, and a process's threads."""
    with open("/proc/stat", encoding="ascii") as file:
        lines = {line.split()[0]: [int(word) for word in line.split()[1:]] for line in file}
    return {"time": time.monotonic(), "idleTicks": lines["cpu"][3] + lines["cpu"][4], "interrupts": lines["intr"][0],
            "switches": lines["ctxt"][0], "tasks": read_tasks(process)}


def measure(seconds, process=None):
    before = look(process)
    instructions.mark()
    time.sleep(seconds)
    instructions.mark()
    return {"before": before, "after": look(process)}


class Feeder:
    """Writes a receiver's sentences while "with" lasts, as a process of its own: it takes the same with and without the recorder."""

    def __init__(self, *ports):
        self.ports = ports
        self.process = None

    def __enter__(self):
        self.process = subprocess.Popen(["python3", feeds.__file__, *self.ports])
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()


def take_costs(job):
    """Without the recorder, then with it by the settings of each case."""
    seconds, costs = job["seconds"], {}
    with Feeder(NOWHERE):
        time.sleep(5)
        say(f"{seconds} s without the recorder")
        costs["without"] = measure(seconds)
    costs["with"] = {name: take_cost(name, settings, seconds) for name, settings in job["cases"].items()}
    return costs


def take_cost(name, settings, seconds):
    with Feeder(FEED, RECEIVER):
        recorder = Recorder(settings, FREE).start()
    # The feeder ends first: what nobody reads any more waits in the emulated wire, which has little room.
    with recorder, Feeder(FEED):
        time.sleep(FILL_SECONDS)
        say(f"{seconds} s with the recorder, {name}")
        cost = measure(seconds, recorder.process.pid)
        cost.update(memory=recorder.read_memory(), status=ask("status"))
    cost["ended"] = recorder.status
    return cost


def take_event(job):
    threading.Thread(target=feeds.play, args=(120,), daemon=True).start()
    with Feeder(FEED, RECEIVER), Recorder(job["settings"], SOFTWARE).start() as recorder:
        time.sleep(8)
        say("an event")
        reply = ask(f"event --wait --timeout 300 {job['words']}")
        event = {"reply": reply, "memory": recorder.read_memory(), "status": ask("status")}
    event["ended"] = recorder.status
    return event


def main():
    with open("/data/job.json", encoding="utf-8") as file:
        job = json.load(file)
    time.clock_settime(time.CLOCK_REALTIME, job["time"])
    say("up")
    report = {"kernel": " ".join(os.uname()[index] for index in (2, 3))}
    if "cost" in job:
        report["cost"] = take_costs(job["cost"])
    if "event" in job:
        report["event"] = take_event(job["event"])
    with open("/data/report.json", "w", encoding="utf-8") as file:
        json.dump(report, file)
    say("done")


if __name__ == "__main__":
    main()
