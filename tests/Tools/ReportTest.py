# The report in a real browser: a real event is recorded, its page opened, played and clicked.
import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

import Browser
import Events

RECORDER, REPORT = sys.argv[1:3]
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
# The plots' margins in pixels: on the left, on both sides.
LEFT, BOTH = 44, 58


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
                self.assertAlmostEqual(max(time + start, start), max(state["position"], start), delta=delta)
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

        self.browser.click("#play")
        self.browser.wait_for("[...document.querySelectorAll('video')].every((clip) => clip.currentTime > 1)")
        playing = self.look(0.2)
        self.assertEqual(playing["heard"], 1)
        self.assertNotEqual(playing["place"], state["place"], "the track's marker follows")
        self.browser.click("#play")

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


if __name__ == "__main__":
    if not shutil.which("chromium") or not shutil.which("chromedriver"):
        print("skipped: chromium and chromedriver are not installed")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)
