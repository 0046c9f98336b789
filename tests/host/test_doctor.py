"""The commands doctor, compare-engines and bench on tiny networks, with the environment of test_vsa."""

import json
import pathlib
import random
import shutil
import unittest

from test_vsa import MODELS, NETWORKS, Case, png

THINGS = [f"thing {i}" for i in range(80)]
BOXES = {"category": "Detect", "modelName": "YOLO8", "engine": "OpenVINO", "modelFile": "detect", "classNames": THINGS,
         "inputWidth": 64, "inputHeight": 64, "scoreThreshold": 0.25, "nmsThreshold": 0.45}
LINES = {"category": "Track", "modelName": "PaddleOCR", "engine": "OpenVINO", "modelFile": "plate", "inputWidth": 32,
         "inputHeight": 16, "classNames": list("-ABCDEFG")}
PLATES = {**LINES, "modelName": "VsOCR"}
FACES = {**LINES, "modelName": "VsFaceNet", "modelFile": "feature128", "inputWidth": 16}
TEXT = {**BOXES, "modelName": "PaddleOCR", "modelRoot": str(MODELS / "text"), "modelFile": "detection",
        "classNames": ["text"], "inputWidth": 960}
UTIL = next(pathlib.Path("/lib").glob("*/libutil.so.1"), None)


class DoctorTest(Case):
    needs_models = False

    def test_networks(self):
        yolo8 = "Detect YOLO8 with 80 classes"
        for file, *fits in (("detect.xml", yolo8), ("detect.onnx", yolo8), ("obb.onnx",), ("batch.onnx",),
                            ("bare.xml", yolo8, "Detect YOLO8-OBB with 79 classes"),
                            ("obb.xml", "Detect YOLO8-OBB with 15 classes"), ("end2end.xml", "Detect YOLO26"),
                            ("pose.xml", "Detect YOLO8-POSE with 17 key points"),
                            ("seg.xml", "Detect YOLO8-Seg with 80 classes"),
                            ("anchors.onnx", "Detect YOLO5 with 80 classes"),
                            ("feature256.xml", "Track DeepSort", "Classify ResNet with 256 classes",
                             "Classify AudioNet with 256 classes")):
            with self.subTest(file):
                out = self.vsa("doctor", NETWORKS / file, status=0 if fits else 1).splitlines()
                self.assertEqual([line.split(maxsplit=1)[1] for line in out if line.startswith("  fits ")], fits)
                # Every row of the table is told about.
                told = " ".join(line for line in out if line[2:6] in ("fits", "not "))
                self.assertEqual(sum(told.count(word) for word in ("Detect ", "Track ", "Classify ")), 13)
        out = self.vsa("doctor", NETWORKS / "detect.onnx")
        for words in ("f32 [1,3,64,64]", "task   detect", "size   64 x 64", "stride 32", "80: thing 0", "nms=False"):
            self.assertIn(words, out)
        self.assertIn("ovc FILE", self.vsa("doctor", NETWORKS / "obb.onnx", status=1))

    def test_written_pipelines_run(self):
        picture = self.file("a.png", png(64, 48))
        for number, (names, *more) in enumerate((
                ("detect.xml",), ("detect.onnx",), ("anchors.onnx",), ("end2end.onnx",), ("obb.xml",), ("pose.xml",),
                ("seg.xml",), ("bare.xml", "--as", "YOLO8-OBB"), ("detect.xml label.xml feature256.xml",))):
            with self.subTest(names):
                command = ["doctor", *(NETWORKS / name for name in names.split()), "--write", f"{number}.json", *more]
                self.vsa(*command)
                self.vsa("run", f"{number}.json", picture)
                self.vsa("doctor", f"{number}.json")
                self.vsa(*command, status=2)
                self.assertIn("is not overwritten", self.err)
        self.assertIn('"YOLO8-OBB"', (self.folder / "7.json").read_text())
        self.assertEqual(json.loads((self.folder / "0.json").read_text())["models"][0]["classNames"], THINGS)
        self.vsa("doctor", NETWORKS / "bare.xml", "--write", "x.json", "--as", "YOLO5", status=2)

    def test_pipelines(self):
        good, alone = "nothing is wrong", "there is no detector before it"
        pose = {**BOXES, "modelName": "YOLO8-POSE", "modelFile": "pose"}
        cases = [  # exit status, what is said, models
            (0, good, [BOXES]), (0, good, [BOXES, PLATES, FACES]), (0, good, [{**pose, "classNames": ["person"]}]),
            (1, '"classCount": 80', [{**BOXES, "classCount": 79}]), (1, '"classCount": 17', [pose]),
            (1, "classNames has 2 names and the network has 80 classes", [{**BOXES, "classNames": ["a", "b"]}]),
            (0, 'which the file calls "thing 0"', [{**BOXES, "classNames": ["thing 1", "thing 0", *THINGS[2:]]}]),
            (1, 'set "inputWidth": 64, "inputHeight": 64', [{**BOXES, "inputWidth": 640}]),
            (1, "it fits Detect YOLO8", [{**BOXES, "modelName": "YOLO8-OBB"}]),
            (1, 'did you mean "YOLO8"?', [{**BOXES, "modelName": "YOLOv8"}]),
            (1, 'set "engine": "OpenVINO"', [{**pose, "engine": "ONNXRuntime", "modelFile": "pose.onnx"}]),
            (1, 'set "category": "Track"', [BOXES, {**FACES, "category": "Classify"}]),
            (1, 'no device "FPGA"', [{**BOXES, "device": "FPGA"}]),
            (0, "not square", [{**BOXES, "modelFile": "flat", "inputHeight": 32, "classNames": ["a", "b"]}]),
            (0, "nms=False", [{**BOXES, "modelName": "YOLO26", "modelFile": "bare"}]),
            (0, "scoreThreshold is 0", [{**BOXES, "scoreThreshold": 0}]),
            (0, alone, [PLATES, BOXES]), (0, alone, [FACES]), (0, "one upright line", [BOXES, LINES]),
            (1, "the built-in dictionary is for 6625", [BOXES, {**LINES, "classNames": ["paddleocr"]}]),
        ]
        if (MODELS / "text/detection.xml").is_file():
            cases += [(0, "each new frame size", [TEXT, LINES]), (1, "works on boxes", [TEXT, FACES])]
        for status, words, models in cases:
            with self.subTest(words):
                self.models = models
                self.write_pipeline(NETWORKS)
                out = self.vsa("doctor", self.pipeline, status=status)
                self.assertIn(words, out)
                self.assertEqual("wrong: " in out, status == 1)
                if words in ("not square", "nms=False", alone):
                    self.vsa("doctor", "--strict", self.pipeline, status=1)

    def test_damaged_files(self):
        chance = random.Random(1)
        # The engine, asking all of its readers about a damaged file, loses 8 bytes; that is not ours to find.
        for name in ["detect.onnx", "plate.xml"] * 8:
            content = bytearray((NETWORKS / name).read_bytes())
            if chance.random() < 0.4:
                del content[chance.randrange(1, len(content)):]
            for _ in range(3):
                content[chance.randrange(len(content))] = chance.randrange(256)
            shutil.copy(NETWORKS / "plate.bin", self.folder)
            self.vsa("doctor", self.file(name, content), status=(0, 1), ASAN_OPTIONS="detect_leaks=0")
            self.assertEqual(self.err, "")
        for name, content, words in (("no.xml", b"text", "no.xml: "), ("no.json", b"{}", "models is missing")):
            self.assertIn(words, self.vsa("doctor", self.file(name, content), status=1))
        self.assertRegex(self.vsa("doctor", "none.onnx", status=1), r"^none.onnx: no such file\n1 mismatch")
        self.vsa("doctor", status=2)

    def test_lines_fit_a_terminal(self):
        self.assertGreater(len(self.terminal("doctor", NETWORKS / "seg.xml").splitlines()), 10)

    @unittest.skipUnless(UTIL, "there is no library to take for another glog")
    def test_two_glogs(self):
        other = self.file("libglog.so.9", UTIL.read_bytes())
        out = self.vsa("doctor", NETWORKS / "detect.xml", LD_PRELOAD=str(other), ASAN_OPTIONS="verify_asan_link_order=0")
        self.assertIn("two different glog", out)


