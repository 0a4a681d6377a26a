#!/usr/bin/env python3
"""Sends events to one of rclone's own servers and kills both ends at random instants: uploads.py --programs DIR [options]

Made are small signed events, a few at a time. Killed with SIGKILL are, in turn by chance, tavi-upload, the rclone that it runs, and
the server, each started again. After each kill, and at the end, whatever says on the far side that it is whole has to be so. At
the end every file has to be there with the hash of its source, each event has to have become whole once, and nothing else may
lie there. Prints one line of figures, and exits with 1 when anything is wrong.
"""
import argparse
import hashlib
import json
import os
import random
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

TYPES = {"VideoCamera1": ("video1_1.mp4", 200_000), "VideoCamera0": ("video0_1.mp4", 150_000), "Audio": ("audio_1.mp3", 30_000),
         "Gps": ("gps_1.dat", 900), "Acc": ("acc_1.dat", 2_000), "ThumbnailCamera1": ("thumb1_1.jpg", 8_000)}
STREAM = {"VideoCamera1Stream": ("video1_1.h264", 100_000), "VideoCamera1Times": ("video1_1.h264.times", 300)}


def hash_file(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


class Events:
    """Signed events, each whole before it has its name."""

    def __init__(self, folder, chance):
        self.folder, self.chance = folder, chance
        self.events = folder / "events"
        self.events.mkdir(parents=True)
        (self.events / ".lock").touch()
        self.key = folder / "key.pem"
        subprocess.run(["openssl", "genpkey", "-algorithm", "ed25519", "-out", self.key], check=True)
        der = subprocess.run(["openssl", "pkey", "-in", self.key, "-pubout", "-outform", "DER"], check=True, capture_output=True)
        self.public = der.stdout[-32:].hex()
        self.names = []

    def make(self):
        number = len(self.names)
        moment = time.gmtime(1_795_268_400 + number)
        identity = f"{number:04x}{self.chance.getrandbits(16):04x}"
        name = time.strftime("%Y%m%dT%H%M%SZ_", moment) + identity
        aside = self.events / (".new_" + name)
        aside.mkdir()
        types = dict(TYPES, **(STREAM if number % 5 == 0 else {}))
        files = []
        for kind, (file, size) in types.items():
            content = self.chance.randbytes(self.chance.randint(size // 2, size))
            (aside / file).write_bytes(content)
            files.append({"type": kind, "name": file, "bytes": len(content), "sha256": hashlib.sha256(content).hexdigest()})
        (aside / "event.json").write_text(json.dumps({
            "schema": 1, "id": identity, "software": "made by hand", "label": "", "trigger": "request",
            "time": time.strftime("%Y-%m-%dT%H:%M:%S.000Z", moment), "manager": "first", "queuedSeconds": 0.0, "interrupted": False,
            "request": {"startSeconds": -2, "durationSeconds": 4, "preview": False}, "maxSpeedKnots": None, "maxG": None,
            "position": None, "previewSeconds": 0, "streams": [], "files": files,
            "seal": {"publicKey": self.public, "sequence": number + 1, "previous": None if number == 0 else "0" * 64}}))
        subprocess.run(["openssl", "pkeyutl", "-sign", "-rawin", "-inkey", self.key, "-in", aside / "event.json",
                        "-out", aside / "event.json.sig"], check=True)
        (aside / "index.html").write_text(f"<title>{name}</title>")
        aside.rename(self.events / name)
        self.names.append(name)


class Server:
    """One of rclone's servers on loopback, and the remote that leads to it."""

    def __init__(self, kind, folder):
        self.kind, self.root = kind, folder / "far"
        self.root.mkdir()
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        secret = subprocess.run(["rclone", "obscure", "secret"], check=True, capture_output=True, text=True).stdout.strip()
        remote = {"webdav": f"url = http://127.0.0.1:{self.port}\nvendor = other", "sftp": f"host = 127.0.0.1\nport = {self.port}"}[kind]
        self.config = folder / "rclone.conf"
        self.config.write_text(f"[far]\ntype = {kind}\n{remote}\nuser = unit\npass = {secret}\n")
        self.log = (folder / "server.log").open("ab")
        self.start()

    def start(self):
        # sftp's key is kept between two starts in rclone's cache, which is the test's own.
        environment = dict(os.environ, HOME=str(self.root.parent), XDG_CACHE_HOME=str(self.root.parent / "cache"))
        self.process = subprocess.Popen(["rclone", "serve", self.kind, "--config=", "--addr", f"127.0.0.1:{self.port}", "--user", "unit",
                                         "--pass", "secret", self.root], stdout=self.log, stderr=self.log, env=environment)

    def kill(self):
        self.process.kill()
        self.process.wait()


class Uploader:
    def __init__(self, program, folder, settings):
        self.program, self.config = program, folder / "upload.json"
        self.config.write_text(json.dumps(settings))
        self.log = (folder / "upload.log").open("ab")
        self.start()

    def start(self):
        self.process = subprocess.Popen([self.program, "run", "--config", self.config], stdout=self.log, stderr=self.log)

    def find_children(self):
        task = Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children")
        return [int(word) for word in task.read_text().split()] if task.exists() else []

    def kill(self):
        self.process.kill()
        self.process.wait()


def read_whole(root, name):
    """What complete.json says of an event; None where there is none, or half of one."""
    try:
        return json.loads((root / name / "complete.json").read_text())
    except (OSError, ValueError):
        return None


def find_lies(root):
    """Events that say they are whole and are not."""
    lies = []
    for folder in root.iterdir() if root.exists() else []:
        whole = read_whole(root, folder.name)
        for file in whole["files"] if whole else []:
            path = folder / file["name"]
            if not path.is_file() or hash_file(path) != file["sha256"]:
                lies.append(f"{folder.name} says it is whole, {file['name']} is not")
    return lies


def compare(events, root):
    """What is not on the far side as it is here, or is there and nowhere here."""
    faults = []
    for name in events.names:
        here = {path.name: hash_file(path) for path in (events.events / name).iterdir()}
        folder = root / name
        there = {path.name: hash_file(path) for path in folder.iterdir()} if folder.is_dir() else {}
        if there.pop("complete.json", None) is None:
            faults.append(f"{name}: no complete.json")
        faults.extend(f"{name}/{file}: {'differs' if file in there else 'is missing'}" for file in here if there.get(file) != here[file])
        faults.extend(f"{name}/{file}: is nowhere here" for file in there if file not in here)
    faults.extend(f"{folder.name}: is no event" for folder in (root.iterdir() if root.exists() else []) if folder.name not in events.names)
    return faults


def count_whole(events, root):
    return sum(1 for name in events.names if (root / name / "complete.json").exists())


def kill_one(chance, uploader, server, killed):
    what = chance.choice(["uploader", "server", "rclone"])
    if what == "uploader":
        uploader.kill()
        uploader.start()
    elif what == "server":
        server.kill()
        time.sleep(chance.uniform(0.0, 0.4))
        server.start()
    else:
        children = uploader.find_children()
        if not children:
            return
        for child in children:
            try:
                os.kill(child, signal.SIGKILL)
            except ProcessLookupError:
                return
    killed[what] = killed.get(what, 0) + 1


def prove(options, folder):
    chance = random.Random(options.seed)
    events, server = Events(folder, chance), Server(options.server, folder)
    root = server.root / "unit"
    status = folder / "status.json"
    uploader = Uploader(options.programs / "tavi-upload", folder, {
        "eventsDir": str(events.events), "remote": "far:unit", "rcloneConfig": str(server.config), "stateDir": str(folder / "state"),
        "statusFile": str(status), "metered": "no", "lookSeconds": 1, "retryFirstSeconds": 0.2, "retryMaxSeconds": 1.0,
        "stallSeconds": 10})
    killed, faults, began = {}, [], time.monotonic()
    deadline = began + options.limit
    try:
        while time.monotonic() < deadline and not faults:
            whole, kills = count_whole(events, root), sum(killed.values())
            while len(events.names) < min(options.events, whole + 4):
                events.make()
            if whole == options.events:
                break
            if uploader.process.poll() is not None:
                # Of a killed one's rclone the lock may be left for an instant.
                uploader.start()
            if kills < options.kills and whole * options.kills >= kills * options.events:
                time.sleep(chance.uniform(0.0, options.spread))
                kill_one(chance, uploader, server, killed)
                faults += find_lies(root)
            time.sleep(0.05)
        while time.monotonic() < deadline and json.loads(status.read_text())["waiting"] > 0:
            time.sleep(0.05)
        stated = json.loads(status.read_text())
        uploader.process.terminate()
        if uploader.process.wait(timeout=30) != 0:
            faults.append("tavi-upload did not end well")
    finally:
        uploader.kill()
        server.kill()
    faults += find_lies(root) + compare(events, root)
    if stated["sent"] != options.events:
        faults.append(f"{stated['sent']} events became whole, {options.events} were to")
    print(f"{options.server}: {len(events.names)} events, {sum(killed.values())} kills {killed}, {len(faults)} faults, "
          f"{time.monotonic() - began:.0f} s, seed {options.seed}, load {os.getloadavg()[0]:.1f}")
    return faults + ([] if sum(killed.values()) >= options.kills else ["fewer kills than asked for"])


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--programs", type=Path, required=True)
    parser.add_argument("--server", choices=["webdav", "sftp"], default="webdav")
    parser.add_argument("--events", type=int, default=200)
    parser.add_argument("--kills", type=int, default=100)
    parser.add_argument("--spread", type=float, default=1.5, help="seconds after an event within which a kill comes")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 30))
    parser.add_argument("--limit", type=float, default=3600.0)
    options = parser.parse_args()
    if shutil.which("rclone") is None:
        print("rclone is missing")
        return 77
    folder = Path(tempfile.mkdtemp(prefix="tavi-uploads-"))
    faults = ["it was interrupted"]
    try:
        faults = prove(options, folder)
    finally:
        for fault in faults:
            print(fault)
        if faults:
            print((folder / "upload.log").read_text(errors="replace")[-4000:] if (folder / "upload.log").exists() else "")
        shutil.rmtree(folder, ignore_errors=True)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
