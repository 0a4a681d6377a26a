"""The guest: one emulated machine at a time, and what can be asked of it."""
import json
import os
import socket
import subprocess
import threading
import time

# Of the host's time, not the guest's: what a machine may take that others keep busy.
PATIENCE = 900


def read_reply(output):
    """The recorder's reply in what tavi-ctl --json prints, {} where there is none. A sentence for the user may stand beside it."""
    for line in output.splitlines():
        if line.startswith("{"):
            return json.loads(line)
    return {}


class Machine:
    """Starts in its constructor. Ends by PowerOff() or Cut(); whoever made it calls one of the two."""

    def __init__(self, images, directory, disk, now=None):
        """Goes on from the kept state, with its clock at NOW (seconds since 1970); without that it boots, see KeepState()."""
        self.directory = directory
        self.ready = False
        self.uptime = 0.0
        self.endings = []
        self.replies = {}
        self.callbacks = {}
        self.number = 0
        self.changed = threading.Condition()
        self.alive = True
        for name in ("agent", "serial", "usb", "qmp"):
            if os.path.exists(self.path(name)):
                os.remove(self.path(name))
        command = self.command(images, disk)
        if now is not None:
            command += ["-incoming", f"exec:cat '{images}/state'"]
        with open(self.path("emulator.log"), "ab") as log:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=log)
        self.agent = self.connect("agent")
        self.control = self.connect("qmp").makefile("rw")
        self.control.readline()
        self.command_emulator("qmp_capabilities")
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()
        if now is not None:
            self.tell({"begin": now})

    def keep_state(self, file):
        """Keeps the state of a machine that has booted, and ends it. A machine takes a minute of an emulator's time to get there."""
        self.wait(lambda: self.ready, "a sign of life")
        self.command_emulator("migrate", uri=f"exec:cat > '{file}.new'")
        while self.command_emulator("query-migrate").get("status") not in ("completed", "failed"):
            time.sleep(0.2)
        status = self.command_emulator("query-migrate")["status"]
        self.cut()
        if status != "completed":
            raise RuntimeError(f"the machine's state cannot be kept, see {self.path('emulator.log')}")
        os.rename(f"{file}.new", file)

    def path(self, name):
        return os.path.join(self.directory, name)

    def command(self, images, disk):
        """The machine's time is its count of instructions, one a nanosecond, so that nothing is late on a busy host. While it
        waits its time is the host's, and jumps where the emulator is kept from running then: it gets what others get."""
        def image(name, number):
            return ["-drive", f"file={images}/{name},if=none,id=d{number},format=raw,readonly=on",
                    "-device", f"virtio-blk-pci,drive=d{number}"]

        def receiver(name, number):
            # A pair of ends: the port that the recorder reads, and one that the agent writes.
            return ["-chardev", f"socket,id={name},path={self.path(name)},server=on,wait=off",
                    "-chardev", f"socket,id={name}-feed,path={self.path(name)}",
                    "-device", f"virtserialport,chardev={name}-feed,nr={number}"]
        return ["qemu-system-x86_64", "-M", "pc", "-accel", "tcg,tb-size=256", "-cpu", "Nehalem",
                "-icount", "shift=0,sleep=on", "-smp", "1", "-m", "1400", "-nodefaults", "-no-reboot", "-display", "none",
                "-rtc", "base=utc,clock=vm",
                "-kernel", f"{images}/vmlinux", "-initrd", f"{images}/initrd.gz",
                "-append", "console=ttyS0 panic=-1 mitigations=off",
                "-serial", f"file:{self.path('console.log')}",
                *image("root.img", 0), *image("recorder.img", 1),
                # What the guest flushes, is flushed; nothing else.
                "-drive", f"file=nbd+unix:///?socket={disk},if=none,id=d2,format=raw,cache=writeback",
                "-device", "virtio-blk-pci,drive=d2",
                "-qmp", f"unix:{self.path('qmp')},server=on,wait=off",
                "-device", "virtio-serial-pci",
                "-chardev", f"socket,id=agent,path={self.path('agent')},server=on,wait=off",
                "-device", "virtserialport,chardev=agent,nr=1",
                *receiver("serial", 2), "-serial", "chardev:serial", *receiver("usb", 3),
                "-chardev", f"file,id=log,path={self.path('recorder.log')},append=on",
                "-device", "virtserialport,chardev=log,nr=4",
                "-device", "qemu-xhci,id=xhci"]

    def connect(self, name):
        deadline = time.monotonic() + 60
        while True:
            end = socket.socket(socket.AF_UNIX)
            try:
                end.connect(self.path(name))
                return end
            except OSError:
                end.close()
                if time.monotonic() > deadline or self.process.poll() is not None:
                    raise RuntimeError(f"the emulator does not start, see {self.path('emulator.log')}") from None
                time.sleep(0.05)

    def read(self):
        with self.agent.makefile("rb") as stream:
            try:
                for line in stream:
                    if line.endswith(b"\n"):
                        self.take(json.loads(line))
            except OSError:
                pass  # the machine is gone
        with self.changed:
            self.alive = False
            self.changed.notify_all()

    def take(self, message):
        with self.changed:
            self.uptime = message.get("uptime", self.uptime)
            self.ready = self.ready or "ready" in message
            if "recorder" in message:
                self.endings.append((self.uptime, message["recorder"]))
            if "id" in message:
                callback = self.callbacks.pop(message["id"], None)
                if callback is None:
                    self.replies[message["id"]] = message
                else:
                    callback(message)
            self.changed.notify_all()

    def tell(self, message):
        try:
            self.agent.sendall(json.dumps(message).encode() + b"\n")
        except OSError:
            pass  # it has died; whoever waits for it notices

    def begin(self, commands, callback=None):
        """Runs commands in the guest. The number to wait for, unless a callback takes the answer (on the reader's thread)."""
        with self.changed:
            self.number += 1
            if callback is not None:
                self.callbacks[self.number] = callback
            number = self.number
        self.tell({"id": number, "run": commands})
        return number

    def finish(self, number):
        """The answer of Begin: status and output."""
        self.wait(lambda: number in self.replies, "an answer")
        answer = self.replies.pop(number)
        return answer["status"], answer["output"]

    def run(self, commands):
        """Runs commands in the guest, whose output it returns; they must succeed."""
        status, output = self.finish(self.begin(commands))
        if status != 0:
            raise RuntimeError(f"{commands}: status {status}, {output}")
        return output

    def wait(self, condition, what):
        with self.changed:
            self.changed.wait_for(lambda: condition() or not self.alive, PATIENCE)
            if not condition():
                raise RuntimeError(f"{'the guest does not give' if self.alive else 'the guest ended before'} {what}")

    def sleep(self, seconds):
        """Of the guest's time."""
        end = self.uptime + seconds
        self.wait(lambda: self.uptime >= end, f"{seconds} s of its time")

    def ask(self, words):
        """A reply of the recorder, {} where it gives none."""
        return read_reply(self.finish(self.begin(f"tavi-ctl --json {words}"))[1])

    def record(self, settings, sources=("camera0", "camera1")):
        """Starts the recorder and waits until these sources deliver."""
        self.wait(lambda: self.uptime > 0, "a sign of life")
        self.tell({"start": settings})
        begin = self.uptime
        while self.uptime < begin + 120:
            status = self.ask("status")
            if status.get("state") == "recording" and all(status["sources"][name]["state"] == "running" for name in sources):
                return status
            self.sleep(0.5)
        raise RuntimeError(f"the recorder does not record, see {self.path('recorder.log')}")

    def command_emulator(self, command, **arguments):
        self.control.write(json.dumps({"execute": command, "arguments": arguments}) + "\n")
        self.control.flush()
        while True:
            reply = json.loads(self.control.readline())
            if "error" in reply:
                raise RuntimeError(f"{command}: {reply['error']}")
            if "return" in reply:
                return reply["return"]

    def plug_receiver(self, there):
        """The receiver with a USB port: /dev/ttyUSB0."""
        if there:
            self.command_emulator("device_add", driver="usb-serial", chardev="usb", id="receiver")
        else:
            self.command_emulator("device_del", id="receiver")

    def cut(self):
        """As if its supply were cut. Its time then, as far as the host knows."""
        self.process.kill()
        self.process.wait()
        self.reader.join()
        self.agent.close()
        return self.uptime

    def power_off(self):
        """Ends the recorder, unmounts, powers off."""
        self.ask("stop")
        try:
            self.wait(lambda: self.endings and self.endings[-1][1] == 0, "the recorder's end")
            self.tell({"off": True})
            self.process.wait(PATIENCE)
        finally:
            self.cut()
