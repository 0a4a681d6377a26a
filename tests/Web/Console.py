# The console for tests: the program, a recorder that answers as one does, and events to be shown.
import hashlib
import http.client
import json
import os
import pathlib
import socket
import socketserver
import ssl
import subprocess
import threading
import urllib.parse


class Recorder:
    """A control socket that does to the events directory what a recorder does. `refusal`: what it says to everything but status."""
    def __init__(self, path, events):
        self.path, self.events, self.refusal, self.asked = str(path), pathlib.Path(events), None, []
        self.server = None

    def start(self):
        owner = self

        class Handler(socketserver.StreamRequestHandler):
            def handle(self):
                for line in self.rfile:
                    self.wfile.write(json.dumps(owner.answer(json.loads(line))).encode() + b"\n")

        class Server(socketserver.ThreadingUnixStreamServer):
            daemon_threads = True

        self.server = Server(self.path, Handler)
        threading.Thread(target=self.server.serve_forever, args=(0.02,), daemon=True).start()

    def stop(self):
        self.server.shutdown()
        self.server.server_close()
        os.unlink(self.path)

    def answer(self, request):
        command = request["command"]
        if command == "status":
            return {"ok": True, "state": "recording", "ignition": "on", "lastEvent": None, "running": [], "sources": {},
                    "clock": {"time": "2026-11-21T13:40:05.123Z", "timeSource": "receiver"},
                    "storage": {"eventsDir": str(self.events) + "/"}}
        self.asked.append(request)
        if self.refusal:
            return {"ok": False, "error": self.refusal}
        if command == "settings":
            return {"ok": True, "settings": {"events": {"startSeconds": -15}}, "problems": ["events are not signed"]}
        if command == "event":
            return {"ok": True, "event": "0badcafe"}
        directory = next(self.events.glob(f"2*_{request['event']}"), None)
        if directory is None:
            return {"ok": False, "error": f"there is no event {request['event']} in {self.events}"}
        if command == "protect":
            marker = directory / "protected"
            marker.touch() if request.get("protected", True) else marker.unlink(missing_ok=True)
        elif command == "remove":
            directory.rename(self.events / f".old_{directory.name}")
        elif command == "label":
            (directory / "label").write_text(request["label"] + "\n")
        return {"ok": True, "event": request["event"]}


class Program:
    """tavi-web, from when it has said where it listens to its end."""
    def __init__(self, program, *words):
        self.run = subprocess.Popen([program, "--port", "0", *map(str, words)], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                    text=True)
        self.url = self.run.stdout.readline().strip()
        assert self.url, self.run.communicate()
        self.where = urllib.parse.urlsplit(self.url)

    def stop(self):
        self.run.terminate()
        _, errors = self.run.communicate(timeout=20)
        return self.run.returncode, errors

    def connect(self, timeout=20):
        if self.where.scheme == "https":
            plain = ssl.create_default_context()
            plain.check_hostname, plain.verify_mode = False, ssl.CERT_NONE
            return http.client.HTTPSConnection(self.where.hostname, self.where.port, timeout=timeout, context=plain)
        return http.client.HTTPConnection(self.where.hostname, self.where.port, timeout=timeout)

    def open_socket(self):
        return socket.create_connection((self.where.hostname, self.where.port), timeout=20)

    def ask(self, path, method="GET", body=None, headers=None):
        """Status, headers and content of an answer."""
        connection = self.connect()
        try:
            text = json.dumps(body) if isinstance(body, (dict, list)) else body
            connection.putrequest(method, path, skip_host="Host" in (headers or {}))
            for name, value in (headers or {}).items():
                connection.putheader(name, value)
            if text is not None:
                connection.putheader("Content-Length", str(len(text)))
            connection.endheaders(text.encode() if text is not None else None)
            answer = connection.getresponse()
            return answer.status, answer.headers, answer.read()
        finally:
            connection.close()

    def read(self, path, **more):
        status, _, content = self.ask(path, **more)
        assert status == 200, (path, status, content)
        return json.loads(content)

    def change(self, path, method="POST", body=None):
        status, _, content = self.ask(path, method, body, {"X-Tavi-Console": "1"})
        return status, json.loads(content)


def make_event(events, number, files=None, **more):
    """A small event; its directory. Numbers count the minutes."""
    day, minute = divmod(number, 1440)
    stamp = f"2026{1 + day // 28:02}{1 + day % 28:02}T{minute // 60:02}{minute % 60:02}00Z"
    directory = pathlib.Path(events, f"{stamp}_{number:08x}")
    # An event appears whole.
    aside = pathlib.Path(events, f".new_{directory.name}")
    aside.mkdir(parents=True)
    files = {"ThumbnailCamera1": ("still.jpg", b"\xff\xd8still"), **(files or {})}
    for name, content in files.values():
        (aside / name).write_bytes(content)
    time = f"{stamp[:4]}-{stamp[4:6]}-{stamp[6:8]}T{stamp[9:11]}:{stamp[11:13]}:00.000Z"
    window = {"type": "Acc", "entries": 300, "rate": 10.0, "fromSeconds": -15.0, "toSeconds": 15.0 + number % 7,
              "firstTimestampNs": None, "lastTimestampNs": None}
    description = {
        "schema": 1, "id": f"{number:08x}", "software": "tavi-recorder 0.1.0", "label": f"event {number}", "trigger": "request",
        "time": time, "timeSource": "receiver", "systemAheadSeconds": 0.0, "manager": "first", "queuedSeconds": 0.0,
        "interrupted": False, "request": {"startSeconds": -15, "durationSeconds": 30, "preview": False},
        "maxSpeedKnots": number % 90 + 0.5, "maxG": None if number % 5 == 0 else number % 100 / 50, "accScaleG": 4,
        "position": {"latitude": 48.1, "longitude": 11.5, "speedKnots": 10.0, "fixTime": time[:19] + "Z"}, "previewSeconds": 0,
        "cameraNames": {"VideoCamera1": "front", "VideoCamera0": None}, "streams": [window], "missing": [], "seal": None,
        "files": [{"type": kind, "name": name, "bytes": len(content), "sha256": hashlib.sha256(content).hexdigest()}
                  for kind, (name, content) in files.items()], **more}
    (aside / "event.json").write_text(json.dumps(description))
    aside.rename(directory)
    return directory
