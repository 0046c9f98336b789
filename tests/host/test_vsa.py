"""The program vsa from end to end, with the real text models.

VSA is the program, TOL_MODELS the folder of the models, TOL_PICTURES a folder of pictures with a text file of the
true lines beside each.
"""

import json
import os
import pathlib
import re
import shutil
import signal
import struct
import subprocess
import tempfile
import time
import unittest
import zlib

VSA = os.environ["VSA"]
MODELS = pathlib.Path(os.environ["TOL_MODELS"])
PICTURES = pathlib.Path(os.environ["TOL_PICTURES"])


def png(width, height, colour=(255, 255, 255)):
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    rows = (b"\0" + bytes(colour) * width) * height
    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b"")


class Case(unittest.TestCase):
    needs_models = True

    def setUp(self):
        if self.needs_models and not (MODELS / "text/recognition.xml").is_file():
            self.skipTest(f"the text models are not in {MODELS}; run scripts/setup")
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.pipeline = self.folder / "text.json"
        common = {"modelName": "PaddleOCR", "engine": "OpenVINO", "modelDir": "text"}
        self.models = [
            {**common, "category": "Detect", "modelFile": "detection", "classNames": ["text"], "inputWidth": 960,
             "scoreThreshold": 0.6},
            {**common, "category": "Track", "modelFile": "recognition", "classNames": ["paddleocr"],
             "inputWidth": 640, "inputHeight": 48},
        ]
        self.write_pipeline()

    def write_pipeline(self):
        self.pipeline.write_text(json.dumps({"modelRoot": str(MODELS), "models": self.models}))

    def file(self, name, content):
        path = self.folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
        return path

    def sign(self, name="sign.png"):
        return self.file(name, (PICTURES / "sign.png").read_bytes())

    def film(self, frames):
        """A video that every OpenCV reads: motion pictures of portable pixels, raw in AVI, 64 x 48 at 10 a second."""
        width, height = 64, 48
        size = width * height * 3
        def chunk(kind, data):
            return kind + struct.pack("<I", len(data)) + data
        def group(kind, data):
            return chunk(b"LIST", kind + data)
        main = struct.pack("<14I", 100000, size * 10, 0, 0, frames, 0, 1, size, width, height, 0, 0, 0, 0)
        stream = b"vidsDIB " + struct.pack("<10I4H", 0, 0, 0, 1, 10, 0, frames, size, 0, size, 0, 0, width, height)
        form = struct.pack("<IiiHHIIiiII", 40, width, height, 1, 24, 0, size, 0, 0, 0, 0)
        headers = chunk(b"avih", main) + group(b"strl", chunk(b"strh", stream) + chunk(b"strf", form))
        pixels = chunk(b"00db", b"\xc0" * size) * frames
        content = b"AVI " + group(b"hdrl", headers) + group(b"movi", pixels)
        return self.file("film.avi", chunk(b"RIFF", content))

    def vsa(self, *arguments, status=0):
        done = subprocess.run([VSA, *map(str, arguments)], capture_output=True, timeout=120, cwd=self.folder)
        self.out, self.err = done.stdout.decode(), done.stderr.decode()
        self.assertEqual(done.returncode, status, self.err)
        return self.out

    def run_json(self, *inputs, status=0):
        out = self.vsa("run", "--json", self.pipeline, *inputs, status=status)
        return [json.loads(line) for line in out.splitlines()]


class UsageTest(Case):
    needs_models = False

    def test_help_version_devices(self):
        for arguments in (["--help"], ["run", "--help"]):
            text = self.vsa(*arguments)
            self.assertLessEqual(max(map(len, text.splitlines())), 80)
            self.assertIn("Exit status", text)
        self.assertRegex(self.vsa("--version"), r"^vsa \d+\.\d+\.\d+ \(library interface pub\d+\)\n$")
        devices = self.vsa("devices").splitlines()
        self.assertIn("OpenVINO-CPU", devices)
        self.assertIn("ONNXRuntime-CPU", devices)

    def test_wrong_usage(self):
        for arguments in ([], ["rnu"], ["run"], ["run", self.pipeline], ["run", "--jsn", self.pipeline, "x"],
                          ["run", "--max-frames", "0", self.pipeline, "x"],
                          ["run", "--max-frames", "many", self.pipeline, "x"]):
            self.vsa(*arguments, status=2)
            self.assertEqual(self.out, "")
            self.assertNotEqual(self.err, "")


