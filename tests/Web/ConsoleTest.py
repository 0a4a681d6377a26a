#!/usr/bin/env python3
"""Asks the console as browsers, programs and those who mean no good do: ConsoleTest.py TAVI_WEB"""
import concurrent.futures
import hashlib
import io
import json
import os
import pathlib
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import unittest
import zipfile

import Console

PROGRAM = sys.argv[1]
CLIP = bytes(range(256)) * 400
TOKEN = "correct-horse-battery"


class Served(unittest.TestCase):
    """A console with three events, one of which cannot be read, and a recorder."""
    def setUp(self):
        home = tempfile.TemporaryDirectory(prefix="tavi-web-")
        self.addCleanup(home.cleanup)
        self.home = pathlib.Path(home.name)
        self.events = self.home / "events"
        missing = [{"type": "VideoCamera1", "seconds": 2.5, "reason": "begins late"}]
        self.clip = Console.make_event(self.events, 1, {"VideoCamera1": ("clip.mp4", CLIP)}, label="Tür <b>", missing=missing)
        (self.clip / "event.json.sig").write_bytes(b"s" * 64)
        self.hit = Console.make_event(self.events, 2, label="", trigger="acceleration", maxG=2.5)
        self.bad = Console.make_event(self.events, 3)
        (self.bad / "event.json").write_text("{")
        self.recorder = Console.Recorder(self.home / "socket", self.events)
        self.recorder.start()
        self.web = self.start()

    def start(self, *words, **settings):
        (self.home / "web.json").write_text(json.dumps({"controlSocket": str(self.home / "socket"), **settings}))
        web = Console.Program(PROGRAM, "--config", self.home / "web.json", *words)
        self.addCleanup(lambda: web.run.poll() is None and web.stop())
        return web

    def list(self, query="", count=None):
        """The list, as soon as it has `count` events."""
        deadline = time.monotonic() + 15
        while True:
            status, _, content = self.web.ask("/api/events?" + query)
            answer = json.loads(content)
            if status == 200 and not answer["looking"] and count in (None, len(answer["events"])):
                return answer
            self.assertLess(time.monotonic(), deadline, content)
            time.sleep(0.05)

    def ids(self, query):
        return [int(event["id"], 16) for event in self.list(query)["events"]]


