"""The program vsa from end to end, with the real text models and with tiny networks.

VSA is the program, TOL_MODELS the folder of the models, TOL_PICTURES a folder of pictures with a text file of the
true lines beside each, TOL_NETWORKS the folder that make_networks.py wrote.
"""

import base64
import http.server
import json
import math
import os
import pathlib
import random
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

import jsonschema

VSA = os.environ["VSA"]
MODELS = pathlib.Path(os.environ["TOL_MODELS"])
PICTURES = pathlib.Path(os.environ["TOL_PICTURES"])
NETWORKS = pathlib.Path(os.environ["TOL_NETWORKS"])
ROOT = pathlib.Path(__file__).resolve().parents[2]
EXAMPLES = ROOT / "examples"
SCHEMA = jsonschema.Draft202012Validator(json.loads((ROOT / "docs/vsa-output.schema.json").read_text("utf-8")))


def png(width, height, colour=(255, 255, 255), rows=None):
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    rows = (b"\0" + bytes(colour) * width) * height if rows is None else rows
    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b"")


class Case(unittest.TestCase):
    needs_models = True

    def setUp(self):
        if self.needs_models and not (MODELS / "text/recognition.xml").is_file():
            self.skipTest(f"the text models are not in {MODELS}; run scripts/setup")
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
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
        """A grey video of raw pixels, 64 x 48 at 10 a second."""
        return self.file("film.y4m", b"YUV4MPEG2 W64 H48 F10:1 C420\n" + (b"FRAME\n" + b"\x80" * 4608) * frames)

    def vsa(self, *arguments, status=0, **environment):
        """What it prints; `status` is one that it may end with or several."""
        done = subprocess.run([VSA, *map(str, arguments)], capture_output=True, timeout=120, cwd=self.folder,
                              env={**os.environ, **environment})
        self.out, self.err = done.stdout.decode(), done.stderr.decode()
        self.assertIn(done.returncode, status if isinstance(status, tuple) else (status,), self.err)
        return self.out

    def start(self, *command, stderr=subprocess.PIPE, **options):
        """A process that the test talks to."""
        process = self.enterContext(subprocess.Popen(command, cwd=self.folder, stdin=subprocess.PIPE,
                                                     stdout=subprocess.PIPE, stderr=stderr, **options))
        self.addCleanup(process.kill)
        return process

    def terminal(self, *arguments):
        """What a terminal shows, in lines that fit it."""
        shown, terminal = os.openpty()
        self.addCleanup(os.close, shown)
        subprocess.run([VSA, *map(str, arguments)], cwd=self.folder, stdout=terminal, stderr=terminal, timeout=60)
        os.close(terminal)
        text = os.read(shown, 1 << 16).decode().replace("\r\n", "\n")
        self.assertLessEqual(max(map(len, text.splitlines())), 80, text)
        return text

    def run_json(self, *inputs, status=0, **environment):
        return self.lines(self.vsa("run", "--json", self.pipeline, *inputs, status=status, **environment))

    @staticmethod
    def lines(text):
        """The JSON of each line, all of it as the schema says."""
        found = [json.loads(line) for line in text.splitlines()]
        for line in found:
            SCHEMA.validate(line)
        return found


class UsageTest(Case):
    needs_models = False

    def test_help_version_devices(self):
        manual = (ROOT / "docs/vsa.1").read_text("utf-8")
        for command in ([], ["run"], ["compare"], ["doctor"], ["compare-engines"], ["bench"]):
            text = self.vsa(*command, "--help")
            self.assertLessEqual(max(map(len, text.splitlines())), 80)
            self.assertIn("Exit status", text)
            for option in re.findall(r"--([a-z-]+)", text):
                self.assertIn("Fl -" + option.replace("-", r"\-"), manual)
        self.assertRegex(self.vsa("--version"), r"^vsa \d+\.\d+\.\d+ \(library interface pub\d+\)\n$")
        self.assertLessEqual({"OpenVINO-CPU", "ONNXRuntime-CPU"}, set(self.vsa("devices").splitlines()))

    @unittest.skipUnless(shutil.which("mandoc"), "mandoc is not installed")
    def test_manual_page(self):
        done = subprocess.run(["mandoc", "-Tlint", "-Wwarning", ROOT / "docs/vsa.1"], capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stdout), (0, ""))

    def test_wrong_usage(self):
        run = lambda *options: ["run", *options, self.pipeline, "x"]
        for arguments in ([], ["rnu"], ["run"], ["run", self.pipeline], run("--jsn"), run("--max-frames", "0"),
                          run("--max-frames", "many"), run("--max-side", "0"), run("--max-pixels", "715827883"),
                          run("--stdin"), ["compare", self.pipeline, "x"], ["compare", self.pipeline, "x", "y", "z"]):
            self.vsa(*arguments, status=2)
            self.assertEqual(self.out, "")
            self.assertNotEqual(self.err, "")

    def test_pipelines_that_come_along(self):
        for path in sorted(EXAMPLES.glob("pipelines/*.json")):
            with self.subTest(path.name):
                self.vsa("run", path, "none.png", status=(1, 2))
                # All in order as far as the networks, which mostly are not there.
                self.assertRegex(self.err, r"there is no model file|none.png: no such file")


