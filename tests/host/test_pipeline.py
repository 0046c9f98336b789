"""Pipeline files: what is refused, and where networks are looked for."""

import re
import shutil
import time

from vsa_case import NETWORKS, ROOT, ChainCase


class PipelineTest(ChainCase):
    def check_refused(self, sentence):
        """`sentence` is a regular expression for all that vsa prints about the pipeline."""
        self.vsa("run", self.pipeline, "none.png", status=2)
        self.assertEqual(self.out, "")
        self.assertRegex(self.err, rf"^vsa: {re.escape(str(self.pipeline))}: {sentence}\n$")

    def test_every_key_is_documented(self):
        source = (ROOT / "Host/Pipeline.cpp").read_text("utf-8")
        keys = re.findall(r"const Names k\w*Keys = {(.*?)};", source, re.DOTALL)
        page = (ROOT / "docs/pipeline.md").read_text("utf-8")
        self.assertEqual({*re.findall(r'"(\w+)"', "".join(keys))},
                         {*re.findall(r"(?m)^\| `(\w+)`", page)})

    def test_files(self):
        for text, sentence in (
                ("", r"line 1, column 1: Syntax error: value, object or array expected\."),
                ('{"models":\n  [,]}',
                 r"line 2, column 4: Syntax error: value, object or array expected\."),
                ('{\n "models": [] "x": 1}',
                 "line 2, column 15: Missing ',' or '}' in object declaration"),
                ("{} x", r"line 1, column 4: Extra non-whitespace after JSON value\."),
                ("[]", "must be an object, not an array"),
                ("{}", "models is missing"),
                ('{"modelroot": "x", "models": []}',
                 r'unknown key "modelroot"; did you mean "modelRoot"\?'),
                ('{"models": {}}', "models must be an array, not an object"),
                ('{"models": []}', "models must not be empty"),
                ('{"models": [7]}', r"models\[0\]: must be an object, not a number"),
                (f'{{"{"k" * 10**6}": 1}}', r'unknown key "k{200}\.{3}"'),
                ('{"models": ' + "[" * 10000 + "]" * 10000 + "}",
                 "arrays or objects are nested too deep")):
            with self.subTest(sentence):
                self.pipeline.write_text(text)
                self.check_refused(sentence)
        self.pipeline.unlink()
        self.check_refused("no such file")

    def test_huge_files(self):
        self.write("huge.txt", b"x" * (16 * 2**20 + 1))
        self.use({**self.detector, "classNames": "huge.txt"})
        self.check_refused(r'models\[0\]: classNames: the file "huge.txt": larger than 16 MiB')
        with open(self.pipeline, "wb") as huge:
            huge.truncate(1 << 30)
        start = time.monotonic()
        self.check_refused("larger than 16 MiB")
        self.assertLess(time.monotonic() - start, 20)

    def check_second_model(self, cases):
        for changes, sentence in cases:
            with self.subTest(sentence):
                changed = {**self.detector, **changes}
                given = {key: value for key, value in changed.items() if value is not None}
                self.use(self.detector, given)
                self.check_refused(r"models\[1\]: " + sentence)

    def test_values(self):
        number = "must be a number from 0 to 1, not"
        whole = "must be a whole number from 0 to"
        self.check_second_model((
            ({"inputWith": 640}, r'unknown key "inputWith"; did you mean "inputWidth"\?'),
            ({"zzzzzzzz": 640}, 'unknown key "zzzzzzzz"'),
            ({"category": None}, "category is missing"),
            ({"category": 3}, "category must be a string, not a number"),
            ({"category": "detect"}, 'category must be "Detect" or "Classify" or "Track", '
                                     r'not "detect"; did you mean "Detect"\?'),
            ({"engine": "Caffe"}, 'engine must be "OpenVINO" or "ONNXRuntime", not "Caffe"'),
            ({"inputWidth": True}, "inputWidth must be a number, not true or false"),
            ({"inputWidth": 640.5}, rf"inputWidth {whole} 65535, not 640\.5"),
            ({"inputHeight": 65536}, f"inputHeight {whole} 65535, not 65536"),
            ({"classCount": 4294967297}, f"classCount {whole} 2147483647, not 4294967297"),
            ({"scoreThreshold": 1.5}, rf"scoreThreshold {number} 1\.5"),
            ({"nmsThreshold": -0.25}, rf"nmsThreshold {number} -0\.25"),
            ({"padding": 256}, "padding must be a whole number from 0 to 255, not 256"),
            ({**self.classifier, "padding": 114}, "padding is for YOLO detectors only")))

    def test_class_names(self):
        self.write("gbk.txt", b"ok\n\xc4\xe3\n")
        self.write("empty.txt", b"\n")
        kinds = "an array of strings or the path of a file"
        self.check_second_model((
            ({"classNames": None}, "classNames is missing"),
            ({"classNames": []}, "classNames must not be empty"),
            ({"classNames": 80}, f"classNames must be {kinds}, not a number"),
            ({"classNames": ["a", 1]}, r"classNames\[1\] must be a string, not a number"),
            ({"classNames": "none.txt"}, 'classNames: the file "none.txt": no such file'),
            ({"classNames": "."}, r'classNames: the file "\.": a folder, not a file'),
            ({"classNames": "empty.txt"}, 'classNames: the file "empty.txt" is empty'),
            ({"classNames": "gbk.txt"}, 'classNames: line 2 of "gbk.txt" is not UTF-8'),
            ({"wantedClasses": ["cat"]},
             r'wantedClasses: "cat" is not in classNames; did you mean "car"\?'),
            ({"wantedLabels": "car"}, "wantedLabels must be an array of strings, not a string")))

    def test_models(self):
        self.write("broken.xml", b'<?xml version="1.0"?><net name="x" version="11"><layers>'
                                 b"<layer/></layers></net>")
        fails = "the model cannot be loaded: "
        missing = rf'there is no model file "{re.escape(str(self.folder))}/'
        self.check_second_model((
            ({"modelName": "NoSuchNetwork"}, 'the library has no model "NoSuchNetwork" .*'),
            ({"modelName": "yolov26"}, r'the library has .*; did you mean "YOLO26"\?'),
            ({"device": "NOWHERE"}, rf'{fails}this machine has no device "NOWHERE" .*'),
            ({"modelRoot": ".", "modelFile": "broken"}, f"{fails}.+"),
            # A path is root, folder and name with slashes between them, or only the root.
            ({"modelRoot": ".", "modelFile": "other"}, rf'{missing}other\.xml"'),
            ({"modelRoot": ".", "modelDir": "deep"}, rf'{missing}deep/things\.xml"'),
            ({"modelRoot": ".", "engine": "ONNXRuntime"}, f'{missing}things"'),
            ({"modelFile": "", "modelRoot": "nets"}, rf'{missing}nets\.xml"')))

    def test_networks_that_do_not_fit(self):
        size = {"inputWidth": 32, "inputHeight": 32}
        onnx = {"engine": "ONNXRuntime", "modelName": "YOLO8", "modelFile": "one.onnx"}
        for sentence, *models in (
                (r"models\[0\]: the network does not fit YOLO26, .+",
                 {**self.detector, **size, "modelFile": "label"}),
                (r"models\[0\]: inputWidth x inputHeight is 32 x 32 .+", {**self.detector, **size}),
                (r"models\[0\]: classNames has 2 names and the network has 80 classes: .+",
                 {**self.detector, "modelName": "YOLO8", "modelFile": "detect"}),
                (r"models\[0\]: the model refuses its network: .*inputWidth x inputHeight is .+",
                 {**self.detector, **onnx, **size}),
                (r"models\[1\]: inputWidth x inputHeight is 32 x 16 .+",
                 {**self.detector, "modelFile": "nothing"}, {**self.classifier, "inputHeight": 16})):
            with self.subTest(sentence):
                self.use(*models)
                self.vsa("run", self.pipeline, "blue.png", "blue.png", status=2)
                self.assertEqual(self.out, "")
                lines = [line for line in self.err.splitlines() if "[E]" not in line]
                self.assertEqual(len(lines), 1, self.err)
                self.assertRegex(lines[0], f"^vsa: {re.escape(str(self.pipeline))}: {sentence}$")

    def test_every_command_opens_the_same_network(self):
        for suffix in ("xml", "bin"):
            self.write(f"nets/boxes/things.{suffix}", (NETWORKS / f"things.{suffix}").read_bytes())
        self.use({**self.detector, "modelDir": "/boxes"}, root=self.folder / "nets")
        self.assertEqual(len(self.run_json("blue.png")[0]["objects"]), 2)
        self.assertIn(": ok", self.vsa("doctor", self.pipeline))
        self.vsa("bench", self.pipeline, "blue.png", "--runs", "1")
        for suffix in ("xml", "bin"):
            file = self.folder / f"nets/boxes/things.{suffix}"
            before = file.read_bytes()
            self.vsa("run", self.pipeline, "blue.png", "--json-file", file, status=2)
            self.assertIn("an input of this run is not overwritten", self.err)
            self.assertEqual(file.read_bytes(), before)
        # Without the file at that path, no command finds another one.
        shutil.move(self.folder / "nets/boxes", self.folder / "boxes")
        for command in (["run", self.pipeline, "blue.png"], ["bench", self.pipeline, "blue.png"]):
            self.vsa(*command, status=2)
        self.vsa("doctor", self.pipeline, status=1)

    def test_audio_and_images(self):
        audio = {**self.classifier, "modelName": "AudioNet"}
        seconds = "blockSeconds must be a number"
        for models, more, sentence in (
                ((audio, self.classifier), {},
                 r"models\[0\] AudioNet \(Classify\) takes audio and models\[1\] ResNet "
                 r"\(Classify\) takes images; they belong in two pipelines"),
                ((self.classifier,), {"blockSeconds": 1},
                 "blockSeconds is for models that take audio"),
                ((audio,), {"blockSeconds": "1"}, f"{seconds}, not a string"),
                ((audio,), {"blockSeconds": 0}, rf"{seconds} of seconds from 0\.02 to 60, not 0")):
            with self.subTest(sentence):
                self.use(*models, **more)
                self.check_refused(sentence)