class ListTest(Served):
    def test_the_list_says_what_each_event_is(self):
        answer = self.list(count=3)
        self.assertEqual((answer["total"], answer["matching"]), (3, 3))
        event = next(event for event in answer["events"] if event["id"] == "00000001")
        self.assertEqual((event["label"], event["seconds"], event["still"], event["protected"], event["position"]["latitude"]),
                         ("Tür <b>", 31.0, "still.jpg", False, 48.1))
        self.assertEqual(event["missing"], [{"part": "front", "seconds": 2.5, "reason": "begins late"}])
        self.assertEqual(event["bytes"], sum(file.stat().st_size for file in self.clip.iterdir()))
        broken = next(event for event in answer["events"] if event["id"] == "00000003")
        self.assertIn("event.json", broken["problem"])

    def test_filters_and_orders(self):
        self.bad.rename(self.home / "gone")
        for number in range(4, 8):
            Console.make_event(self.events, number + 1440 * (number % 2))
        self.list(count=6)
        day = 1440
        for query, right in {
                "": [7 + day, 5 + day, 6, 4, 2, 1], "order=asc&limit=2": [1, 2], "offset=4&limit=9": [2, 1], "offset=9": [],
                "q=T%C3%9CR": [1], "q=0000000": [6, 4, 2, 1], "q=event+4": [4], "trigger=acceleration": [2],
                "from=2026-01-02": [7 + day, 5 + day], "to=2026-01-01T00:04": [4, 2, 1], "missing=true": [1],
                # What has none comes last, whatever the order; 5 + day has no peak, 2 no label.
                "sort=peak&limit=1": [2], "sort=peak&order=asc": [1, 4, 6, 7 + day, 2, 5 + day],
                "sort=label&order=asc": [5 + day, 7 + day, 4, 6, 1, 2]}.items():
            with self.subTest(query=query):
                self.assertEqual(self.ids(query), right)
        for query in ("sort=colour", "limit=501", "limit=-1", "from=yesterday", "protected=1", "colour=red", "offset=x"):
            status, _, content = self.web.ask("/api/events?" + query)
            self.assertEqual(status, 400, query)
            self.assertIn(query.split("=")[0], json.loads(content)["error"])

    def test_what_the_recorder_does_is_seen_at_once_and_its_refusals_in_its_words(self):
        self.list(count=3)
        self.assertEqual(self.web.change("/api/events/00000001/protect", body={"protected": True})[0], 200)
        self.assertEqual(self.ids("protected=true"), [1])
        self.assertEqual(self.web.change("/api/events/00000002/label", body={"label": "dented door"})[0], 200)
        self.assertEqual(self.web.change("/api/events/00000002", "DELETE", {})[0], 200)
        self.assertNotIn(2, self.ids(""))
        self.assertEqual([request["command"] for request in self.recorder.asked], ["protect", "label", "remove"])
        self.recorder.refusal = "it is protected; ask with evenProtected"
        self.assertEqual(self.web.change("/api/events/00000001", "DELETE", {}), (409, {"error": self.recorder.refusal}))
        self.recorder.refusal = None
        for path, body in {"/api/event": {"command": "stop"}, "/api/events/00000001/protect": {"event": "00000003"},
                           "/api/events/00000001/label": [], "/api/events/../../etc/protect": {}}.items():
            self.assertIn(self.web.change(path, body=body)[0], (400, 404), path)
        self.assertEqual(self.web.change("/api/event", body={"label": "door"}), (200, {"ok": True, "event": "0badcafe"}))
        self.assertEqual(self.recorder.asked[-1], {"label": "door", "command": "event"})

    def test_a_recorder_that_goes_and_comes(self):
        self.list(count=3)
        self.recorder.stop()
        time.sleep(0.6)  # as long as a status may be old
        for path in ("/api/status", "/api/settings"):
            status, _, content = self.web.ask(path)
            self.assertEqual((status, json.loads(content)["recorder"]), (503, "away"), path)
        self.assertEqual(len(self.list()["events"]), 3)
        self.recorder.start()
        time.sleep(0.6)
        self.assertEqual(self.web.read("/api/status")["state"], "recording")
        self.assertEqual(self.web.read("/api/settings")["problems"], ["events are not signed"])

    def test_five_thousand_events(self):
        many = self.home / "many"
        for number in range(1, 5001):
            Console.make_event(many, number)
        begun = time.monotonic()
        self.web = self.start("--events", many)
        slowest = 0.0
        while True:
            asked = time.monotonic()
            answer = self.web.read("/api/events?limit=50")
            slowest = max(slowest, time.monotonic() - asked)
            if answer["total"] == 5000 and not answer["looking"]:
                break
            time.sleep(0.02)
        first = time.monotonic() - begun
        times = []
        for _ in range(5):
            for query in ("limit=50", "limit=50&offset=4950", "sort=peak&limit=500", "q=event+49&sort=label", "from=2026-01-03"):
                asked = time.monotonic()
                self.web.read("/api/events?" + query)
                times.append(time.monotonic() - asked)
        print(f"5,000 events: first look {first:.2f} s, slowest answer meanwhile {slowest * 1000:.0f} ms, then median "
              f"{statistics.median(times) * 1000:.0f} ms, slowest {max(times) * 1000:.0f} ms")
        self.assertLess(statistics.median(times), 0.2)
        self.assertLess(slowest, 2.0)