class ResultTest(Case):
    def test_reads_the_true_lines(self):
        frame, = self.run_json(self.sign())
        self.assertEqual((frame["frame"], frame["width"], frame["height"]), (0, 900, 680))
        self.assertNotIn("time", frame)
        # Neither spaces nor full-width punctuation are what the host is tested for.
        plain = lambda line: "".join(re.findall(r"\w", line))
        read = {plain(thing["text"]) for thing in frame["objects"]}
        true = {plain(line) for line in (PICTURES / "sign.txt").read_text("utf-8").splitlines()}
        self.assertGreaterEqual(len(read & true), len(true) - 1, f"{read} {true}")
        for thing in frame["objects"]:
            self.assertEqual([len(corner) for corner in thing["corners"]], [2] * 4)
            self.assertGreaterEqual(thing["score"], 0.6)
            self.assertEqual((thing["className"], thing["textScore"]), ("text", 1))
        self.vsa("run", self.pipeline, "sign.png", "--json-file", "out.jsonl")
        self.assertRegex(self.err, r"1 input, 1 frame, \d+ objects in")
        self.assertEqual(json.loads((self.folder / "out.jsonl").read_text("utf-8"))["objects"], frame["objects"])
        self.vsa("run", "--quiet", self.pipeline, "sign.png")
        self.assertEqual(self.err, "")

    def test_annotated_pictures(self):
        inputs = [self.sign("a/sign.png"), self.sign("b/sign.png"), self.file("b/blank.png", png(50, 20))]
        before = [path.read_bytes() for path in inputs]
        # A link from an earlier time must not lead the output to an input.
        (self.folder / "out").mkdir()
        (self.folder / "out/blank.png").symlink_to(inputs[2])
        self.vsa("run", self.pipeline, *inputs, "--output", "out")
        self.assertEqual(sorted(os.listdir(self.folder / "out")), ["blank.png", "sign-2.png", "sign.png"])
        self.assertEqual(before, [path.read_bytes() for path in inputs])
        first, second = ((self.folder / "out" / name).read_bytes() for name in ("sign.png", "sign-2.png"))
        self.assertEqual(first, second)
        self.assertEqual(first[16:24], before[0][16:24], "width and height")
        self.assertNotEqual(first, before[0])
        self.assertFalse((self.folder / "out/blank.png").is_symlink())

    def test_video(self):
        film = self.film(6)
        frames = self.run_json(film)
        self.assertEqual([frame["frame"] for frame in frames], list(range(6)))
        self.assertEqual([round(frame["time"], 2) for frame in frames], [0, 0.1, 0.2, 0.3, 0.4, 0.5])
        self.assertEqual(len(self.run_json(film, "--max-frames", "2")), 2)


class ChainCase(Case):
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


