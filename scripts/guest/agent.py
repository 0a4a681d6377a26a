"""The guest's agent: runs what the host asks for, feeds the receivers' ports and the sound card, keeps the recorder running.

Talks in lines of JSON over a port of virtio-serial. From the host: {"begin":SECONDS}, what time it is, {"id":N,"run":"commands"},
{"start":SETTINGS}, {"off":true}. To the host: {"ready":true} once, then nothing until it begins, for here the host keeps the
machine's state, which all its starts go on from; {"uptime":S} four times a second, {"id":N,"status":N,"output":TEXT},
{"recorder":STATUS} when it has ended.
"""
import array
import glob
import json
import math
import os
import subprocess
import threading
import time
import wave

PORT, SERIAL_FEED, USB_FEED, LOG = (glob.glob(f"/dev/vport*p{number}")[0] for number in (1, 2, 3, 4))
ENVIRONMENT = dict(os.environ, GST_REGISTRY="/run/registry.bin", GST_REGISTRY_FORK="no")
RATE = 44100

port = os.open(PORT, os.O_RDWR)
log = os.open(LOG, os.O_WRONLY)
writing = threading.Lock()


def tell(message):
    line = json.dumps(message).encode() + b"\n"
    with writing:
        while line:
            line = line[os.write(port, line):]


def beat():
    while True:
        with open("/proc/uptime", encoding="ascii") as file:
            tell({"uptime": float(file.read().split()[0])})
        time.sleep(0.25)


def run(request):
    done = subprocess.run(["bash", "-c", request["run"]], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False)
    tell({"id": request["id"], "status": done.returncode, "output": done.stdout.decode(errors="replace")})


def keep_recording(settings):
    """As the unit's service manager would: again after two seconds, but not after a stop or with wrong settings."""
    with open("/run/recorder.json", "w", encoding="utf-8") as file:
        json.dump(settings, file)
    status = 1
    while status not in (0, 2):
        status = subprocess.run(["tavi-recorder", "run", "--config", "/run/recorder.json"], stdin=subprocess.DEVNULL,
                                stdout=log, stderr=log, env=ENVIRONMENT, check=False).returncode
        tell({"recorder": status})
        time.sleep(2)


def sentence(body):
    total = 0
    for letter in body:
        total ^= ord(letter)
    return f"${body}*{total:02X}\r\n"


def is_open(device):
    """Whether somebody reads a port. What is sent to one that nobody reads is lost on a unit, and would be kept here."""
    return any(os.path.realpath(file) == device for file in glob.glob("/proc/[0-9]*/fd/*"))


def feed_receiver(path, device):
    """A fix at the beginning of each second of the guest's clock. /run/noise: a line full of noise in its place."""
    feed = os.open(path, os.O_WRONLY)
    number = 0
    while True:
        second = int(time.time()) + 1
        while time.time() < second:
            time.sleep(second - time.time())
        if not is_open(device):
            continue
        now = time.gmtime(second)
        number = (number + 1) % 600
        place = f"{4807 + number / 1000:08.3f},N,{1131 + number / 500:09.3f},E"
        text = sentence(f"GPGGA,{time.strftime('%H%M%S.00', now)},{place},1,08,0.9,545.4,M,46.9,M,,")
        text += sentence(f"GPRMC,{time.strftime('%H%M%S.00', now)},A,{place},{10 + number % 40:05.1f},084.4,"
                         f"{time.strftime('%d%m%y', now)},003.1,W")
        os.write(feed, os.urandom(400) if os.path.exists("/run/noise") else text.encode())


def play():
    """A short tone at each full second of the card's clock, silence between."""
    with wave.open("/run/tone.wav", "wb") as file:
        file.setnchannels(2)
        file.setsampwidth(2)
        file.setframerate(RATE)
        second = array.array("h", bytes(RATE * 4))
        for index in range(RATE // 20):
            second[2 * index] = second[2 * index + 1] = int(12000 * math.sin(2 * math.pi * 3000 * index / RATE))
        for _ in range(600):
            file.writeframes(second.tobytes())
    while True:
        subprocess.run(["aplay", "-q", "-D", "hw:0,1", "/run/tone.wav"], stderr=subprocess.DEVNULL, check=False)
        time.sleep(1)


def wake(now):
    time.clock_settime(time.CLOCK_REALTIME, now)
    subprocess.run(["mount", "-t", "ext4", "/dev/vdc", "/data"], stderr=log, check=False)
    begin(beat)
    begin(feed_receiver, SERIAL_FEED, "/dev/ttyS1")
    begin(feed_receiver, USB_FEED, "/dev/ttyUSB0")
    begin(play)


def main():
    subprocess.run(["cp", "/var/cache/registry.bin", "/run/registry.bin"], check=False)
    tell({"ready": True})
    with os.fdopen(os.dup(port), "rb") as requests:
        for line in requests:
            request = json.loads(line)
            if "begin" in request:
                wake(request["begin"])
            elif "run" in request:
                begin(run, request)
            elif "start" in request:
                begin(keep_recording, request["start"])
            elif "off" in request:
                return


def begin(task, *arguments):
    threading.Thread(target=task, args=arguments, daemon=True).start()


if __name__ == "__main__":
    main()
