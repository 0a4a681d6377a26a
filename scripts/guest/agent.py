"""The guest's agent: runs what the host asks for, feeds the receivers' ports and the sound card, keeps the recorder running.

Talks in lines of JSON over a port of virtio-serial. From the host: {"begin":SECONDS}, what time it is, {"id":N,"run":"commands"},
{"start":SETTINGS}, {"off":true}. To the host: {"ready":true} once, then nothing until it begins, for here the host keeps the
machine's state, which all its starts go on from; {"uptime":S} four times a second, {"id":N,"status":N,"output":TEXT},
{"recorder":STATUS} when it has ended.
"""
import glob
import json
import os
import subprocess
import threading
import time

import feeds

PORT, SERIAL_FEED, USB_FEED, LOG = (glob.glob(f"/dev/vport*p{number}")[0] for number in (1, 2, 3, 4))
ENVIRONMENT = dict(os.environ, GST_REGISTRY="/run/registry.bin", GST_REGISTRY_FORK="no", LD_PRELOAD="/usr/lib/guest/fewmodes.so")

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


def wake(now):
    time.clock_settime(time.CLOCK_REALTIME, now)
    subprocess.run(["mount", "-t", "ext4", "/dev/vdc", "/data"], stderr=log, check=False)
    begin(beat)
    begin(feeds.feed_receiver, SERIAL_FEED, "/dev/ttyS1")
    begin(feeds.feed_receiver, USB_FEED, "/dev/ttyUSB0")
    begin(feeds.play)


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
