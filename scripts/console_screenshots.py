#!/usr/bin/env python3
"""Takes events over the console and pictures of its pages: console_screenshots.py URL DIRECTORY"""
import base64
import json
import pathlib
import sys
import time
import urllib.request

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests/Tools"))
import Browser  # noqa: E402

URL, DIRECTORY = sys.argv[1:3]
LABELS = ("Door slam in the depot", "Hard braking at the crossing", "Cyclist from the right")


def ask(path, body=None):
    data = None if body is None else json.dumps(body).encode()
    request = urllib.request.Request(URL + path, data, {"X-Tavi-Console": "1"})
    with Browser.DIRECT.open(request, timeout=30) as answer:
        return json.load(answer)


def wait_until(condition):
    deadline = time.monotonic() + 120
    while not condition():
        assert time.monotonic() < deadline
        time.sleep(0.5)


def has_events(count):
    return len(ask("/api/events")["events"]) >= count


def main():
    wait_until(lambda: ask("/api/status")["state"] == "recording")
    time.sleep(12)
    for count, label in enumerate(LABELS, 1):
        ask("/api/event", {"label": label, "beforeSeconds": 8, "durationSeconds": 10})
        wait_until(lambda: has_events(count))
    events = ask("/api/events")["events"]
    ask(f"/api/events/{events[0]['id']}/protect", {"protected": True})
    ask(f"/api/events/{events[1]['id']}/label", {"label": "Braking, reported to the workshop"})
    one = f"/events/{events[-1]['id']}/"
    browser = Browser.Browser()
    for name, path, width, height, scheme in (
            ("live", "/live", 1280, 860, "light"), ("live-dark", "/live", 1280, 860, "dark"), ("live-phone", "/live", 390, 844, "light"),
            ("events", "/", 1280, 640, "light"), ("events-phone", "/", 390, 844, "dark"), ("event", one, 1280, 860, "light")):
        browser.show_as(width, height, prefers_color_scheme=scheme)
        browser.call("POST", "/url", {"url": URL + path})
        if path == "/live":
            browser.wait_for("[...document.querySelectorAll('video')].every((video) => video.currentTime > 0 && video.readyState > 2)")
            # Some of the track, and the sound's level.
            time.sleep(15)
        elif path == "/":
            browser.wait_for("document.querySelectorAll('#events li').length >= 3")
        else:
            browser.wait_for("[...document.querySelectorAll('video')].every((video) => video.readyState > 1)")
        time.sleep(1)
        picture = base64.b64decode(browser.call("GET", "/screenshot"))
        pathlib.Path(DIRECTORY, f"console-{name}.png").write_bytes(picture)
    browser.close()


main()