class ChainTest(ChainCase):
    def test_every_model_adds_its_part(self):
        self.file("blue.png", png(64, 64, (0, 0, 255)))
        self.use(self.detector, self.labels, self.persons, self.reader)
        frame, = self.run_json("blue.png", "--output", "out")
        self.assertEqual([len(thing.pop("feature")) for thing in frame["objects"]], [256, 256])
        more = {"classifyName": "blue", "classifyId": 1, "classifyScore": 0.75, "text": "七A七", "textScore": 1}
        self.assertEqual(frame["objects"], [
            {"className": "car", "classId": 0, "box": [8, 4, 40, 28], "score": 0.75, **more},
            {"className": "person", "classId": 1, "box": [30, 10, 50, 44], "score": 0.875, **more}])
        self.assertRegex(self.vsa("run", self.pipeline, "blue.png"),
                         r"(?m)^  1  0.750  car     8,4 40,28    blue 0.750  256 numbers  七A七$")
        self.assertNotEqual((self.folder / "out/blue.png").read_bytes(), (self.folder / "blue.png").read_bytes())

        self.use(self.detector, {**self.labels, "wantedLabels": ["red", "green"]}, self.faces)
        self.assertEqual(self.run_json("blue.png")[0]["objects"], [])
        self.use({**self.detector, "wantedClasses": ["car"]}, self.faces)
        self.assertEqual([len(thing["feature"]) for thing in self.run_json("blue.png")[0]["objects"]], [128])

        box = {"box": [8, 16, 40, 32], "score": 0.75, "classId": 0, "className": "car"}
        outline = [[9, 16], [8, 17], [8, 30], [9, 31], [38, 31], [39, 30], [39, 17], [38, 16]]
        for name, network, more in (
                ("YOLO8-OBB", "turned", {"angle": 0.5}),
                ("YOLO8-POSE", "points", {"shapes": [{"tag": 5, "points": [[10, 20], [30, 20], [20, 28]]}]}),
                ("YOLO8-Seg", "outline", {"shapes": [{"tag": 10, "points": outline}]})):
            self.use({**self.detector, "modelName": name, "modelFile": network,
                      "classCount": 3 if network == "points" else 2, "nmsThreshold": 0.5})
            self.assertEqual(self.run_json("blue.png")[0]["objects"], [{**box, **more}])

    @unittest.skipIf(os.name == "nt", "needs a POSIX terminal")
    def test_terminal_and_pipe(self):
        self.file("blue.png", png(64, 64, (0, 0, 255)))
        long = [f"{colour} and much more to say about it" for colour in ("red", "blue", "green")]
        self.use(self.detector, {**self.labels, "classNames": long}, self.persons, self.reader)
        text = self.terminal("run", self.pipeline, "none.png", "blue.png", "-q")
        piped = self.vsa("run", self.pipeline, "blue.png", "-q")
        self.assertEqual(len(piped.splitlines()), 4, piped)
        self.assertNotRegex(piped, r"[\r\x1b]")
        self.assertEqual(text.split("objects\n")[1].split(), piped.split("objects\n")[1].split())

    def test_compare(self):
        for name, colour in (("blue.png", (0, 0, 255)), ("red.png", (255, 0, 0))):
            self.file(name, png(64, 64, colour))
        for embedding in (self.persons, self.faces):
            self.use(self.detector, embedding)
            found, = self.lines(self.vsa("compare", "--json", self.pipeline, "blue.png", "red.png"))
            first, second = (thing["feature"] for thing in found["objects"])
            cosine = sum(map(float.__mul__, first, second)) / math.hypot(*first) / math.hypot(*second)
            self.assertAlmostEqual(found["similarity"], cosine, 6)
            self.assertEqual([(thing["input"], thing["className"], thing["box"]) for thing in found["objects"]],
                             [(name, "person", [30, 10, 50, 44]) for name in ("blue.png", "red.png")])
            table = self.vsa("compare", self.pipeline, "blue.png", "red.png")
            self.assertIn("person  30,10 50,44", table)
            self.assertTrue(table.endswith(f"cosine similarity {cosine:.4f}\n"), table)

    def test_compare_says_why_not(self):
        self.file("blue.png", png(64, 64, (0, 0, 255)))
        nothing = {**self.detector, "modelFile": "nothing"}
        for models, picture, status, sentence in [
            ([nothing, self.persons], "blue.png", 1, r"blue.png: no object was found"),
            ([self.detector], "blue.png", 1, r"blue.png: no object has a feature; .+"),
            ([self.detector, {**self.persons, "modelFile": "zeros"}], "blue.png", 1, r"a feature is all zeros .+"),
            ([self.detector, {**self.persons, "inputWidth": 17}], "blue.png", 1,
             r"blue.png: models\[1\] DeepSort \(Track\): the model refused the frame"),
            ([self.detector, self.persons], "none.png", 1, r"none.png: no such file"),
            ([{**self.detector, "modelName": "YOLO0"}], "blue.png", 2, r".+: models\[0\]: the library has no model .+"),
            ([{**self.labels, "modelName": "AudioNet"}], "blue.png", 2, r".+: compare takes images, not audio"),
        ]:
            with self.subTest(sentence):
                self.use(*models)
                self.vsa("compare", self.pipeline, "blue.png", picture, status=status)
                self.assertEqual(self.out, "")
                self.assertRegex(self.err, rf"(?m)^vsa: {sentence}$")


