"""Cuts the machine's power at random instants, and looks at what the next starts make of what the disk still has."""
import os
import threading
import time

import events

# How old a request must be, in the guest's time, for its event to outlive a cut without warning. What is copied ahead is synced
# soon behind the request and then every two seconds; what the rings held takes a second of copying on a slow disk.
SAFE_SECONDS = 5.0
# Shares of the cuts that fall into the first seconds of a start: into the recovery, mostly.
EARLY = 0.3


class Cuts:
    def __init__(self, bench, chance, young=False):
        """`young`: each cut soon behind a request, where what is copied ahead decides what there is of the event."""
        self.bench = bench
        self.chance = chance
        self.young = young
        self.cuts = self.early = self.lost_writes = 0
        # By id: the label of each event that was accepted; its age at the cut that followed; those that were reported as saved,
        # be it by a later start, and those of them that were before their cut.
        self.labels = {}
        self.ages = {}
        self.reported = set()
        self.saved = set()
        self.findings = []

    def run(self, count, minutes):
        end = time.monotonic() + minutes * 60
        for number in range(count):
            if time.monotonic() > end:
                print(f"{minutes:.0f} min are over", flush=True)
                break
            self.round(number)
            print(f"cut {number + 1} of {count}: {len(self.labels)} accepted, {len(self.reported)} reported as saved, "
                  f"{self.lost_writes} writes lost", flush=True)
        machine = self.bench.start()
        try:
            machine.record(self.bench.settings())
            machine.power_off()
        finally:
            machine.cut()
        return self.judge()

    def round(self, number):
        """One start of the machine, to its cut."""
        early = not self.young and self.chance.random() < EARLY
        machine = self.bench.start()
        at = self.chance.uniform(0.5, 8) if early else None
        accepted = {}
        try:
            machine.wait(lambda: machine.uptime > 0, "a sign of life")
            begin = machine.uptime
            if early:
                self.cut_at(machine, begin + at)
            machine.record(self.bench.settings())
            if not self.young:
                self.cut_at(machine, machine.uptime + self.chance.uniform(1, 22))
            self.take_events(machine, number, accepted)
        except RuntimeError:
            if machine.alive:
                raise
        finally:
            end = machine.cut()
        self.cuts += 1
        self.early += early
        self.lost_writes += self.bench.disk.cut(self.chance)[1]
        self.saved |= self.reported & accepted.keys()
        for event, answered in accepted.items():
            self.ages[event] = end - answered

    def cut_at(self, machine, uptime):
        """Behind that time, and then at any instant."""
        pause = self.chance.uniform(0, 0.5)

        def wait():
            try:
                machine.wait(lambda: machine.uptime >= uptime, "its time")
                time.sleep(pause)
            except RuntimeError:
                pass
            machine.process.kill()
        threading.Thread(target=wait, daemon=True).start()

    def take_events(self, machine, number, accepted):
        """Up to three events, and again and again what is reported as saved."""
        count = 1 if self.young else self.chance.randint(1, 3)
        due = sorted(machine.uptime + self.chance.uniform(0, 12) for _ in range(count))
        while True:
            if due and machine.uptime >= due[0]:
                label = f"cut {number} event {len(accepted)}"
                reply = machine.ask(f"event --before 3 --duration {self.chance.randint(3, 8)} --no-preview --label '{label}'")
                if reply.get("ok"):
                    accepted[reply["event"]] = machine.uptime
                    self.labels[reply["event"]] = label
                if self.young:
                    self.cut_at(machine, machine.uptime + self.chance.uniform(0, SAFE_SECONDS))
                due.pop(0)
            self.reported |= {event["event"] for event in machine.ask("events").get("events", ())}
            machine.sleep(0.5)

    def judge(self):
        target = os.path.join(self.bench.directory, "out")
        found = [f"e2fsck: {line}" for line in events.copy_out(self.bench.image, target)]
        made = events.read_events(target)
        ids = [description["id"] for _, description in made]
        labels = [description["label"] for _, description in made]
        old = [event for event in self.labels if self.ages.get(event, 0) > SAFE_SECONDS]
        missing = [self.labels.get(event, event) for event in sorted(self.reported | set(old)) if event not in ids]
        doubled = sorted({label for label in labels if labels.count(label) > 1} | {event for event in ids if ids.count(event) > 1})
        foreign = [f"{description['id']} {description['label']}" for _, description in made if description["id"] not in self.labels]
        damaged = events.verify(self.bench.programs, os.path.join(target, "events")) if made else []
        for directory, description in made:
            for file in description["files"]:
                if file["type"] in ("VideoCamera0", "VideoCamera1"):
                    damaged += events.decode(os.path.join(directory, file["name"]))
        debris = events.find_debris(target)
        young = sorted((self.ages[event], event in ids) for event in self.labels if event not in old and event not in self.saved)
        ages = {there: [f"{age:.1f}" for age, is_there in young if is_there == there] for there in (True, False)}
        self.findings = found + missing + doubled + foreign + damaged + debris
        rows = [("cuts", self.cuts, None), ("of them within 8 s of a start", self.early, None),
                ("writes that the disk forgot", self.lost_writes, None),
                ("events accepted", len(self.labels), None), ("of them reported as saved before their cut", len(self.saved), None),
                (f"of the others older than {SAFE_SECONDS:.0f} s at it", len(set(old) - self.saved), None),
                ("younger, and there all the same", f"{len(ages[True])}; seconds from reply to cut: {' '.join(ages[True])}", None),
                ("younger, and not there", f"{len(ages[False])}; seconds: {' '.join(ages[False])}", None),
                ("of all events interrupted", sum(description["interrupted"] for _, description in made), None),
                ("missing", len(missing), missing), ("doubled", len(doubled), doubled), ("of no request", len(foreign), foreign),
                ("damaged", len(damaged), damaged), ("left over", len(debris), debris), ("findings of e2fsck", len(found), found)]
        return rows