class FileTest(Served):
    def get(self, name, **headers):
        return self.web.ask("/events/00000001/" + name, headers={key.replace("_", "-"): value for key, value in headers.items()})

    def test_parts_of_a_clip(self):
        self.list(count=3)
        size = len(CLIP)
        for wanted, (status, first, last) in {
                "": (200, 0, size), "bytes=0-0": (206, 0, 1), "bytes=100-199": (206, 100, 200), "bytes=102000-": (206, 102000, size),
                "bytes=-7": (206, size - 7, size), "bytes=5-99999999": (206, 5, size), "bytes=0-1,5-6": (200, 0, size),
                "bytes=9-3": (200, 0, size), "lines=1-2": (200, 0, size), "bytes=102400-": (416, 0, 0), "bytes=-0": (416, 0, 0)}.items():
            with self.subTest(wanted=wanted):
                got, headers, content = self.get("clip.mp4", Range=wanted)
                self.assertEqual(got, status)
                if status != 416:
                    self.assertEqual(content, CLIP[first:last])
                if status == 206:
                    self.assertEqual(headers["Content-Range"], f"bytes {first}-{last - 1}/{size}")
        _, headers, _ = self.get("clip.mp4")
        self.assertEqual((headers["Content-Type"], headers["X-Content-Type-Options"]), ("video/mp4", "nosniff"))
        self.assertEqual(self.get("clip.mp4", If_None_Match=headers["ETag"])[0], 304)
        self.assertEqual(self.get("clip.mp4", Range="bytes=0-1", If_Range='"other"')[0], 200)

    def test_nothing_else_is_ever_read(self):
        secret = self.home / "secret.mp4"
        secret.write_bytes(b"TOP SECRET")
        description = json.loads((self.clip / "event.json").read_text())
        listed = {"type": "VideoCamera1", "bytes": 10, "sha256": "0" * 64}
        description["files"] += [{**listed, "name": name} for name in ("link.mp4", "pipe.mp4", "folder.mp4")]
        (self.clip / "event.json").write_text(json.dumps(description))
        (self.clip / "link.mp4").symlink_to(secret)
        os.mkfifo(self.clip / "pipe.mp4")
        (self.clip / "folder.mp4").mkdir()
        (self.clip / "unlisted.mp4").write_bytes(b"TOP SECRET")
        (self.events / "20260101T000900Z_00000009").symlink_to(self.clip)
        moving = self.home / "20260101T000500Z_00000005"
        shutil.copytree(self.clip, moving, symlinks=True, ignore=lambda *_: ["pipe.mp4"])
        moving.rename(self.events / moving.name)
        self.list(count=4)
        for path in ("00000001/link.mp4", "00000001/pipe.mp4", "00000001/folder.mp4", "00000001/unlisted.mp4", "00000001/protected",
                     "00000001/../../secret.mp4", "00000001/%2e%2e/%2e%2e/secret.mp4", "00000001/..%2f..%2fsecret.mp4",
                     f"00000001/{self.home}/secret.mp4", f"00000001/%2f{self.home}/secret.mp4", "00000009/clip.mp4", "..%2fsecret.mp4",
                     "00000001/clip.mp4%00.jpg", "00000001//clip.mp4", "20260101T000100Z_00000001/clip.mp4", ".chain", "00000003/still.jpg"):
            with self.subTest(path=path):
                status, _, content = self.web.ask("/events/" + path)
                self.assertIn(status, (200,) if path.endswith("%00.jpg") and content == CLIP else (400, 403, 404))
                self.assertNotIn(b"SECRET", content)
        # A directory that becomes a link after it was listed.
        victim = self.events / moving.name
        victim.rename(self.home / "real")
        victim.symlink_to(self.home / "real")
        self.assertEqual(self.web.ask("/events/00000005/clip.mp4")[0], 404)

    def test_an_event_as_one_archive(self):
        self.list(count=3)
        status, headers, content = self.web.ask("/api/events/00000001/archive")
        self.assertEqual(status, 200)
        self.assertIn(f'filename="{self.clip.name}.zip"', headers["Content-Disposition"])
        with zipfile.ZipFile(io.BytesIO(content)) as archive:
            self.assertIsNone(archive.testzip())
            found = {name.split("/", 1)[1]: archive.read(name) for name in archive.namelist()}
        for name in ("event.json", "event.json.sig", "clip.mp4", "still.jpg"):
            self.assertEqual(found.pop(name), (self.clip / name).read_bytes(), name)
        self.assertEqual(list(found), ["index.html"])
        (self.clip / "clip.mp4").unlink()
        with zipfile.ZipFile(io.BytesIO(self.web.ask("/api/events/00000001/archive")[2])) as archive:
            self.assertIn(b"clip.mp4", archive.read(self.clip.name + "/not-in-this-archive.txt"))
        self.assertEqual(self.web.ask("/api/events/00000003/archive")[0], 404)

    def test_a_page_that_somebody_has_put_there_is_not_shown(self):
        (self.clip / "index.html").write_text("<script>fetch('/api/events/00000002', {method: 'DELETE'})</script>")
        self.list(count=3)
        for path in ("/events/00000001/", "/events/00000001/index.html"):
            status, headers, content = self.web.ask(path)
            self.assertEqual(status, 200)
            self.assertNotIn(b"DELETE", content)
            self.assertNotIn("Tür <b>".encode(), content)
            self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
        self.assertEqual(self.web.ask("/events/00000001")[1]["Location"], "/events/00000001/")