class PipelineTest(ChainCase):
    """What is said of pipeline files that cannot be used."""

    def refused(self, sentence):
        """A regular expression; nothing else is said."""
        self.vsa("run", self.pipeline, "none.png", status=2)
        self.assertEqual(self.out, "")
        self.assertRegex(self.err, rf"^vsa: {re.escape(str(self.pipeline))}: {sentence}\n$")

    def test_files(self):
        with open(self.folder / "huge", "wb") as huge:
            huge.truncate(1 << 30)
        for text, sentence in (
                ("", r"line 1, column 1: Syntax error: value, object or array expected\."),
                ('{"models":\n  [,]}', r"line 2, column 4: Syntax error: value, object or array expected\."),
                ('{\n "models": [] "x": 1}', "line 2, column 15: Missing ',' or '}' in object declaration"),
                ("{} x", r"line 1, column 4: Extra non-whitespace after JSON value\."),
                ("[]", "must be an object, not an array"), ("{}", "models is missing"),
                ('{"modelroot": "x", "models": []}', r'unknown key "modelroot"; did you mean "modelRoot"\?'),
                ('{"models": {}}', "models must be an array, not an object"),
                ('{"models": []}', "models must not be empty"),
                ('{"models": [7]}', r"models\[0\]: must be an object, not a number"),
                (f'{{"{"k" * 10**6}": 1}}', r'unknown key "k{200}\.{3}"'),
                ('{"models": ' + "[" * 10000 + "]" * 10000 + "}", "arrays or objects are nested too deep"),
                (None, "the file is larger than 16 MiB")):
            with self.subTest(sentence):
                self.pipeline.write_text(text) if text is not None else os.link(self.folder / "huge", self.pipeline)
                start = time.monotonic()
                self.refused(sentence)
                self.assertLess(time.monotonic() - start, 20)
                self.pipeline.unlink()
        self.refused("the file cannot be read")
        self.file("huge.txt", b"x" * (16 * 2**20 + 1))
        self.use({**self.detector, "classNames": "huge.txt"})
        self.refused(r'models\[0\]: classNames: the file "huge.txt" is larger than 16 MiB')

    def test_models(self):
        self.file("gbk.txt", b"ok\n\xc4\xe3\n")
        self.file("empty.txt", b"\n")
        self.file("broken.xml", b'<?xml version="1.0"?><net name="x" version="11"><layers><layer/></layers></net>')
        number, path, fails = "must be a number from 0 to 1, not", "the path of a file", "the model cannot be loaded: "
        whole, missing = "must be a whole number from 0 to", rf'there is no model file "{re.escape(str(self.folder))}/'
        for changes, sentence in (
                ({"inputWith": 640}, r'unknown key "inputWith"; did you mean "inputWidth"\?'),
                ({"zzzzzzzz": 640}, 'unknown key "zzzzzzzz"'), ({"category": None}, "category is missing"),
                ({"category": 3}, "category must be a string, not a number"),
                ({"category": "detect"}, 'category must be "Detect" or "Classify" or "Track", not "detect"; '
                                         r'did you mean "Detect"\?'),
                ({"engine": "Caffe"}, 'engine must be "OpenVINO" or "ONNXRuntime", not "Caffe"'),
                ({"inputWidth": True}, "inputWidth must be a number, not true or false"),
                ({"inputWidth": 640.5}, rf"inputWidth {whole} 65535, not 640\.5"),
                ({"inputHeight": 65536}, f"inputHeight {whole} 65535, not 65536"),
                ({"classCount": 4294967297}, f"classCount {whole} 2147483647, not 4294967297"),
                ({"scoreThreshold": 1.5}, rf"scoreThreshold {number} 1\.5"),
                ({"nmsThreshold": -0.25}, rf"nmsThreshold {number} -0\.25"),
                ({"classNames": None}, "classNames is missing"), ({"classNames": []}, "classNames must not be empty"),
                ({"classNames": 80}, f"classNames must be an array of strings or {path}, not a number"),
                ({"classNames": ["a", 1]}, r"classNames\[1\] must be a string, not a number"),
                ({"classNames": "none.txt"}, 'classNames: the file "none.txt" cannot be read'),
                ({"classNames": "."}, r'classNames: the file "\." cannot be read'),
                ({"classNames": "empty.txt"}, 'classNames: the file "empty.txt" is empty'),
                ({"classNames": "gbk.txt"}, 'classNames: line 2 of "gbk.txt" is not UTF-8'),
                ({"wantedClasses": ["cat"]}, r'wantedClasses: "cat" is not in classNames; did you mean "car"\?'),
                ({"wantedLabels": "car"}, "wantedLabels must be an array of strings, not a string"),
                ({"modelName": "NoSuchNetwork"}, 'the library has no model "NoSuchNetwork" .*'),
                ({"device": "NOWHERE"}, rf"{fails}.*NOWHERE.*"),
                ({"modelRoot": ".", "modelFile": "broken"}, f"{fails}.+"),
                # The library's rule for paths: root, folder and name with slashes between, or the root alone.
                ({"modelRoot": ".", "modelFile": "other"}, rf'{missing}other\.xml"'),
                ({"modelRoot": ".", "modelDir": "deep"}, rf'{missing}deep/things\.xml"'),
                ({"modelRoot": ".", "engine": "ONNXRuntime"}, f'{missing}things"'),
                ({"modelFile": "", "modelRoot": "nets"}, rf'{missing}nets\.xml"')):
            with self.subTest(sentence):
                changed = {**self.detector, **changes}
                self.use(self.detector, {key: value for key, value in changed.items() if value is not None})
                self.refused(r"models\[1\]: " + sentence)

    def test_sound_and_pictures(self):
        sound = {**self.labels, "modelName": "AudioNet"}
        seconds = "blockSeconds must be a number"
        for models, more, sentence in (
                ((sound, self.labels), {}, r"models\[0\] AudioNet \(Classify\) takes audio and models\[1\] ResNet "
                                           r"\(Classify\) takes images; they belong in two pipelines"),
                ((self.labels,), {"blockSeconds": 1}, "blockSeconds is for models that take audio"),
                ((sound,), {"blockSeconds": "1"}, f"{seconds}, not a string"),
                ((sound,), {"blockSeconds": 0}, rf"{seconds} of seconds from 0\.02 to 60, not 0")):
            with self.subTest(sentence):
                self.use(*models)
                self.write_pipeline(NETWORKS, **more)
                self.refused(sentence)


