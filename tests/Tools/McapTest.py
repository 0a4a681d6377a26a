# An event as MCAP, read message by message with the format's own library: nothing of ours reads it here.
import json
import os
import pathlib
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

import Events

RECORDER, EXPORT, MODULES = sys.argv[1:4]
READ = pathlib.Path(__file__).with_name("McapRead.js")
MOMENT_NS = 1_795_268_405_123_000_000  # of the description that Events writes
NAMES = {"VideoCamera1": "front <b>", "VideoCamera0": None}
VIDEOS = {"/camera0/video": ("VideoCamera1", "front <b>", -2.0), "/camera1/video": ("VideoCamera0", "camera1", -2.4)}
SPS, PPS, IDR = 7, 8, 5


def probe(path, *wanted):
    run = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v", "-of", "csv=p=0", *wanted, path],
                         capture_output=True, text=True, timeout=60, check=True)
    return [line.rstrip(",") for line in run.stdout.split()]


def to_ns(seconds):
    return MOMENT_NS + round(seconds * 1e9)


class McapTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.home = tempfile.TemporaryDirectory(prefix="tavi-test-")
        cls.addClassCleanup(cls.home.cleanup)
        cls.event = pathlib.Path(cls.home.name, "event")
        cls.files = Events.record(RECORDER, str(cls.event))
        cls.gps = Events.count_entries(cls.files["Gps"])
        times = pathlib.Path(cls.files["Gps"] + ".times")
        times.write_text("times 1 1 counted\n" + "".join(f"{n * 10**9 - 2 * 10**9} - 0.8 9 520.5\n" for n in range(cls.gps - 1))
                         + f"{(cls.gps - 3) * 10**9} -\n")
        cls.files["GpsTimes"] = str(times)

    def setUp(self):
        self.out = pathlib.Path(self.home.name, self.id())
        self.out.mkdir()

    def describe(self, files=None, **more):
        Events.describe(str(self.event), self.files if files is None else files, cameraNames=NAMES, **more)

    def export(self, status=0, name="event.mcap"):
        """The file, and what the program said."""
        file = self.out / name
        run = subprocess.run([EXPORT, str(self.event), "--mcap", "--output", file], capture_output=True, text=True, timeout=60)
        self.assertEqual(run.returncode, status, run.stderr)
        self.assertEqual(run.stderr.count("\n"), status, run.stderr)
        return file, run.stderr

    def read(self, *files):
        run = subprocess.run(["node", READ, *files], capture_output=True, text=True, timeout=60, check=True,
                             env={**os.environ, "NODE_PATH": MODULES})
        return json.loads(run.stdout)

    def read_whole(self, *files):
        found = self.read(*files)
        self.assertEqual([one.get("error") for one in found], [None] * len(files))
        return found

    def check_video(self, found, topic, kind, name, begin):
        frames = found["topics"][topic]
        times = [to_ns(begin + float(time)) for time in probe(self.files[kind], "-show_entries", "packet=pts_time")]
        self.assertEqual(len(frames), len(times))
        for frame, time in zip(frames, times):
            self.assertLess(abs(int(frame["ns"]) - time), 1000)
            self.assertEqual((frame["format"], frame["frame_id"]), ("h264", name))
            units = frame["units"]
            if IDR in units:
                self.assertTrue(SPS in units[:units.index(IDR)] and PPS in units[:units.index(IDR)], units)
        self.assertGreaterEqual(sum(IDR in frame["units"] for frame in frames), 3)
        # Every picture, and the same ones as of the clip.
        pictures = [subprocess.run(["ffmpeg", "-v", "error", *form, "-i", path, "-an", "-f", "framemd5", "-"],
                                   capture_output=True, text=True, timeout=60, check=True)
                    for form, path in (([], self.files[kind]),
                                       (["-f", "h264"], self.out / "event.mcap.data" / topic.replace("/", "_")))]
        self.assertEqual([run.stderr for run in pictures], ["", ""])
        of_clip, of_messages = ([line.split()[-1] for line in run.stdout.splitlines() if line[0] != "#"] for run in pictures)
        self.assertEqual(len(of_messages), len(frames))
        self.assertEqual(of_messages, of_clip)

    def test_everything_is_there_at_its_time(self):
        missing = [{"type": "Other", "seconds": 1.5, "reason": "begins 1.5 s late"}]
        self.describe(label="Kreuzung <ü>", missing=missing)
        [found] = self.read_whole(self.export()[0])
        self.assertEqual(found["published"], ["foxglove.Log", "foxglove.CompressedVideo", "foxglove.CompressedImage",
                                              "foxglove.LocationFix"])
        self.assertEqual(found["counts"], {topic: len(messages) for topic, messages in found["topics"].items()})
        every = sorted(int(message["ns"]) for messages in found["topics"].values() for message in messages)
        self.assertEqual((every[0], every[-1]), (int(found["first"]), int(found["last"])))
        for messages in found["topics"].values():
            times = [int(message["ns"]) for message in messages]
            self.assertEqual(times, sorted(times))
        for topic, (kind, name, begin) in VIDEOS.items():
            self.check_video(found, topic, kind, name, begin)
            still = topic.replace("video", "still")
            data = (self.out / "event.mcap.data" / still.replace("/", "_")).read_bytes()
            self.assertEqual(data, pathlib.Path(self.files[kind.replace("VideoCamera", "ThumbnailCamera")]).read_bytes())
            self.assertEqual(found["topics"][still][0]["format"], "jpeg")
        self.check_sensors(found["topics"])
        lines = [line["message"] for line in found["topics"]["/log"]]
        self.assertIn("metrics: begins 1.5 s late", lines)
        self.assertIn("nobody has signed this event", lines)
        self.check_attachments(found)

    def check_sensors(self, topics):
        blocks = Events.count_entries(self.files["Acc"])
        self.assertEqual(len(topics["/acceleration"]), 10 * blocks)
        native = struct.unpack_from("<3b", pathlib.Path(self.files["Acc"]).read_bytes(), 4)
        first = topics["/acceleration"][0]
        self.assertEqual([first["x_g"], first["y_g"], first["z_g"]], [native[0] / 32 - 1, native[1] / 32, native[2] / 32])
        self.assertEqual(int(topics["/acceleration"][10]["ns"]), to_ns(-1.9))
        samples = json.loads(pathlib.Path(self.files["Other"]).read_text())
        self.assertEqual([sample["cpu_percent"] for sample in topics["/machine"]], [one["cpu_usage"] for one in samples])
        for sample, one in zip(topics["/machine"], samples):
            self.assertEqual("temperature_celsius" in sample, one["temperature"] != 0, "0 would be a temperature")
        self.assertEqual([len(topics["/gps/fix"]), len(topics["/gps/motion"])], [self.gps, self.gps])
        for n, (fix, motion) in enumerate(zip(topics["/gps/fix"], topics["/gps/motion"])):
            self.assertEqual([fix["ns"], motion["ns"]], [str(to_ns(n - 2))] * 2)
            self.assertAlmostEqual(fix["latitude"], 48.1, delta=0.1)
        known, unknown = topics["/gps/fix"][0], topics["/gps/fix"][-1]
        self.assertEqual([known["altitude"], known["position_covariance_type"]], [520.5, 1])
        self.assertAlmostEqual(known["position_covariance"][0] + known["position_covariance"][4], (0.8 * 7.1) ** 2)
        self.assertEqual([unknown["altitude"], unknown.get("position_covariance_type", 0)], [None, 0], "no number")
        self.assertEqual(("hdop" in topics["/gps/motion"][0], "hdop" in topics["/gps/motion"][-1]), (True, False))

    def check_attachments(self, found):
        description = json.loads((self.event / "event.json").read_text())
        sums = {entry["name"]: entry["sha256"] for entry in description["files"]}
        sound = pathlib.Path(self.files["Audio"]).name
        self.assertEqual(found["attachments"][sound], {"mediaType": "audio/mpeg", "sha256": sums[sound]})
        self.assertIn("event.json", found["attachments"])
        self.assertEqual(json.loads(found["metadata"]["event"]["event.json"]), description)
        self.assertEqual(found["metadata"]["event"]["label"], "Kreuzung <ü>")

    def test_what_is_whole_is_there_when_a_file_is_not(self):
        """A clip that is cut, one that is none, one without video, and nothing at all but the description."""
        clip = pathlib.Path(self.files["VideoCamera1"]).read_bytes()
        silent = self.event / "sound.mp4"
        subprocess.run(["ffmpeg", "-v", "error", "-i", self.files["Audio"], "-c", "copy", silent], check=True, timeout=60)
        whole = len(probe(self.files["VideoCamera1"], "-show_entries", "packet=pts_time"))
        # Within a frame, which is told, or behind one, when their number is.
        cases = [(clip[:len(clip) * 2 // 3], "frame", 10, whole - 1), (b"no clip" * 1000, "cannot be read", 0, 0),
                 (silent.read_bytes(), "has no H.264 video", 0, 0), (b"", "cannot be read", 0, 0),
                 (clip[:100] + b"\xff" * 3000 + clip[3100:], "damaged.mp4", 0, whole)]
        damaged = self.event / "damaged.mp4"
        files = []
        for n, (content, sentence, _, _) in enumerate(cases):
            damaged.write_bytes(content)
            self.describe({**self.files, "VideoCamera1": str(damaged)})
            file, said = self.export(status=1, name=f"{n}.mcap")
            self.assertRegex(said, "damaged.mp4.*" + sentence if sentence != "damaged.mp4" else sentence)
            files.append(file)
        self.describe({})
        *found, bare = self.read_whole(*files, self.export()[0])
        for (_, sentence, least, most), one in zip(cases, found):
            self.assertIn(sentence, "".join(line["message"] for line in one["topics"]["/log"]))
            self.assertIn(sentence, one["metadata"]["event"]["damage"])
            frames = len(one["topics"].get("/camera0/video", []))
            self.assertTrue(least <= frames <= most, f"{frames} of {whole} frames for {sentence}")
            self.assertIn("/camera1/video", one["topics"])
        self.assertEqual(list(bare["topics"]), ["/log"])

    def test_a_stream_has_the_times_of_its_companion(self):
        stream = self.event / "stream.h264"
        subprocess.run(["ffmpeg", "-v", "error", "-y", "-i", self.files["VideoCamera1"], "-an", "-c", "copy", "-f", "h264",
                        stream], check=True, timeout=60)
        frames = len(probe(self.files["VideoCamera1"], "-show_entries", "packet=pts_time"))
        times = self.event / "stream.h264.times"
        # Late from the eleventh on.
        ns = [n * 66_000_000 - 2_000_000_000 + (500_000_000 if n > 9 else 0) for n in range(frames)]
        times.write_text("times 1 15 captured\n" + "".join(f"{one} {one + 5_000_000_000}\n" for one in ns))
        files = {kind: path for kind, path in self.files.items() if kind != "VideoCamera1"}
        self.describe({**files, "VideoCamera1Stream": str(stream), "VideoCamera1Times": str(times)})
        [found] = self.read_whole(self.export()[0])
        self.assertEqual([int(frame["ns"]) for frame in found["topics"]["/camera0/video"]], [MOMENT_NS + one for one in ns])

    def test_the_reader_would_notice(self):
        """One changed byte anywhere that a checksum covers: else the other tests would prove nothing of checksums."""
        self.describe()
        content = bytearray(self.export()[0].read_bytes())
        files = []
        for n, at in enumerate((len(content) // 3, content.index(b"foxglove.Log"), len(content) - 300)):
            files.append(self.out / f"{n}.mcap")
            content[at] ^= 1
            files[-1].write_bytes(content)
            content[at] ^= 1
        self.assertEqual(["error" in one for one in self.read(*files)], [True] * len(files))


if __name__ == "__main__":
    if not shutil.which("node") or not pathlib.Path(MODULES, "@mcap").is_dir():
        print(f"skipped: no node, or scripts/setup.sh could not get {MODULES}")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1])
