"""One fault of a device after the other while the recorder works: it goes on, and the events say what is missing."""
import os

import events
from machine import read_reply

UNBIND = "/sys/bus/platform/drivers"
ACCELEROMETER = "/sys/module/accelerometer/parameters/fault"
BEFORE, DURATION, OUTAGE = 2, 7, 3


class Fault:
    """What begins it, what ends it (commands in the guest), which streams suffer, and which sources must run again."""

    def __init__(self, name, begin, end, streams, sources):
        self.name, self.begin, self.end, self.streams, self.sources = name, begin, end, streams, sources


FAULTS = [
    Fault("camera unbound", f"echo vivib.0 > {UNBIND}/vivib/unbind &", f"wait; echo vivib.0 > {UNBIND}/vivib/bind",
          {"VideoCamera0", "VideoCamera1"}, ["camera0"]),
    Fault("sound card pulled", f"echo snd_aloop.0 > {UNBIND}/snd_aloop/unbind &", f"echo snd_aloop.0 > {UNBIND}/snd_aloop/bind",
          {"Audio"}, ["audio"]),
    Fault("bus time-out", f"echo 2 > {ACCELEROMETER}", f"echo 0 > {ACCELEROMETER}", {"Acc"}, ["acc"]),
    Fault("camera stalls", "v4l2-ctl -d /dev/video1 -c percentage_of_dropped_buffers=100",
          "v4l2-ctl -d /dev/video1 -c percentage_of_dropped_buffers=0", {"VideoCamera0", "VideoCamera1"}, ["camera0"]),
    Fault("chip does not acknowledge", f"echo 1 > {ACCELEROMETER}", f"echo 0 > {ACCELEROMETER}", {"Acc"}, ["acc"]),
    Fault("receiver's USB pulled", None, None, {"Gps"}, ["gps"]),
    Fault("noise on the receiver's line", "touch /run/noise", "rm /run/noise", {"Gps"}, ["gps"]),
]
SHORT = 3


class Faults:
    def __init__(self, bench):
        self.bench = bench
        self.findings = []
        self.rows = []
        self.ids = {}

    def run(self, every):
        machine = self.bench.start()
        try:
            machine.wait(lambda: machine.uptime > 0, "a sign of life")
            machine.plug_receiver(True)
            machine.sleep(2)
            machine.record(self.bench.settings("/dev/ttyUSB0"), ("camera0", "camera1", "audio", "gps", "acc"))
            machine.sleep(4)
            for fault in FAULTS if every else FAULTS[:SHORT]:
                self.inflict(machine, fault)
            if every:
                self.fill_disk(machine)
            if machine.endings:
                self.findings.append(f"the recorder ended: {machine.endings}")
            machine.power_off()
        finally:
            machine.cut()
        self.judge()
        return self.rows

    def change(self, machine, fault, commands, there):
        if commands is None:
            machine.plug_receiver(there)
        else:
            machine.run(commands)

    def inflict(self, machine, fault):
        answer = machine.begin(f"tavi-ctl --json event --wait --no-preview --before {BEFORE} --duration {DURATION} "
                               f"--label \"{fault.name}\"")
        machine.sleep(1)
        self.change(machine, fault, fault.begin, False)
        begin = machine.uptime
        machine.sleep(OUTAGE)
        self.change(machine, fault, fault.end, True)
        reply = read_reply(machine.finish(answer)[1])
        missing = {part["type"] for part in reply.get("missing", ())}
        back = self.wait_for_sources(machine, fault.sources)
        if not reply.get("saved"):
            self.findings.append(f"{fault.name}: not saved: {reply}")
        if not missing or not missing <= fault.streams:
            self.findings.append(f"{fault.name}: the event says {sorted(missing)} is missing")
        if back is None:
            self.findings.append(f"{fault.name}: {fault.sources} do not come back")
        self.remember(fault.name, reply)
        told = "; ".join(f"{part['type']} {part['seconds']:.1f} s, {part['reason']}" for part in reply.get("missing", ()))
        self.rows.append((fault.name, told, "-" if back is None else f"{back - begin - OUTAGE:.1f} s"))
        print(f"{fault.name}: {told}; back after {self.rows[-1][2]}", flush=True)
        # The next one's window begins behind this one.
        machine.sleep(BEFORE + 3)

    def remember(self, name, reply):
        if reply.get("event"):
            self.ids[reply["event"]] = name

    @staticmethod
    def wait_for_sources(machine, names):
        """When they run again, None if they do not within 90 s."""
        end = machine.uptime + 90
        while machine.uptime < end:
            sources = machine.ask("status").get("sources", {})
            if all(sources.get(name, {}).get("state") == "running" for name in names):
                return machine.uptime
            machine.sleep(0.5)
        return None

    def fill_disk(self, machine):
        """An event for which there is no room waits, and is saved when there is."""
        machine.run("fallocate -l $(($(df --output=avail -B1 /data | tail -n 1) - 2000000)) /data/full; sync")
        reply = machine.ask(f"event --wait --no-preview --before {BEFORE} --duration {DURATION} --label 'disk full'")
        self.remember("disk full", reply)
        if reply.get("saved") is not False or not reply.get("event"):
            self.findings.append(f"disk full: {reply}")
        machine.run("rm /data/full; sync")
        begin = machine.uptime
        while machine.uptime < begin + 60:
            if any(event["event"] == reply.get("event") for event in machine.ask("events").get("events", ())):
                break
            machine.sleep(0.5)
        else:
            self.findings.append("disk full: the event is not saved when there is room")
        self.rows.append(("disk full", reply.get("error", ""), f"{machine.uptime - begin:.1f} s"))
        print(f"disk full: {reply.get('error')}; saved after {self.rows[-1][2]}", flush=True)

    def judge(self):
        """Each answered event is there once, whole but for what it says."""
        target = os.path.join(self.bench.directory, "out")
        self.findings += events.copy_out(self.bench.image, target)
        made = events.read_events(target)
        ids = [description["id"] for _, description in made]
        for event, name in self.ids.items():
            if ids.count(event) != 1:
                self.findings.append(f"{name}: {ids.count(event)} events of it")
        self.findings += events.verify(self.bench.programs, os.path.join(target, "events"))
        self.findings += [f"left over: {name}" for name in events.find_debris(target)]
