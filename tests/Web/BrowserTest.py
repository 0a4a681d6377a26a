#!/usr/bin/env python3
"""The console in a real browser, with the simulated car: BrowserTest.py TAVI_RECORDER TAVI_WEB AXE"""
import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "Tools"))
import Browser  # noqa: E402
import Console  # noqa: E402

RECORDER, WEB, AXE = sys.argv[1:4]
CAMERA = {"width": 320, "height": 240, "fps": 10, "bitrate": 300, "previewEnabled": False}
SHOWN = "document.querySelectorAll('#events > li').length"


class ConsoleInABrowser(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        home = tempfile.TemporaryDirectory(prefix="tavi-web-")
        cls.addClassCleanup(home.cleanup)
        cls.home = pathlib.Path(home.name)
        cls.events = cls.home / "out/events"
        for number in range(1, 56):
            Console.make_event(cls.events, number)
        cls.start_recorder()
        cls.addClassCleanup(lambda: cls.stop_recorder())
        cls.web = Console.Program(WEB, "--control", cls.home / "socket")
        cls.addClassCleanup(lambda: cls.web.stop())
        cls.browser = Browser.Browser()
        cls.addClassCleanup(lambda: cls.browser.close())

    @classmethod
    def start_recorder(cls):
        settings = cls.home / "settings.json"
        settings.write_text(json.dumps({"events": {"startSeconds": -2, "durationSeconds": 4, "withPreview": False},
                                        "pipeline": {"camera0": {"name": "Front", **CAMERA}, "camera1": CAMERA}}))
        with (cls.home / "log").open("a") as log:
            cls.recorder = subprocess.Popen([RECORDER, "run", "--simulate", "--config", settings, "--output", cls.home / "out",
                                             "--control", cls.home / "socket"], stderr=log)
        deadline = time.monotonic() + 30
        while not (cls.home / "socket").exists():
            assert cls.recorder.poll() is None and time.monotonic() < deadline, (cls.home / "log").read_text()
            time.sleep(0.05)

    @classmethod
    def stop_recorder(cls):
        cls.recorder.terminate()
        cls.recorder.wait(30)

    def go(self, path):
        self.browser.call("POST", "/url", {"url": self.web.url.rstrip("/") + path})

    def read(self, expression):
        return self.browser.run("return " + expression)

    def write(self, selector, text):
        """Into a field that people type or choose in."""
        self.browser.run(f"const field = document.querySelector('{selector}'); field.value = {json.dumps(text)};"
                         "field.dispatchEvent(new Event('input', {bubbles: true}));")

    def test_list_filter_protect_label_and_delete(self):
        self.go("/")
        self.browser.wait_for(SHOWN + " === 50")
        self.assertEqual(self.read("document.querySelector('#part').textContent"), "1 to 50 of 55")
        self.browser.click("#after")
        self.browser.wait_for(SHOWN + " === 5")
        self.write("#q", "EVENT 7")
        self.browser.wait_for(SHOWN + " === 1")
        self.assertIn("q=EVENT+7", self.read("location.search"))
        self.assertIn("up to 14 km/h", self.read("document.querySelector('#events li').innerText"))
        one = "#events li[data-id='00000007'] "
        self.browser.click(one + "button[data-act=Protect]")
        self.browser.wait_for(f"document.querySelector(\"{one}button[aria-pressed=true]\")")
        self.assertTrue(next(self.events.glob("*_00000007")).joinpath("protected").exists())
        self.browser.click(one + "button[data-act=Label]")
        self.browser.type("#label-text", "dented <b>door</b>" + Browser.ENTER)
        self.browser.wait_for(f"document.querySelector(\"{one}h2\").textContent === 'dented <b>door</b>'")
        # The dialog has its focus on what does no harm.
        self.browser.click(one + "button[data-act=Delete]")
        self.assertIn("It is protected", self.read("document.querySelector('#delete-what').textContent"))
        self.browser.press(Browser.ENTER)
        self.browser.wait_for("!document.querySelector('#delete').open")
        self.assertEqual(self.read(SHOWN), 1)
        self.browser.click(one + "button[data-act=Delete]")
        self.browser.click("#delete-yes")
        self.browser.wait_for(SHOWN + " === 0")
        self.assertEqual(list(self.events.glob("*_00000007")), [])
        self.assertEqual(self.browser.read_complaints(), [])

    def test_live_pictures_move_and_an_event_is_taken(self):
        self.go("/live")
        begun = time.monotonic()
        moving = "[...document.querySelectorAll('video')].every((video) => video.videoWidth === 320 && video.currentTime > {})"
        self.browser.wait_for(moving.format("0 && video.readyState >= 2"))
        print(f"both cameras are shown after {time.monotonic() - begun:.2f} s")
        first = self.read("[...document.querySelectorAll('video')].map((video) => video.currentTime)")
        self.browser.wait_for(moving.format(max(first) + 2))
        self.assertEqual(self.read("[...document.querySelectorAll('video')].map((video) => video.getAttribute('aria-label'))"),
                         ["Front, live", "Camera 1, live"])
        # Pictures, not only a clock: two of the same place differ.
        look = """const canvas = Object.assign(document.createElement('canvas'), {width: 320, height: 240});
            const draw = canvas.getContext('2d'); draw.drawImage(document.querySelector('#video1'), 0, 0);
            return draw.getImageData(0, 0, 320, 240).data.join();"""
        before = self.browser.run(look)
        deadline = time.monotonic() + 10
        while self.browser.run(look) == before:
            self.assertLess(time.monotonic(), deadline, "the picture stands still")
            time.sleep(0.05)
        for condition in ("document.querySelector('#track .way')", "document.querySelectorAll('#acceleration .curve').length === 3",
                          "/dB/.test(document.querySelector('#level-text').textContent)", "/%/.test(document.querySelector('#load').textContent)",
                          "/accelerometerdelivers/.test(document.querySelector('#sources').textContent)"):
            self.browser.wait_for(condition)
        self.browser.click("#sound")
        self.browser.type("#take-label", "from the browser" + Browser.ENTER)
        self.browser.wait_for("document.querySelector('#taken progress')")
        self.browser.wait_for("document.querySelector('#taken a')")
        taken = self.read("document.querySelector('#taken a').getAttribute('href')")
        self.assertEqual(self.read("document.querySelector('#taken a').textContent"), "from the browser")
        event = json.loads(next(self.events.glob(f"*_{taken.split('/')[2]}")).joinpath("event.json").read_text())
        self.assertEqual(event["label"], "from the browser")
        self.assertEqual(self.browser.read_complaints(), [])
        self.browser.click("#taken a")
        self.browser.wait_for("document.querySelectorAll('video').length === 2")
        self.browser.click("#play")
        self.browser.wait_for("[...document.querySelectorAll('video')].every((clip) => clip.currentTime > 0.3)")
        self.assertEqual(self.browser.read_complaints(), [])

    def test_a_recorder_that_goes_and_comes_is_told(self):
        self.go("/live")
        self.browser.wait_for("document.querySelector('#video0').currentTime > 0")
        self.stop_recorder()
        self.browser.wait_for("!document.querySelector('#away').hidden")
        self.start_recorder()
        self.browser.wait_for("document.querySelector('#away').hidden")
        at = self.read("document.querySelector('#video0').currentTime")
        self.browser.wait_for(f"document.querySelector('#video0').currentTime > {at} + 0.5 && document.querySelector('#video0').readyState > 2")

    def test_nobody_is_shut_out(self):
        if not pathlib.Path(AXE).exists():
            self.skipTest("axe is not there: scripts/setup.sh --test")
        event = next(self.events.glob("*_00000009")).name.split("_")[1]
        for path, shown in (("/", SHOWN + " > 0"), ("/live", "document.querySelector('#sources dd')"), ("/login", "true"),
                            ("/settings", "document.querySelector('#problems li')"), (f"/events/{event}/", "true")):
            self.go(path)
            self.browser.wait_for(shown)
            self.browser.run(pathlib.Path(AXE).read_text())
            for width, scheme in ((1280, "light"), (390, "light"), (390, "dark")):
                with self.subTest(path=path, width=width, scheme=scheme):
                    self.browser.show_as(width, 900, prefers_color_scheme=scheme)
                    self.browser.run("window.found = null; axe.run().then((found) => { window.found = found; })")
                    self.browser.wait_for("window.found")
                    violations = self.read("window.found.violations.flatMap((v) => v.nodes.map((node) => `${v.id}: ${node.html}`))")
                    self.assertEqual(violations, [])
                    self.assertLessEqual(self.read("document.documentElement.scrollWidth"), width)


if __name__ == "__main__":
    if not shutil.which("chromium") or not shutil.which("chromedriver"):
        print("skipped: chromium and chromedriver are not installed")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)
