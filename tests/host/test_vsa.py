"""The program vsa from end to end, with the real text models and with tiny networks.

VSA is the program, TOL_MODELS the folder of the models, TOL_PICTURES a folder of pictures with a text file of the
true lines beside each, TOL_NETWORKS the folder that make_networks.py wrote, TOL_PYTHON a Python with numpy.
"""

import base64
import http.server
import json
import math
import os
import pathlib
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import zlib

VSA = os.environ["VSA"]
MODELS = pathlib.Path(os.environ["TOL_MODELS"])
PICTURES = pathlib.Path(os.environ["TOL_PICTURES"])
NETWORKS = pathlib.Path(os.environ["TOL_NETWORKS"])
EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples"


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

    def write_pipeline(self, root=MODELS, **more):
        self.pipeline.write_text(json.dumps({"modelRoot": str(root), "models": self.models, **more}))

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

    def vsa(self, *arguments, status=0, **environment):
        done = subprocess.run([VSA, *map(str, arguments)], capture_output=True, timeout=120, cwd=self.folder,
                              env={**os.environ, **environment})
        self.out, self.err = done.stdout.decode(), done.stderr.decode()
        self.assertEqual(done.returncode, status, self.err)
        return self.out

    def run_json(self, *inputs, status=0, **environment):
        out = self.vsa("run", "--json", self.pipeline, *inputs, status=status, **environment)
        return [json.loads(line) for line in out.splitlines()]


class UsageTest(Case):
    needs_models = False

    def test_help_version_devices(self):
        for arguments in (["--help"], ["run", "--help"], ["compare", "--help"]):
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
                          ["run", "--max-frames", "many", self.pipeline, "x"], ["compare", self.pipeline, "x"],
                          ["compare", self.pipeline, "x", "y", "z"]):
            self.vsa(*arguments, status=2)
            self.assertEqual(self.out, "")
            self.assertNotEqual(self.err, "")

    def test_pipelines_that_come_along(self):
        for path in sorted(EXAMPLES.glob("pipelines/*.json")):
            with self.subTest(path.name):
                done = subprocess.run([VSA, "run", path, "none.png"], capture_output=True, timeout=120)
                # All in order as far as the networks, which mostly are not there.
                self.assertRegex(done.stderr.decode(), r"there is no model file|none.png: no such file")


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