class ResultTest(Case):
    def test_reads_the_true_lines(self):
        frame, = self.run_json(PICTURES / "sign.png")
        self.assertEqual((frame["frame"], frame["width"], frame["height"]), (0, 900, 680))
        self.assertNotIn("time", frame)
        # Neither spaces nor full-width punctuation are what the host is tested for.
        def plain(line):
            return "".join(re.findall(r"\w", line))
        read = {plain(thing["text"]) for thing in frame["objects"]}
        true = {plain(line) for line in (PICTURES / "sign.txt").read_text("utf-8").splitlines()}
        self.assertGreaterEqual(len(read & true), len(true) - 1, f"{read} {true}")
        for thing in frame["objects"]:
            self.assertEqual([len(corner) for corner in thing["corners"]], [2] * 4)
            self.assertGreaterEqual(thing["score"], 0.6)
            self.assertEqual((thing["className"], thing["textScore"]), ("text", 1))

    def test_table_tells_the_same_as_json(self):
        frame, = self.run_json(self.sign())
        table = self.vsa("run", self.pipeline, "sign.png", "--json-file", "out.jsonl")
        self.assertIn(f"sign.png: 900 x 680, {len(frame['objects'])} objects\n", table)
        for thing in frame["objects"]:
            corners = " ".join(f"{x},{y}" for x, y in thing["corners"])
            self.assertRegex(table, rf"(?m)^ +\d+  {thing['score']:.3f}  {corners} +{re.escape(thing['text'])}$")
        self.assertRegex(self.err, r"1 input, 1 frame, \d+ objects in")
        self.assertEqual(json.loads((self.folder / "out.jsonl").read_text("utf-8"))["objects"], frame["objects"])
        self.vsa("run", "--quiet", self.pipeline, "sign.png")
        self.assertEqual(self.err, "")

    def test_folders_patterns_and_empty_pictures(self):
        self.file("in/2.png", png(40, 30))
        self.file("in/1.PNG", png(1, 1))
        self.file("in/notes.txt", b"no picture")
        self.file("in/deep/3.png", png(30, 40))
        names = lambda frames: [pathlib.Path(frame["input"]).as_posix() for frame in frames]
        frames = self.run_json("in")
        self.assertEqual(names(frames), ["in/1.PNG", "in/2.png"])
        self.assertEqual([frame["objects"] for frame in frames], [[], []])
        self.assertEqual(names(self.run_json("--recursive", "in")), ["in/1.PNG", "in/2.png", "in/deep/3.png"])
        self.assertEqual(names(self.run_json("in/[12].*", "in/2.png")), ["in/1.PNG", "in/2.png", "in/2.png"])

    def test_annotated_pictures(self):
        inputs = [self.sign("a/sign.png"), self.sign("b/sign.png"), self.file("b/blank.png", png(50, 20))]
        before = [path.read_bytes() for path in inputs]
        # A link from an earlier time must not lead the output to an input.
        (self.folder / "out").mkdir()
        (self.folder / "out/blank.png").symlink_to(inputs[2])
        self.vsa("run", self.pipeline, *inputs, "--output", "out")
        written = sorted(path.name for path in (self.folder / "out").iterdir())
        self.assertEqual(written, ["blank.png", "sign-2.png", "sign.png"])
        self.assertEqual(before, [path.read_bytes() for path in inputs])
        first, second = ((self.folder / "out" / name).read_bytes() for name in ("sign.png", "sign-2.png"))
        self.assertEqual(first, second)
        self.assertEqual(first[16:24], before[0][16:24], "width and height")
        self.assertNotEqual(first, before[0])
        self.assertFalse((self.folder / "out/blank.png").is_symlink())

    def test_video(self):
        film = self.film(6)
        frames = self.run_json(film, "--output", "out")
        self.assertEqual([frame["frame"] for frame in frames], list(range(6)))
        self.assertEqual([round(frame["time"], 2) for frame in frames], [0, 0.1, 0.2, 0.3, 0.4, 0.5])
        self.assertEqual(len(self.run_json(self.folder / "out/film.mp4")), 6)
        self.assertEqual(len(self.run_json(film, "--max-frames", "2")), 2)