class GateTest(Served):
    def test_pages_of_others_get_nothing(self):
        self.list(count=3)
        own, console = self.web.where.netloc, {"X-Tavi-Console": "1"}
        read = "/api/events"
        change = "/api/events/00000001/protect"
        for what, method, headers, right in (
                (read, "GET", {"Host": "evil.example"}, 403), (read, "GET", {"Host": "localhost:1"}, 200), (read, "GET", {"Host": "LOCALHOST"}, 200),
                (read, "GET", {"Host": "[::1]:80"}, 200), (read, "GET", {"Host": "127.0.0.1.evil.example"}, 403), (read, "GET", {"Host": ""}, 403),
                (read, "GET", {"Sec-Fetch-Site": "cross-site"}, 403), (read, "GET", {"Sec-Fetch-Site": "same-site"}, 403),
                (read, "GET", {"Sec-Fetch-Site": "same-origin"}, 200), ("/events/00000001/still.jpg", "GET", {"Sec-Fetch-Site": "cross-site"}, 403),
                ("/", "GET", {"Sec-Fetch-Site": "cross-site", "Sec-Fetch-Mode": "navigate", "Sec-Fetch-Dest": "document"}, 200),
                ("/", "GET", {"Sec-Fetch-Site": "cross-site", "Sec-Fetch-Mode": "navigate", "Sec-Fetch-Dest": "iframe"}, 403),
                (change, "POST", {}, 403), (change, "POST", console, 200), (change, "POST", {**console, "Origin": f"http://{own}"}, 200),
                (change, "POST", {**console, "Origin": "http://evil.example"}, 403), (change, "POST", {**console, "Origin": "null"}, 403),
                (change, "POST", {**console, "Origin": f"https://{own}"}, 403), (change, "POST", {**console, "Sec-Fetch-Site": "cross-site"}, 403),
                ("/api/events/00000001", "DELETE", {}, 403), (change, "GET", {}, 405), (read, "POST", console, 405), (read, "OPTIONS", {}, 403)):
            with self.subTest(what=what, method=method, headers=headers):
                status, answer, _ = self.web.ask(what, method, "{}" if method == "POST" else None, headers)
                self.assertEqual(status, right)
                self.assertFalse([name for name in answer if name.lower().startswith("access-control")])
        _, headers, _ = self.web.ask("/api/status")
        self.assertEqual(headers["Cache-Control"], "no-store")
        page = self.web.ask("/")[1]
        self.assertNotIn("unsafe", page["Content-Security-Policy"])
        self.assertIn("frame-ancestors 'none'", page["Content-Security-Policy"])
        named = self.start(hosts="unit7.fleet.example, other")
        self.assertEqual([named.ask("/", headers={"Host": host})[0] for host in ("Unit7.fleet.example:8080", "other", "third")], [200, 200, 403])

    def test_a_token_lets_in_and_wrong_ones_wait(self):
        (self.home / "token").write_text(TOKEN + "\n")
        (self.home / "token").chmod(0o600)
        self.web = web = self.start(tokenFile=str(self.home / "token"))
        self.assertEqual([web.ask(path)[0] for path in ("/api/status", "/events/00000001/still.jpg", "/api/live", "/api/events/00000001/archive")],
                         [401] * 4)
        for path in ("/", "/live", "/events/00000001/"):
            self.assertEqual((web.ask(path)[0], web.ask(path)[1]["Location"]), (303, "/login"))
        self.assertEqual([web.ask(path)[0] for path in ("/login", "/assets/style.css", "/assets/login.js")], [200] * 3)
        bearer = {"Authorization": "Bearer " + TOKEN}
        self.assertEqual(web.ask("/api/status", headers=bearer)[0], 200)
        with concurrent.futures.ThreadPoolExecutor(30) as pool:
            begun = time.monotonic()
            wrong = [pool.submit(web.ask, "/api/status", headers={"Authorization": f"Bearer {TOKEN}{i}"}) for i in range(20)]
            login = {"token": "wrong"}
            wrong.append(pool.submit(web.ask, "/api/login", "POST", login, {"X-Tavi-Console": "1"}))
            statuses = [each.result()[0] for each in wrong]
            self.assertGreaterEqual(time.monotonic() - begun, 1.0)
        self.assertEqual(set(statuses) - {401, 429}, set())
        # Of many guesses at once but a few are looked at.
        self.assertLessEqual(statuses.count(401), 12)
        status, headers, _ = web.ask("/api/login", "POST", {"token": TOKEN}, {"X-Tavi-Console": "1"})
        self.assertEqual(status, 200)
        cookie = headers["Set-Cookie"]
        for part in ("HttpOnly", "SameSite=Strict", "Path=/"):
            self.assertIn(part, cookie)
        self.assertNotIn(TOKEN, cookie)
        pair = cookie.split(";")[0]
        self.assertEqual(web.ask("/", headers={"Cookie": "a=b; " + pair})[0], 200)
        for forged in (pair[:-1], pair + "0", "tavi-console=", "tavi-console=" + hashlib.sha256(TOKEN.encode()).hexdigest()):
            self.assertEqual(web.ask("/api/status", headers={"Cookie": forged})[0], 401, forged)
        # Who has the cookie is known, yet another site's page may not use it.
        self.assertEqual(web.ask("/api/event", "POST", {}, {"Cookie": pair})[0], 403)

    def test_it_does_not_start_open_to_others(self):
        token = self.home / "token"
        for text, mode, settings, right in (
                (TOKEN, 0o600, {"address": "0.0.0.0"}, "tokenFile"), (TOKEN, 0o600, {"address": "::"}, "tokenFile"),
                (TOKEN, 0o644, {"tokenFile": str(token)}, "mode 0640"), ("short", 0o600, {"tokenFile": str(token)}, "16"),
                (TOKEN, 0o600, {"tokenFile": "/nowhere"}, "/nowhere"), (TOKEN, 0o600, {"keyFile": "/x"}, "certificateFile"),
                (TOKEN, 0o600, {"address": "localhost"}, "address"), (TOKEN, 0o600, {"prot": 1}, "nearest name is port")):
            with self.subTest(settings=settings, text=text):
                token.write_text(text)
                token.chmod(mode)
                (self.home / "wrong.json").write_text(json.dumps(settings))
                run = subprocess.run([PROGRAM, "--port", "0", "--config", self.home / "wrong.json"], capture_output=True, text=True, timeout=20)
                self.assertEqual((run.returncode, run.stdout, run.stderr.count("\n")), (2, "", 1), run.stderr)
                self.assertIn(right, run.stderr)

    def test_encrypted(self):
        certificate, key = self.home / "cert.pem", self.home / "key.pem"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj", "/CN=unit",
                        "-days", "2", "-out", certificate, "-keyout", key], check=True, capture_output=True)
        (self.home / "token").write_text(TOKEN)
        (self.home / "token").chmod(0o600)
        self.web = self.start("--address", "0.0.0.0", certificateFile=str(certificate), keyFile=str(key), tokenFile=str(self.home / "token"))
        _, headers, _ = self.web.ask("/api/login", "POST", {"token": TOKEN}, {"X-Tavi-Console": "1", "Origin": f"https://{self.web.where.netloc}"})
        self.assertIn("Secure", headers["Set-Cookie"])
        bearer = {"Authorization": "Bearer " + TOKEN}
        deadline = time.monotonic() + 10
        while (answer := self.web.ask("/events/00000001/clip.mp4", headers=bearer))[0] != 200 and time.monotonic() < deadline:
            time.sleep(0.05)
        self.assertEqual(answer[2], CLIP)
        with self.web.open_socket() as plain:
            plain.sendall(b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n")
            self.assertFalse(plain.recv(4096).startswith(b"HTTP"))

    def test_those_who_stall_or_flood_harm_nobody(self):
        large = self.clip / "clip.mp4"
        os.truncate(large, 200_000_000)
        self.list(count=3)
        stalled = [self.web.open_socket() for _ in range(60)]
        self.addCleanup(lambda: [each.close() for each in stalled])
        for number, each in enumerate(stalled):
            each.sendall(b"GET /events/00000001/clip.mp4 HTTP/1.1\r\nHost: localhost\r\n" + (b"\r\n" if number < 20 else b"X: "))
        begun = time.monotonic()
        for _ in range(20):
            self.assertEqual(self.web.ask("/api/events")[0], 200)
        self.assertLess(time.monotonic() - begun, 5)
        pages = int(pathlib.Path(f"/proc/{self.web.run.pid}/statm").read_text().split()[1])
        self.assertLess(pages * os.sysconf("SC_PAGE_SIZE"), 300_000_000)
        for head, right in ((b"POST /api/event HTTP/1.1\r\nHost: localhost\r\nX-Tavi-Console: 1\r\nContent-Length: 99999999\r\n\r\n", b" 413 "),
                            (b"POST /api/event HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n", b" 411 "),
                            (b"GET /" + b"a" * 60000 + b" HTTP/1.1\r\nHost: localhost\r\n\r\n", b" 4"),
                            (b"GET / HTTP/1.1\r\nHost: localhost\r\nX: " + b"a" * 60000 + b"\r\n\r\n", b" 4")):
            with self.web.open_socket() as client:
                try:
                    client.sendall(head)
                    answer = client.recv(4096)
                except ConnectionError:
                    continue  # cut off before it was through
                self.assertIn(right, answer[:16])
        self.assertEqual(self.web.stop(), (0, ""))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