class EnginesTest(Case):
    needs_models = False

    def compare(self, status, *more, **changes):
        self.models = [{**BOXES, "modelFile": "one", "classNames": ["a"], **changes}]
        self.write_pipeline(NETWORKS)
        return self.vsa("compare-engines", self.pipeline, self.file("a.png", png(64, 64)), *more, status=status)

    def test_compare(self):
        same = {"input": str(self.folder / "a.png"), "OpenVINO": 1, "ONNXRuntime": 1, "matched": 1, "pixels": 0,
                "score": 0, "same": True}
        self.assertEqual(json.loads(self.compare(0, "--json")), same)
        self.assertEqual(json.loads(self.compare(0, "--json", engine="ONNXRuntime", modelFile="one.onnx")), same)
        other = ["--json", "--other", NETWORKS / "two.onnx"]
        for pixels, score in ((3, 0.375), (2, 0.375), (3, 0.374)):
            good = (pixels, score) == (3, 0.375)
            out = self.compare(0 if good else 1, *other, "--pixels", pixels, "--score", score)
            self.assertEqual(json.loads(out), {**same, "pixels": 3, "score": 0.375, "same": good})
        alone = json.loads(self.compare(1, *other, scoreThreshold=0.6))
        self.assertEqual((alone["OpenVINO"], alone["ONNXRuntime"], alone["matched"]), (1, 0, 0))
        self.assertIn("(differs)", self.compare(1, *other[1:]))
        for more in (["--other", "none.onnx"], ["--other", NETWORKS / "two.xml"], ["--pixels", "-1"]):
            self.compare(2, *more)
        self.compare(2, modelName="YOLO8-OBB")
        self.compare(1, "none.png")

    def test_bench(self):
        one = {**BOXES, "modelFile": "one", "classNames": ["a"]}
        self.models = [one, FACES, {**one, "engine": "ONNXRuntime", "modelFile": "one.onnx"}]
        self.write_pipeline(NETWORKS)
        command = ["bench", self.pipeline, self.file("a.png", png(64, 64)), "--runs", "20"]
        found = json.loads(self.vsa(*command, "--json"))["models"]
        self.assertEqual([entry["name"].split()[-2] for entry in found[:3]], ["YOLO8", "VsFaceNet", "YOLO8"])
        for entry in found:
            times = [0, *(entry[key] for key in ("medianMs", "p90Ms", "p99Ms", "maxMs"))]
            self.assertEqual(times, sorted(times))
            self.assertTrue(entry is found[3] or 0 < entry["outsideEngine"] < 1, entry)  # the networks do nothing
        self.assertLessEqual(max(map(len, self.vsa(*command).splitlines()[1:])), 80)
        self.vsa("bench", self.pipeline, "none.png", status=2)