class FailureTest(Case):
    def test_unreadable_inputs_are_told_and_the_others_done(self):
        good = self.file("good.png", png(40, 30))
        bad = [self.file("text1.png", b"no picture"), self.file("empty.jpg", b""), self.file("film.mp4", b"no film"),
               self.file("cut.png", png(400, 300)[:60]), self.file("bomb.png", png(1, 1).replace(
                   struct.pack(">II", 1, 1), struct.pack(">II", 1 << 30, 1 << 30))), self.folder / "none.png",
               self.folder / "none*.png"]
        (self.folder / "nothing").mkdir()
        frames = self.run_json(*bad, self.folder / "nothing", good, status=1)
        self.assertEqual([frame["input"] for frame in frames], [str(good)])
        for path in [*bad, self.folder / "nothing"]:
            self.assertRegex(self.err, rf"(?m)^vsa: {re.escape(str(path))}: .+$")
        self.assertRegex(self.err, r"9 inputs, 1 frame, ")
        self.assertIn("8 inputs failed", self.err)

    def assert_pipeline_refused(self, sentence):
        self.vsa("run", self.pipeline, "good.png", status=2)
        self.assertEqual(self.out, "")
        self.assertEqual(len(self.err.splitlines()), 1, self.err)
        self.assertRegex(self.err, rf"^vsa: {re.escape(str(self.pipeline))}: {sentence}\n$")

    def test_pipelines_that_cannot_be_loaded(self):
        self.file("good.png", png(40, 30))
        recogniser = dict(self.models[1])
        cases = [
            ({"inputWith": 3}, r'models\[1\]: unknown key "inputWith"; did you mean "inputWidth"\?'),
            ({"modelName": "NoSuchNetwork"}, r'models\[1\]: the library has no model "NoSuchNetwork" .*'),
            ({"modelFile": "nothing"}, r'models\[1\]: there is no model file ".*nothing\.xml"'),
            ({"device": "NOWHERE"}, r"models\[1\]: the model cannot be loaded: .*NOWHERE.*"),
            ({"modelRoot": str(self.folder), "modelDir": "", "modelFile": "broken"},
             r"models\[1\]: the model cannot be loaded: .+"),
        ]
        self.file("broken.xml", b'<?xml version="1.0"?><net name="x" version="11"><layers><layer/></layers></net>')
        for change, sentence in cases:
            with self.subTest(change):
                self.models[1] = {**recogniser, **change}
                self.write_pipeline()
                self.assert_pipeline_refused(sentence)
        self.pipeline.write_text('{"models":\n [}')
        self.assert_pipeline_refused("line 2, column 3: .+")

    def test_a_model_that_fails_on_a_frame(self):
        # The recogniser's network is no text detector: the library refuses what comes out of it.
        self.models[0]["modelFile"] = "recognition"
        self.write_pipeline()
        self.sign()
        frames = self.run_json("sign.png", status=1)
        self.assertEqual(frames[0]["failedModels"], [0, 1])
        self.assertEqual(frames[0]["objects"], [])
        self.assertRegex(self.err, r"(?m)^vsa: sign.png: frame 0: models\[0\] PaddleOCR \(Detect\): .+$")
        self.assertNotIn("frame 0: models[1]", self.err)

    def test_inputs_are_never_overwritten(self):
        picture = self.sign("in/sign.png")
        before = picture.read_bytes()
        (self.folder / "link").symlink_to(self.folder / "in")
        for arguments in (["--output", "in"], ["--output", "link"], ["--json-file", picture],
                          ["--json-file", self.pipeline]):
            self.vsa("run", self.pipeline, "in", *arguments, status=2)
        self.assertEqual(before, picture.read_bytes())
        self.vsa("run", self.pipeline, "in", "--output", self.pipeline, status=2)
        self.vsa("run", self.pipeline, "in", "--output", "out", "--font", self.pipeline, status=2)


class StopTest(Case):
    def start(self, *arguments):
        process = subprocess.Popen([VSA, "run", str(self.pipeline), *map(str, arguments)], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.kill)
        return process

    @unittest.skipIf(os.name == "nt", "needs POSIX signals")
    def test_interrupt_leaves_what_was_done(self):
        process = self.start("--json", self.film(2000), "--output", self.folder / "out")
        lines = [process.stdout.readline() for _ in range(3)]
        process.send_signal(signal.SIGINT)
        out = process.stdout.read()  # not communicate(): it would lose what readline() has buffered
        err = process.stderr.read()
        self.assertEqual(process.wait(timeout=60), 130, err)
        frames = [json.loads(line) for line in lines + out.splitlines()]
        self.assertLess(len(frames), 2000)
        self.assertIn(f"{len(frames)} frames", err.decode())
        self.assertEqual(len(self.run_json(self.folder / "out/film.mp4")), len(frames))

    def test_reader_that_goes_away(self):
        process = self.start(self.film(2000), "--output", self.folder / "out")
        process.stdout.readline()
        process.stdout.close()
        start = time.monotonic()
        self.assertEqual(process.wait(timeout=60), 1)
        self.assertLess(time.monotonic() - start, 20)
        self.assertNotIn(b"cannot be written", process.stderr.read())
        self.assertGreater((self.folder / "out/film.mp4").stat().st_size, 0)

    @unittest.skipUnless(os.path.exists("/dev/full"), "needs /dev/full")
    def test_full_disk(self):
        self.sign()
        self.vsa("run", self.pipeline, "sign.png", "--json-file", "/dev/full", status=1)
        self.assertIn("/dev/full: the file cannot be written", self.err)


if __name__ == "__main__":
    unittest.main()