class ChainTest(Case):
    """A detector and what works on its objects, over pictures: a car and a person wherever one looks."""

    needs_models = False

    def setUp(self):
        super().setUp()
        self.detector = {"category": "Detect", "modelName": "YOLO26", "modelFile": "things",
                         "classNames": ["car", "person"], "inputWidth": 64, "inputHeight": 64, "scoreThreshold": 0.5}
        self.labels = {"category": "Classify", "modelName": "ResNet", "modelFile": "label",
                       "classNames": ["red", "blue", "green"], "inputWidth": 32, "inputHeight": 32}
        self.persons = {"category": "Track", "modelName": "DeepSort", "modelFile": "feature256", "classNames": ["x"],
                        "inputWidth": 16, "inputHeight": 32}
        self.faces = {**self.persons, "modelName": "VsFaceNet", "modelFile": "feature128", "inputHeight": 16}
        self.reader = {"category": "Track", "modelName": "VsOCR", "modelFile": "plate", "inputWidth": 32,
                       "inputHeight": 16, "classNames": ["", "七", "A", "b", "c", "d", "e", "f"]}

    def use(self, *models):
        self.models = [{"engine": "OpenVINO", **model} for model in models]
        self.write_pipeline(NETWORKS)

    def test_every_model_adds_its_part(self):
        self.file("blue.png", png(64, 64, (0, 0, 255)))
        self.use(self.detector, self.labels, self.persons, self.reader)
        frame, = self.run_json("blue.png", "--output", "out")
        car, person = frame["objects"]
        self.assertEqual((car["className"], car["box"], car["score"]), ("car", [8, 4, 40, 28], 0.75))
        self.assertEqual((person["className"], person["box"], person["score"]), ("person", [30, 10, 50, 44], 0.875))
        for thing in (car, person):
            self.assertEqual((thing["classifyName"], thing["classifyId"], thing["classifyScore"]), ("blue", 1, 0.75))
            self.assertEqual((thing["text"], thing["textScore"]), ("七A七", 1))
            self.assertEqual(len(thing["feature"]), 256)
        self.assertRegex(self.vsa("run", self.pipeline, "blue.png"),
                         r"(?m)^  1  0.750  car     8,4 40,28    blue 0.750  256 numbers  七A七$")
        self.assertNotEqual((self.folder / "out/blue.png").read_bytes(), (self.folder / "blue.png").read_bytes())

        self.use(self.detector, {**self.labels, "wantedLabels": ["red", "green"]}, self.faces)
        self.assertEqual(self.run_json("blue.png")[0]["objects"], [])
        self.use({**self.detector, "wantedClasses": ["car"]}, self.faces)
        self.assertEqual([len(thing["feature"]) for thing in self.run_json("blue.png")[0]["objects"]], [128])

    def test_compare(self):
        self.file("blue.png", png(64, 64, (0, 0, 255)))
        self.file("dark.png", png(64, 64, (0, 0, 250)))
        self.file("red.png", png(64, 64, (255, 0, 0)))
        for embedding in (self.persons, self.faces):
            self.use(self.detector, embedding)
            found = json.loads(self.vsa("compare", "--json", self.pipeline, "blue.png", "red.png"))
            first, second = (thing["feature"] for thing in found["objects"])
            cosine = sum(map(float.__mul__, first, second)) / math.hypot(*first) / math.hypot(*second)
            self.assertAlmostEqual(found["similarity"], cosine, 6)
            self.assertEqual([(thing["input"], thing["className"], thing["box"]) for thing in found["objects"]],
                             [(name, "person", [30, 10, 50, 44]) for name in ("blue.png", "red.png")])
            self.assertGreater(json.loads(self.vsa("compare", "-j", self.pipeline, "blue.png", "dark.png"))
                               ["similarity"], max(0.9, cosine))
            table = self.vsa("compare", self.pipeline, "blue.png", "red.png")
            self.assertIn("person  30,10 50,44", table)
            self.assertTrue(table.endswith(f"cosine similarity {cosine:.4f}\n"), table)

    def test_compare_says_why_not(self):
        self.file("blue.png", png(64, 64, (0, 0, 255)))
        nothing = {**self.detector, "modelFile": "nothing"}
        cases = [
            ([nothing, self.persons], "blue.png", 1, r"blue.png: no object was found"),
            ([self.detector], "blue.png", 1, r"blue.png: no object has a feature; .+"),
            ([self.detector, {**self.persons, "modelFile": "zeros"}], "blue.png", 1, r"a feature is all zeros .+"),
            ([self.detector, {**self.persons, "inputWidth": 17}], "blue.png", 1,
             r"blue.png: models\[1\] DeepSort \(Track\): the model refused the frame"),
            ([self.detector, self.persons], "none.png", 1, r"none.png: no such file"),
            ([{**self.detector, "modelName": "YOLO0"}], "blue.png", 2, r".+: models\[0\]: the library has no model .+"),
            ([{**self.labels, "modelName": "AudioNet"}], "blue.png", 2, r".+: compare takes pictures, not sound"),
        ]
        for models, picture, status, sentence in cases:
            with self.subTest(sentence):
                self.use(*models)
                self.vsa("compare", self.pipeline, "blue.png", picture, status=status)
                self.assertEqual(self.out, "")
                self.assertRegex(self.err, rf"(?m)^vsa: {sentence}$")