class RunTest(ChainCase):
    """What the options of vsa run do to inputs and results."""

    def setUp(self):
        super().setUp()
        self.use(self.detector)
        self.file("blue.png", png(64, 64, (0, 0, 255)))

    def test_standard_input_is_answered_line_by_line(self):
        self.file("in/large.png", png(128, 64))
        self.file("in/other.png", png(64, 64))
        process = self.start(VSA, "run", "--stdin", "-q", self.pipeline)
        no_path = ("the line is not a path", None)
        for line, *answers in (
                (b"blue.png", (None, 64)), (b"none.png\r", ("no such file", None)), (b"",),
                (b"in", (None, 128), (None, 64)), (b"none*", ("no file matches this pattern", None)),
                (b"\xff.png", ("no such file", None)), (b"blue.png\0x", no_path), (b"x" * 1000000, no_path),
                (b"blue.png", (None, 64))):
            process.stdin.write(line + b"\n")
            process.stdin.flush()
            for answer in answers:
                found, = self.lines(process.stdout.readline().decode())
                self.assertEqual((found.get("error"), found.get("width")), answer)
                if len(answers) == 1 and answer != no_path:
                    self.assertEqual(found["input"], line.decode(errors="replace").strip())
        out, err = process.communicate(timeout=60)
        self.assertEqual((process.returncode, out), (1, b""))
        self.assertEqual(len(err.splitlines()), 5, err)

    def test_recorded_objects(self):
        self.file("other.png", png(128, 64))
        self.use(self.detector, self.reader)
        whole = self.run_json("blue.png", "other.png")
        self.use(self.detector)
        self.vsa("run", self.pipeline, "blue.png", "other.png", "--json-file", "found.jsonl")
        self.use(self.reader)
        self.assertEqual(self.run_json("blue.png", "other.png", "--objects", "found.jsonl"), whole)
        found, error = (self.folder / "found.jsonl").read_bytes(), b'{"input":"blue.png","error":"x"}\n'
        for name, content, status, sentence in (
                ("wide", found.replace(b'"width":64', b'"width":65'), 1, "blue.png: in wide frame 0 has 65 x 64 .+"),
                ("other", error, 1, "blue.png: frame 0 is not in other"),
                ("deep", error + b"[" * 100000, 2, "deep: line 2: .+"), ("text", b"x", 2, "text: line 1: not JSON"),
                ("none", None, 2, "none: the file cannot be read"),
                ("box", b'{"input":"a","frame":0,"width":9,"height":9,"objects":[{"box":[1]}]}', 2,
                 "box: line 1: an array is missing or has another length")):
            if content is not None:
                self.file(name, content)
            self.vsa("run", self.pipeline, "blue.png", "--objects", name, status=status)
            self.assertRegex(self.err, rf"(?m)^vsa: {sentence}$")

    def test_a_model_that_fails_on_a_frame(self):
        # A network of labels is no detector: the library refuses what comes out of it.
        self.use({**self.detector, "modelFile": "label", "inputWidth": 32, "inputHeight": 32}, self.reader)
        frame, = self.run_json("blue.png", status=1)
        self.assertEqual((frame["failedModels"], frame["objects"]), ([0, 1], []))
        self.assertRegex(self.err, r"(?m)^vsa: blue.png: frame 0: models\[0\] YOLO26 \(Detect\): .+$")
        self.assertNotIn("frame 0: models[1]", self.err)

    def test_inputs_are_never_overwritten(self):
        before = self.file("in/blue.png", png(64, 64)).read_bytes()
        (self.folder / "link").symlink_to(self.folder / "in")
        for arguments in (["--output", "in"], ["--output", "link"], ["--json-file", "in/blue.png"],
                          ["--json-file", self.pipeline], ["--output", self.pipeline],
                          ["--output", "out", "--font", self.pipeline]):
            self.vsa("run", self.pipeline, "in", *arguments, status=2)
        self.assertEqual(before, (self.folder / "in/blue.png").read_bytes())

    def test_chosen_shrunk_and_cut_out(self):
        self.file("big.png", png(640, 320))
        frame, = self.run_json("big.png", "--max-side", "64", "--crops", "crops", "--output", "out")
        self.assertEqual([(thing["box"], thing["crop"]) for thing in frame["objects"]],
                         [([80, 40, 400, 280], "crops/big-1.png"), ([300, 100, 500, 320], "crops/big-2.png")])
        sizes = [struct.unpack(">II", (self.folder / name).read_bytes()[16:24])
                 for name in ("crops/big-1.png", "crops/big-2.png", "out/big.png")]
        self.assertEqual(sizes, [(320, 240), (200, 220), (640, 320)])
        for only, names in (("person", ["person"]), ("person,car", ["car", "person"])):
            frame, = self.lines(self.vsa("run", "-j", "--only", only, self.pipeline, "blue.png"))
            self.assertEqual([thing["className"] for thing in frame["objects"]], names)
        for options, sentence in ((["--only", "cra"], '--only: .* "cra"; did you mean "car"'),
                                  (["--crops", "x", "--output", "x"], "need a folder each"),
                                  (["--crops", "."], "lies in the output folder")):
            self.vsa("run", self.pipeline, "blue.png", *options, status=2)
            self.assertRegex(self.err, sentence)

    def test_absurd_inputs_are_refused_and_the_others_done(self):
        bmp = lambda side: b"BM" + struct.pack("<IHHIIiiHHIIiiII", 54, 0, 0, 54, 40, side, side, 1, 24, *[0] * 6)
        photo = (PICTURES / "hike.jpg").read_bytes()
        start = re.search(rb"\xff[\xc0\xc2]..\x08", photo, re.DOTALL).end()
        jpeg = lambda side: photo[:start] + struct.pack(">HH", side, side) + photo[start + 4:]
        self.file("good.png", png(10, 10000))
        (self.folder / "nothing").mkdir()
        os.mkfifo(self.folder / "pipe.png")
        limit, header = "its 20000 x 20000 pixels are more than the limit of 200000000", "its header claims more .+"
        cases = {"a.png": (png(100000, 100000, rows=b""), header), "b.png": (png(20000, 20000, rows=b""), limit),
                 "c.bmp": (bmp(100000), header), "d.bmp": (bmp(20000), limit), "e.jpg": (jpeg(60000), header),
                 "f.jpg": (jpeg(20000), limit), "g.pgm": (b"P5 20000 20000 255 x", limit),
                 "film.y4m": (self.film(3).read_bytes(), "its 64 x 48 pixels are more than the limit of 3000"),
                 "cut.y4m": (self.film(9).read_bytes()[:300], "no frame can be read"),
                 "text.png": (b"no picture", ".+"), "void.jpg": (b"", ".+"), "text.mp4": (b"no film", ".+"), "cut.png": (png(400, 300)[:60], ".+"),
                 "none.png": (None, "no such file"), "none*.png": (None, ".+"), "nothing": (None, ".+"),
                 "pipe.png": (None, "not a regular file")}
        for name, (content, sentence) in cases.items():
            if content is not None:
                self.file(name, content)
            most = 3000 if name == "film.y4m" else 200000000
            done = self.run_json(name, "good.png", "--max-pixels", most, status=1)
            self.assertEqual(len(done), most > 10 * 10000, name)
            self.assertRegex(self.err, rf"(?m)^vsa: {re.escape(name)}: {sentence}$")
            self.assertIn("1 input failed" if done else "2 inputs failed", self.err)
        (self.folder / "deep/er").mkdir(parents=True)
        for name in ("deep/er/loop", "deep/self"):
            (self.folder / name).symlink_to(self.folder / "deep")
        self.file("deep/er/1.png", png(1, 1))
        self.assertEqual(len(self.run_json("deep", "--recursive")), 1)


