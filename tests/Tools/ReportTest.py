# An event's page in a real browser: a real event is recorded, its page opened, played, clicked and saved from.
import base64
import json
import pathlib
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import unittest

import Browser
import Events

RECORDER, REPORT, VERIFY, AXE = sys.argv[1:5]
LABEL = "<script>document.title = 'taken'</script> & \"Kreuzung\" ü"
STATE = """
const points = (id) => [...document.querySelectorAll(`#${id} polyline`)].map((line) => line.points.numberOfItems);
const scrubber = document.querySelector("#scrubber");
return {
  times: [...document.querySelectorAll("video")].map((clip) => clip.currentTime),
  heard: [...document.querySelectorAll("video, audio")].filter((clip) => !clip.muted).length,
  position: Number(scrubber.value), first: Number(scrubber.min), last: Number(scrubber.max),
  cursors: [...document.querySelectorAll("#plots .cursor")].map(
    (line) => [Number(line.getAttribute("x1")), line.ownerSVGElement.viewBox.baseVal.width]),
  points: { speed: points("speed"), acceleration: points("acceleration"), machine: points("machine") },
  place: document.querySelector("#track .here")?.getAttribute("transform"),
  title: document.title, heading: document.querySelector("h1").textContent,
};"""
READY = "[...document.querySelectorAll('video')].every((clip) => clip.readyState >= 2 && !clip.seeking)"
# Where the machine is busy it has come to its end by itself, and would begin anew.
PAUSE = "const play = document.querySelector('#play'); if (play.textContent === 'Pause') play.click();"
# The plots' margins in pixels: on the left, on both sides.
LEFT, BOTH = 44, 58


# What a click on a download would save, as data URLs by their names. The page's policy forbids to load it from its URL.
CATCH = """
window.saved = {};
const made = new Map();
const create = URL.createObjectURL;
URL.createObjectURL = (blob) => {
  const url = create(blob);
  made.set(url, blob);
  return url;
};
HTMLAnchorElement.prototype.click = function () {
  const reader = new FileReader();
  reader.onload = () => { window.saved[this.download] = reader.result; };
  reader.readAsDataURL(made.get(this.href));
};"""
# Seconds between the moments of the two pictures that are seen while both cameras play.
APART = """
window.apart = [];
(function look() {
  const times = [...document.querySelectorAll("canvas.shown")].map((canvas) => Number(canvas.dataset.time));
  if (times.length === 2) window.apart.push(Math.abs(times[0] - times[1]));
  requestAnimationFrame(look);
})();"""
NAMES = {"VideoCamera1": "front <b>", "VideoCamera0": "rear"}


def read_idr_slice(clip):
    """The first slice of the first picture in an MP4 whose samples begin with it: a white one has a few hundred bytes only."""
    at = clip.index(b"mdat") + 4
    while clip[at + 4] & 0x1F != 5:
        at += 4 + int.from_bytes(clip[at:at + 4], "big")
    return clip[at:at + 4 + int.from_bytes(clip[at:at + 4], "big")]


class ReportTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.home = tempfile.TemporaryDirectory(prefix="tavi-test-")
        cls.addClassCleanup(cls.home.cleanup)
        cls.files = Events.record(RECORDER, cls.home.name)
        cls.out = tempfile.TemporaryDirectory(prefix="tavi-test-")
        cls.addClassCleanup(cls.out.cleanup)
        cls.page = pathlib.Path(cls.out.name, "report.html")
        cls.browser = Browser.Browser()
        cls.addClassCleanup(cls.browser.close)

    def read(self, expression):
        return self.browser.run("return " + expression)

    def take_saved(self, count):
        self.browser.wait_for(f"Object.keys(window.saved).length === {count}")
        return {name: base64.b64decode(url.split(",")[1]) for name, url in self.read("window.saved").items()}

    def find_violations(self):
        """What axe finds, as lines; None where there is no axe."""
        if not pathlib.Path(AXE).exists():
            return None
        self.browser.run("window.found = null")
        self.browser.run(pathlib.Path(AXE).read_text())
        self.browser.run("axe.run().then((found) => { window.found = found; })")
        self.browser.wait_for("window.found")
        return self.read("window.found.violations.flatMap((v) => v.nodes.map((node) => `${v.id}: ${node.html}`))")

    def open(self, files, status=0, **changes):
        Events.describe(self.home.name, files, **changes)
        run = subprocess.run([REPORT, self.home.name, "--output", self.page], stderr=subprocess.PIPE, text=True)
        self.assertEqual(run.returncode, status, run.stderr)
        self.browser.read_requests()
        self.browser.call("POST", "/url", {"url": self.page.as_uri()})
        self.browser.wait_for(READY)
        return run.stderr

    def look(self, delta=0.05):
        """The page's state, after a look whether all of it stands at its position: the clips to within `delta` s."""
        state = self.browser.run(STATE)
        part = (state["position"] - state["first"]) / (state["last"] - state["first"])
        for x, width in state["cursors"]:
            self.assertAlmostEqual(x, LEFT + part * (width - BOTH), delta=2)
        if len(state["times"]) == 2:
            for time, start in zip(state["times"], (-2.0, -2.4)):
                here = min(max(state["position"], start), start + 4.05)
                self.assertAlmostEqual(max(time + start, start), here, delta=delta + 0.05)
        return state

    def test_a_whole_event_plays_in_step_and_goes_where_one_clicks(self):
        self.open(self.files, label=LABEL)
        state = self.look()
        self.assertEqual((state["title"], state["heading"]), (LABEL, LABEL))
        self.assertAlmostEqual(state["first"], -2.4, places=2)
        fixes, blocks = (Events.count_entries(self.files[kind]) for kind in ("Gps", "Acc"))
        samples = len(json.loads(pathlib.Path(self.files["Other"]).read_bytes()))
        self.assertGreater(min(fixes, blocks, samples), 2)
        self.assertEqual(state["points"]["speed"], [fixes])
        self.assertEqual(state["points"]["acceleration"], [blocks * 10] * 3)
        self.assertIn(state["points"]["machine"], ([samples], [samples, samples]))

        self.browser.run(APART)
        self.browser.click("#play")
        self.browser.wait_for("window.apart.length > 10")
        self.browser.wait_for("[...document.querySelectorAll('video')].every((clip) => clip.currentTime > 1)")
        # What is seen is pictures that belong together, but for some where the browser has left out many.
        apart = sorted(self.browser.run("return window.apart"))
        self.assertLessEqual(apart[len(apart) * 9 // 10], 1 / 15 + 0.002, apart)
        playing = self.look(0.3)
        self.assertEqual(playing["heard"], 1)
        self.assertNotEqual(playing["place"], state["place"], "the track's marker follows")
        self.browser.run(PAUSE)

        self.browser.click("#acceleration svg")
        self.browser.wait_for(READY)
        clicked = self.look()
        width = clicked["cursors"][0][1]
        part = (width / 2 - LEFT) / (width - BOTH)
        self.assertAlmostEqual(clicked["position"], -2.4 + part * (clicked["last"] + 2.4), delta=0.03)

        self.browser.click("#play")
        self.browser.wait_for("document.querySelector('#play').textContent === 'Play'")
        ended = self.look(0.5)
        self.assertEqual(ended["position"], ended["last"], "it plays to its end and stops there")
        self.assertEqual(self.browser.read_complaints(), [])
        self.assertEqual([url for url in self.browser.read_requests()
                          if not url.startswith(("blob:", self.page.as_uri()))], [])

    def test_it_says_what_differs_and_whether_the_files_are_right(self):
        whole = {"cameraNames": NAMES, "missing": []}
        self.open(self.files, **whole)
        self.assertEqual(self.read("document.querySelector('#differs').textContent"),
                         "All that was asked for is here.")
        self.assertIn("not signed", self.read("document.querySelector('#proof.alarm').textContent"))
        self.assertEqual(self.read("[...document.querySelectorAll('figcaption')].map((c) => c.textContent)"),
                         list(NAMES.values()))
        late = {"type": "VideoCamera0", "seconds": 1.5, "reason": "begins 1.5 s late"}
        self.open({kind: path for kind, path in self.files.items() if kind != "Audio"}, **{**whole, "missing": [late]})
        self.assertIn("rear: begins 1.5 s late", self.read("document.querySelector('#differs.alarm').textContent"))
        self.open(self.files, **whole, interrupted=True)
        self.assertIn("ended early", self.read("document.querySelector('#differs.alarm').textContent"))

    def test_keys_do_the_same_whatever_was_clicked(self):
        self.open(self.files)
        for button in ("#faster", "#slower", "#mute", "#scrubber"):
            self.browser.click(button)
            self.browser.click("#to-event")
            self.browser.run(f"document.querySelector('{button}').focus()")
            self.browser.press(" ")
            self.browser.wait_for("document.querySelector('#play').textContent === 'Pause'")
            self.browser.press(" ")
            self.browser.wait_for("document.querySelector('#play').textContent === 'Play'")
            self.browser.wait_for(READY)
            before = self.look()["position"]
            self.browser.press(Browser.LEFT)
            self.browser.wait_for(READY)
            self.assertAlmostEqual(self.look()["position"], before - 1, delta=0.02, msg=button)
        # A picture of the camera that has most of them, and back.
        steps = []
        for key in ("0", ".", ".", ","):
            self.browser.press(key)
            self.browser.wait_for(READY)
            steps.append(self.look()["position"])
        self.assertAlmostEqual(steps[2] - steps[1], 1 / 30, delta=0.01)
        self.assertAlmostEqual(steps[3], steps[1], delta=0.001)
        # Nothing is announced while it plays. What is due for where it stood comes first, however slow the browser is.
        self.browser.run("document.querySelector('#announce').textContent = ''")
        self.browser.press("0")
        self.browser.wait_for("document.querySelector('#announce').textContent === '+0.00 s from the event'")
        self.browser.run("window.spoken = []; new MutationObserver(() => {"
                         " window.spoken.push(document.querySelector('#play').textContent); })"
                         ".observe(document.querySelector('#announce'), { childList: true })")
        self.browser.press(" ")
        self.browser.wait_for("Number(document.querySelector('#scrubber').value) > 0.6")
        self.browser.run(PAUSE)
        self.browser.wait_for("window.spoken.length > 0")
        self.assertEqual(self.read("window.spoken"), ["Play"])

    def test_a_picture_of_another_moment_is_dimmed_and_says_so(self):
        self.open(self.files)
        note = "document.querySelector('#VideoCamera1.foreign .note')?.textContent ?? ''"
        self.assertEqual(self.look()["position"], -2.4)
        self.assertIn("−2.00 s", self.read(note))
        self.browser.press("0")
        self.assertEqual(self.read(note), "")

    def read_rows(self, picture):
        """Of a saved picture: a row of the line of data, and one of each camera's."""
        gray = subprocess.run(["ffmpeg", "-v", "error", "-i", "-", "-pix_fmt", "gray", "-f", "rawvideo", "-"],
                              input=picture, capture_output=True, check=True).stdout
        line, cameras = (gray[2560 * y:2560 * (y + 1)] for y in (720 + 25, 200))
        return line, cameras[:1280], cameras[1280:]

    def test_the_moment_is_saved_as_a_picture_and_a_part_as_clips(self):
        self.open(self.files, cameraNames=NAMES)
        self.browser.run(CATCH)
        self.browser.press("0")
        self.browser.wait_for(READY)
        self.browser.click("#picture")
        (name, picture), = self.take_saved(1).items()
        self.assertEqual(name, "event_9f3ca1b2_+0.00s.png")
        self.assertEqual(struct.unpack(">II", picture[16:24]), (2 * 1280, 720 + 92))
        # The clock that both cameras have filmed is in it, and the line of data: neither is one colour.
        line, *halves = self.read_rows(picture)
        self.assertGreater(len(set(line)), 20, "the line of data")
        if any(max(half) - min(half) <= 60 for half in halves):
            # The scene's white flash, a tenth of each second: five pictures later it is over.
            self.browser.run(CATCH)
            self.browser.press(".", ".", ".", ".", ".")
            self.browser.wait_for(READY)
            self.browser.click("#picture")
            (_, picture), = self.take_saved(1).items()
            _, *halves = self.read_rows(picture)
            self.browser.press("0")
        for half in halves:
            self.assertGreater(max(half) - min(half), 60, "a camera's picture")

        self.browser.run(CATCH)
        self.browser.press(Browser.LEFT)
        self.browser.click("#part-from")
        self.browser.press(Browser.RIGHT, Browser.RIGHT)
        self.browser.click("#part-to")
        self.browser.click("#part-save")
        parts = self.take_saved(2)
        self.assertEqual(list(parts), ["event_9f3ca1b2_front-b-_-1.00s_+1.00s.mp4", "event_9f3ca1b2_rear_-1.00s_+1.00s.mp4"])
        for name, content in parts.items():
            path = pathlib.Path(self.out.name, "part.mp4")
            path.write_bytes(content)
            # Decoded with its edit list; complaints of the decoder would be on standard error.
            run = subprocess.run(["ffmpeg", "-y", "-v", "error", "-i", path, "-map", "0:v", "-f", "framecrc", "-", "-map", "0:a",
                                  "-f", "s16le", "/dev/null"], capture_output=True, text=True)
            self.assertEqual((run.returncode, run.stderr), (0, ""), name)
            rate = 15 if "front" in name else 30
            pictures = [line for line in run.stdout.splitlines() if not line.startswith("#")]
            self.assertAlmostEqual(len(pictures), 2 * rate, delta=2, msg=name)
            seconds = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0", path],
                                     capture_output=True, text=True).stdout
            self.assertAlmostEqual(float(seconds), 2.0, delta=0.1, msg=name)
            # Not encoded anew: the part begins with an access unit of the clip.
            kind = next(kind for kind, called in NAMES.items() if called[:4] in name)
            self.assertTrue(read_idr_slice(content) in pathlib.Path(self.files[kind]).read_bytes(), name)
        self.assertEqual(self.browser.read_complaints(), [])

    def test_any_stream_may_be_missing(self):
        gaps = {"Gps": "no positions", "Acc": "no accelerations", "Other": "no machine state"}
        for kept in (["VideoCamera0", "Other"], ["Audio", "Acc"], ["Gps"], []):
            with self.subTest(kept=kept):
                self.open({kind: self.files[kind] for kind in kept})
                text = self.browser.run("return document.querySelector('main').innerText")
                self.assertEqual({kind for kind in gaps if gaps[kind] in text}, gaps.keys() - kept)
                before = self.look()["position"]
                self.browser.click("#play")
                self.browser.wait_for(f"Number(document.querySelector('#scrubber').value) > {before + 0.5}")
                self.look()
                self.assertEqual(self.browser.read_complaints(), [])

    def test_damage_is_told_and_the_rest_shown(self):
        content = pathlib.Path(self.files["Acc"]).read_bytes()
        cut = pathlib.Path(self.home.name, "acc_cut.dat")
        cut.write_bytes(content[:-7])
        line = self.open({**self.files, "Acc": str(cut), "Gps": str(cut)}, status=1)
        self.assertRegex(line, r"^tavi-report: the event is damaged.*/acc_cut.dat: entry .* is cut off\n$")
        self.assertEqual(self.look()["points"]["acceleration"], [(len(content) // 34 - 1) * 10] * 3)
        self.assertIn("is cut off", self.browser.run("return document.querySelector('#acceleration').innerText"))


class FolderTest(unittest.TestCase):
    """What the recorder puts beside the files, as a web server shows it and from the disk."""
    @classmethod
    def setUpClass(cls):
        cls.home = tempfile.TemporaryDirectory(prefix="tavi-test-")
        cls.addClassCleanup(cls.home.cleanup)
        events = pathlib.Path(cls.home.name, "out/events")
        cls.event = events / "20261121T134005Z_9f3ca1b2"
        cls.event.mkdir(parents=True)
        cls.files = Events.record(RECORDER, str(cls.event))
        Events.describe(str(cls.event), cls.files, label=LABEL, cameraNames=NAMES)
        bad = events / "20261121T134006Z_00000001"
        bad.mkdir()
        (bad / "event.json").write_text("{")
        cls.run_recorder(cls, events)
        cls.browser = Browser.Browser()
        cls.addClassCleanup(cls.browser.close)

    def run_recorder(self, events):
        """The service, with one source, until there are a page and a list."""
        settings = pathlib.Path(self.home.name, "settings.json")
        settings.write_text(json.dumps({"pipeline": {
            name + "Enabled": False for name in ("camera0", "camera1", "audio", "gps", "acc")}}))
        run = subprocess.Popen([RECORDER, "run", "--simulate", "--config", settings, "--output", events.parent,
                                "--control", self.home.name + "/socket"], stderr=subprocess.DEVNULL)
        try:
            deadline = time.monotonic() + 60
            while not (events / "index.html").exists():
                assert time.monotonic() < deadline and run.poll() is None, "no list of events"
                time.sleep(0.05)
        finally:
            run.terminate()
            run.wait()

    read = ReportTest.read
    take_saved = ReportTest.take_saved
    find_violations = ReportTest.find_violations

    def go(self, url):
        self.browser.call("POST", "/url", {"url": url})

    def test_a_web_server_shows_the_folder_as_it_is(self):
        self.assertNotIn("index.html", subprocess.run([VERIFY, self.event], capture_output=True, text=True).stdout)
        with Browser.serve(str(self.event.parent)) as address:
            self.go(address)
            self.assertEqual(self.read("[...document.querySelectorAll('li .label, li .alarm')].map((e) => e.textContent)"),
                             ["its description cannot be read", LABEL, "not signed"])
            self.browser.wait_for("document.querySelector('img').naturalWidth > 0")
            self.browser.click("li:last-child a")
            self.browser.wait_for(READY)
            self.assertEqual(self.read("document.querySelector('h1').textContent"), LABEL)
            self.assertLess((self.event / "index.html").stat().st_size, 300_000)
            self.browser.click("#play")
            self.browser.wait_for("[...document.querySelectorAll('video')].every((clip) => clip.currentTime > 0.3)")
            self.browser.run(CATCH)
            self.browser.click("#picture")
            self.browser.click("#part-from")
            self.browser.press(Browser.RIGHT)
            self.browser.click("#part-to")
            self.browser.click("#part-save")
            self.assertGreater(min(len(content) for content in self.take_saved(3).values()), 50_000)
            links = self.read("[...document.querySelectorAll('#files a')].map((link) => [link.href, link.download])")
            self.assertEqual([link for link in links if not link[0].startswith(self.read("location.href").rsplit('/', 1)[0])], [])
            self.assertEqual({name for _, name in links}, {pathlib.Path(path).name for path in self.files.values()})
            self.assertEqual(self.browser.read_complaints(), [])

    def test_from_a_disk_it_plays_and_says_what_saving_needs(self):
        self.go((self.event.parent / "index.html").as_uri())
        self.browser.click("li:last-child a")
        self.browser.wait_for(READY)
        self.browser.click("#picture")
        self.browser.wait_for("!document.querySelector('#notice button').hidden")
        chosen = "\n".join(self.files[kind] for kind in NAMES)
        self.browser.run(CATCH + "document.querySelector('#notice input').hidden = false;")
        self.browser.type("#notice input", chosen)
        (picture,) = self.take_saved(1).values()
        self.assertGreater(len(picture), 50_000)

    def test_nobody_is_shut_out(self):
        with Browser.serve(str(self.event.parent)) as address:
            for path in ("", self.event.name + "/"):
                for width, scheme in ((1280, "light"), (390, "light"), (1280, "dark"), (390, "dark")):
                    with self.subTest(path=path, width=width, scheme=scheme):
                        self.browser.show_as(width, 900, prefers_color_scheme=scheme)
                        self.go(address + path)
                        violations = self.find_violations()
                        if violations is None:
                            self.skipTest("axe is not there: scripts/setup.sh --test")
                        self.assertEqual(violations, [])
                        self.assertLessEqual(self.read("document.documentElement.scrollWidth"), width)


if __name__ == "__main__":
    if not shutil.which("chromium") or not shutil.which("chromedriver"):
        print("skipped: chromium and chromedriver are not installed")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)