class SoundTest(Case):
    """Sound through a spectrogram service on port 9555, which is the tests' own."""

    needs_models = False

    def setUp(self):
        super().setUp()
        self.models = [{"category": "Classify", "modelName": "AudioNet", "engine": "OpenVINO", "modelFile": "pitch",
                        "classNames": ["low", "high"], "inputWidth": 20, "inputHeight": 16, "scoreThreshold": 0.6}]
        self.write_pipeline(NETWORKS, blockSeconds=0.2)

    def wav(self, name, seconds, hertz=440, rate=16000, channels=1):
        samples = [round(20000 * math.sin(2 * math.pi * hertz * i / rate)) for i in range(round(seconds * rate))]
        self.pcm = b"".join(struct.pack("<h", sample) * channels for sample in samples)
        header = struct.pack("<HHIIHH", 1, channels, rate, rate * channels * 2, channels * 2, 16)
        return self.file(name, b"RIFF" + struct.pack("<I", 36 + len(self.pcm)) + b"WAVEfmt " +
                         struct.pack("<I", 16) + header + b"data" + struct.pack("<I", len(self.pcm)) + self.pcm)

    def serve(self, replies):
        """A service that gives these replies in turn; self.asked are the requests."""
        self.asked = asked = []
        replies = iter(replies)

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                asked.append((self.path, json.loads(self.rfile.read(int(self.headers["Content-Length"])))))
                body = json.dumps(next(replies)).encode()
                self.send_response(200)
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)

            def log_message(self, *_):
                pass

        server = http.server.HTTPServer(("127.0.0.1", 9555), Handler)
        self.addCleanup(server.server_close)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.shutdown)

    @staticmethod
    def spectrum(low, high):
        """The network makes of it: low + 100 for the first class, high + 100 for the second."""
        rows = [[float(low)] * 20] * 8 + [[float(high)] * 20] * 8
        return {"code": 1000, "msg": "", "mels": 16, "time_steps": 20, "mel_spec": rows}

    def test_blocks_and_their_results(self):
        self.wav("a.wav", 0.7, channels=2)
        self.serve([self.spectrum(-100, -50), self.spectrum(-50, -50), {"code": 7, "msg": "no"},
                    self.spectrum(-25, -75)])
        frames = self.run_json("a.wav", status=1)
        self.assertEqual([(frame["input"], frame["frame"], frame["time"], frame["duration"]) for frame in frames],
                         [("a.wav", 0, 0, 0.2), ("a.wav", 1, 0.2, 0.2), ("a.wav", 2, 0.4, 0.2), ("a.wav", 3, 0.6, 0.1)])
        self.assertEqual([(frame["classified"], frame["score"]) for frame in frames],
                         [(True, 1), (False, 0), (False, 0), (True, 0.75)])
        self.assertEqual([frame["objects"] for frame in frames],
                         [[{"className": "high", "classId": 1, "score": 1}], [], [],
                          [{"className": "low", "classId": 0, "score": 0.75}]])
        self.assertEqual([frame.get("failedModels") for frame in frames], [None, None, [0], None])
        self.assertRegex(self.err, r"(?m)^vsa: a.wav: block 2: models\[0\] AudioNet \(Classify\): .+$")
        self.assertRegex(self.err, r"1 input, 4 blocks, 2 objects in")
        for index, (path, request) in enumerate(self.asked):
            self.assertEqual(path, "/api/audioToMelSpec")
            wanted = {"pts": 200 * index, "audio_frame_count": index, "audio_frame_max_size": 12800,
                      "audio_frame_size": 12800, "audio_sample_rate": 16000, "audio_nb_samples": 3200,
                      "audio_sample_fmt": 1, "audio_sample_fmt_byte_num": 2}
            self.assertEqual(wanted, {key: request[key] for key in wanted})
        sent = b"".join(base64.b64decode(request["audio_pcm_base64"]) for _, request in self.asked)
        self.assertEqual(sent, self.pcm + bytes(6400))

    def test_table_and_limits(self):
        self.wav("in/a.wav", 0.5)
        self.file("in/b.png", png(4, 4))
        self.serve([self.spectrum(0, -75), self.spectrum(-50, -50)])
        self.assertEqual(self.vsa("run", self.pipeline, "in", "--max-frames", "2"),
                         "in/a.wav: 0.000 s to 0.200 s: low 0.800\nin/a.wav: 0.200 s to 0.400 s: nothing\n")
        self.vsa("run", self.pipeline, "in/a.wav", "--output", "out", status=2)
        self.assertIn("--output draws pictures", self.err)
        self.models.append({**self.models[0], "modelName": "ResNet"})
        self.write_pipeline(NETWORKS)
        self.vsa("run", self.pipeline, "in/a.wav", status=2)
        self.assertIn("they belong in two pipelines", self.err)

    def test_without_a_service(self):
        self.models *= 2
        self.write_pipeline(NETWORKS)
        frame, = self.run_json(self.wav("a.wav", 0.2), status=1)
        self.assertEqual((frame["classified"], frame["failedModels"]), (False, [0, 1]))
        self.assertIn("9555", self.err)
        self.assertIn("block 0: models[1] AudioNet (Classify): ", self.err)  # it needs nothing of the first one

    @unittest.skipIf(os.name == "nt", "ffmpeg is run on POSIX only")
    def test_sound_of_a_video(self):
        # A program of that name takes ffmpeg's place and says what it was asked.
        path = str(self.folder / "bin")
        film = self.film(2)
        self.file("bin/ffmpeg", f"""#!{sys.executable}
import pathlib, struct, sys
pathlib.Path("asked").write_text(" ".join(sys.argv[1:]))
name = pathlib.Path(sys.argv[sys.argv.index("-i") + 1]).stem
if name == "silent":
    sys.exit("Stream map '0:a:0' matches no streams.")
out = sys.stdout.buffer
out.write(b".snd" + struct.pack(">IIIII", 24, 0xffffffff, 3, 1000, 1) + struct.pack(">300h", *range(300)))
out.flush()
if name == "broken":
    sys.exit("film: the rest is damaged")
""".encode()).chmod(0o755)
        self.serve([self.spectrum(0, -75)] * 4)
        frames = self.run_json(film, PATH=path)
        self.assertEqual([frame["duration"] for frame in frames], [0.2, 0.1])
        self.assertEqual((self.folder / "asked").read_text(),
                         f"-nostdin -v error -i file:{film} -map 0:a:0 -c:a pcm_s16be -f au pipe:1")
        sent = b"".join(base64.b64decode(request["audio_pcm_base64"]) for _, request in self.asked)
        self.assertEqual(sent, struct.pack("<300h", *range(300)) + bytes(200))
        for name, blocks, sentence in (("broken", 2, "ffmpeg cannot read the sound: film: the rest is damaged"),
                                       ("silent", 0, "there is no sound in this file")):
            film.rename(self.folder / f"{name}.avi")
            film = self.folder / f"{name}.avi"
            self.assertEqual(len(self.run_json(film, PATH=path, status=1)), blocks)
            self.assertIn(f"vsa: {film}: {sentence}\n", self.err)
        self.assertEqual(self.run_json(film, PATH=str(self.folder), status=1), [])
        self.assertRegex(self.err, rf"vsa: {film}: .*the program ffmpeg.* is not on the PATH")

    def test_with_the_example_service(self):
        program = EXAMPLES / "melservice/melservice.py"
        service = subprocess.Popen([os.environ["TOL_PYTHON"], program, "--mels", "16", "--steps", "20"],
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.addCleanup(service.stdout.close)
        self.addCleanup(service.wait)
        self.addCleanup(service.kill)
        self.assertIn(b":9555/", service.stdout.readline())
        self.wav("low.wav", 0.4, 250)
        self.wav("high.wav", 0.4, 6000, 44100, 2)
        frames = self.run_json("low.wav", "high.wav")
        self.assertEqual([frame["objects"][0]["className"] for frame in frames], ["low", "low", "high", "high"])


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