class RayTest(ChainCase):
    def ray(self, *options):
        python = pathlib.Path(os.environ["TOL_RAY_PYTHON"])
        if not python.is_file():
            self.skipTest(f"Ray is not installed ({python} is missing); run scripts/setup")
        return self.start(
            python, EXAMPLES / "ray/vsa_ray.py", "--vsa", self.folder / "vsa", "--workers", "2", "--cores", "1",
            *options, self.pipeline, stderr=None,
            env={**os.environ, "HOME": str(self.folder), "RAY_TMPDIR": str(self.folder), "RAY_AUTH_MODE": "disabled"})

    def test_a_killed_process_loses_and_doubles_nothing(self):
        self.use(self.detector, self.reader)
        names = [self.file(f"{i}.png", png(1500 + 10 * i, 1000)) for i in range(80)] + [self.folder / "none.png"]
        plain = self.vsa("run", "--json", self.pipeline, *names, status=1).splitlines(True)
        (self.folder / "started").mkdir()
        # Takes the place of vsa and leaves its process id.
        self.file("vsa", f'#!/bin/sh\ntouch "{self.folder}/started/$$"\nexec "{VSA}" "$@"\n'.encode()).chmod(0o755)
        process = self.ray()
        process.stdin.write("".join(f"{name}\n" for name in names).encode())
        process.stdin.close()
        first = process.stdout.readline()
        os.kill(int(min(os.listdir(self.folder / "started"))), signal.SIGKILL)
        lines = [line.decode() for line in (first, *process.stdout)]
        self.assertEqual(process.wait(timeout=60), 1)
        self.assertEqual(lines[:-1], plain)
        self.assertEqual(json.loads(lines[-1]), {"error": "no such file", "input": str(names[-1])})
        self.assertEqual(len(os.listdir(self.folder / "started")), 3)  # one of two was started again

    def test_whatever_fails_on_a_picture_the_others_are_answered(self):
        self.file("vsa", b"""#!/bin/sh
while read -r path; do
  case $path in hang*) sleep 1000 ;; die*) exit 3 ;; lose*) kill -9 $PPID ;; folder) echo '{"input":"folder/a"}' ;; esac
  case $path in bytes*) path=$(printf 'bytes\357\277\275') ;; esac
  echo '{"input":"'$path'"}'
done
""").chmod(0o755)
        more = [[b"%d.png" % (4 * i + j) for j in range(4)] for i in range(5)]
        bad = {b"hang": "vsa failed 3 times", b"die": "vsa failed 3 times", b"lose": "the worker failed 3 times",
               b"folder": "this is not one picture; list the files of a folder instead", b"bytes\xff": None}
        names = [name for some, path in zip(more, bad) for name in (*some, path)]
        out, _ = self.ray("--seconds", "2").communicate(b"\n".join(names), timeout=100)
        self.assertEqual([(line["input"], line.get("error")) for line in map(json.loads, out.splitlines())],
                         [(name.decode(errors="replace"), bad.get(name)) for name in names])


class SoundTest(Case):
    """Sound through a spectrogram service on port 9555, which is the tests' own."""

    needs_models = False

    def setUp(self):
        super().setUp()
        self.models = [{"category": "Classify", "modelName": "AudioNet", "engine": "OpenVINO", "modelFile": "pitch",
                        "classNames": ["low", "high"], "inputWidth": 20, "inputHeight": 16, "scoreThreshold": 0.6}]
        self.write_pipeline(NETWORKS, blockSeconds=0.2)

    def wav(self, name, pcm, rate=16000, channels=1, code=1, size=2):
        """`code` is 1 for whole numbers and 3 for floats, `size` the bytes of a sample."""
        header = struct.pack("<HHIIHH", code, channels, rate, rate * channels * size, channels * size, 8 * size)
        return self.file(name, b"RIFF" + struct.pack("<I", 36 + len(pcm)) + b"WAVEfmt " + struct.pack("<I", 16) +
                         header + b"data" + struct.pack("<I", len(pcm)) + pcm)

    def sent(self):
        return b"".join(base64.b64decode(request["audio_pcm_base64"]) for _, request in self.asked)

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

            log_message = lambda *_: None

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
        samples = random.Random(1).randbytes(44800)  # 0.7 s
        self.wav("a.wav", samples, channels=2)
        self.serve([self.spectrum(-50, -50), self.spectrum(-100, -50), {"code": 7, "msg": "no"},
                    self.spectrum(-25, -75)])
        block = lambda index, duration, objects, **more: {
            "input": "a.wav", "frame": index, "time": index / 5, "duration": duration, "classified": bool(objects),
            "score": objects[0]["score"] if objects else 0, "objects": objects, **more}
        self.assertEqual(self.run_json("a.wav", status=1), [
            block(0, 0.2, []), block(1, 0.2, [{"className": "high", "classId": 1, "score": 1}]),
            block(2, 0.2, [], failedModels=[0]), block(3, 0.1, [{"className": "low", "classId": 0, "score": 0.75}])])
        self.assertRegex(self.err, r"(?m)^vsa: a.wav: block 2: models\[0\] AudioNet \(Classify\): .+$")
        self.assertRegex(self.err, r"1 input, 4 blocks, 2 objects in")
        for index, (path, request) in enumerate(self.asked):
            self.assertEqual(path, "/api/audioToMelSpec")
            self.assertLessEqual({"pts": 200 * index, "audio_frame_count": index, "audio_frame_max_size": 12800,
                                  "audio_frame_size": 12800, "audio_sample_rate": 16000, "audio_nb_samples": 3200,
                                  "audio_sample_fmt": 1, "audio_sample_fmt_byte_num": 2}.items(), request.items())
        self.assertEqual(self.sent(), samples + bytes(6400))

    def test_every_depth_of_samples(self):
        # Blocks of 4 samples: 8 bits become 16, 24 bits become floats, floats stay.
        floats = struct.pack("<4f", 0.1, -2.5, 1e-20, 1)
        cases = ((1, 1, b"\x80\xff\x7f\x81", 1, struct.pack("<4h", 0, 0x7f00, -0x100, 0x100)),
                 (1, 3, b"\0\0\x40\1\0\0\0\0\x80", 3, struct.pack("<4f", 0.5, 2**-23, -1, 0)),
                 (3, 4, floats, 3, floats))
        self.serve([self.spectrum(0, -75)] * 3)
        self.run_json(*(self.wav(f"{size}.wav", data, 20, 1, code, size) for code, size, data, *_ in cases))
        self.assertEqual([(request["audio_sample_fmt"], request["audio_sample_fmt_byte_num"])
                          for _, request in self.asked], [(1, 2), (3, 4), (3, 4)])
        self.assertEqual(self.sent(), b"".join(data for *_, data in cases))

    def test_what_is_no_sound(self):
        # The last claims blocks of more memory than there is.
        bad = ["none.wav", self.file("text.wav", b"no sound"), self.file("void.wav", b""),
               self.wav("huge.wav", bytes(4000), 655350, 1000, 3, 4)]
        self.serve([self.spectrum(0, -75)])
        frames = self.run_json(*bad, self.wav("empty.wav", b""), self.wav("short.wav", b"ab", 1), status=1)
        self.assertEqual([frame["input"] for frame in frames], [str(self.folder / "short.wav")])
        self.assertEqual(self.asked[0][1]["audio_nb_samples"], 1)
        self.assertIn("6 inputs, 1 block, ", self.err)
        self.assertIn("5 inputs failed", self.err)

    def test_table_and_limits(self):
        self.wav("in/a.wav", bytes(16000))
        self.file("in/b.png", png(4, 4))
        self.serve([self.spectrum(0, -75), self.spectrum(-50, -50)])
        self.assertEqual(self.vsa("run", self.pipeline, "in", "--max-frames", "2"),
                         "in/a.wav: 0.000 s to 0.200 s: low 0.800\nin/a.wav: 0.200 s to 0.400 s: nothing\n")
        for option, sentence in (("--output", "draws images"), ("--crops", "is for images")):
            self.vsa("run", self.pipeline, "in/a.wav", option, "out", status=2)
            self.assertIn(f"{option} {sentence}", self.err)

    def test_without_a_service(self):
        self.models *= 2
        self.write_pipeline(NETWORKS)
        frame, = self.run_json(self.wav("a.wav", bytes(6400)), status=1)
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
        self.assertEqual(self.sent(), struct.pack("<300h", *range(300)) + bytes(200))
        for name, blocks, sentence in (("broken", 2, "ffmpeg cannot read the audio: film: the rest is damaged"),
                                       ("silent", 0, "there is no audio in this file")):
            film.rename(self.folder / f"{name}.y4m")
            film = self.folder / f"{name}.y4m"
            self.assertEqual(len(self.run_json(film, PATH=path, status=1)), blocks)
            self.assertIn(f"vsa: {film}: {sentence}\n", self.err)
        self.assertEqual(self.run_json(film, PATH=str(self.folder), status=1), [])
        self.assertRegex(self.err, rf"vsa: {film}: .*the program ffmpeg.* is not on the PATH")


class StopTest(Case):
    @unittest.skipIf(os.name == "nt", "needs POSIX signals")
    def test_interrupt_leaves_what_was_done(self):
        process = self.start(VSA, "run", self.pipeline, "--json", self.film(2000), "--output", "out")
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
        process = self.start(VSA, "run", self.pipeline, self.film(2000), "--output", "out")
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
