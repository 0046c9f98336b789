"""What the tests of the program vsa share: where things are, files to work on, running the program.

VSA is the program, TOL_MODELS the folder of the text models, TOL_PICTURES a folder of images with
their true text, TOL_NETWORKS the folder that make_networks.py wrote.
"""

import json
import os
import pathlib
import re
import struct
import subprocess
import tempfile
import unittest
import zlib

import jsonschema

VSA = os.environ["VSA"]
MODELS = pathlib.Path(os.environ["TOL_MODELS"])
PICTURES = pathlib.Path(os.environ["TOL_PICTURES"])
NETWORKS = pathlib.Path(os.environ["TOL_NETWORKS"])
ROOT = pathlib.Path(__file__).resolve().parents[2]
EXAMPLES = ROOT / "examples"
COLUMNS = 80  # of a terminal
YOLO8 = {"category": "Detect", "modelName": "YOLO8", "inputWidth": 64, "inputHeight": 64,
         "scoreThreshold": 0.25, "nmsThreshold": 0.45}
SCHEMA = jsonschema.Draft202012Validator(
    json.loads((ROOT / "docs/vsa-output.schema.json").read_text("utf-8")))

# "CATEGORY MODELNAME" of each row of README's table of models.
DOCUMENTED_MODELS = [" ".join(names) for names in re.findall(
    r"^\| [^|]*(?:OpenVINO|ONNXRuntime) \| (\w+) \| ([\w-]+) \|",
    (ROOT / "README.md").read_text("utf-8"), re.MULTILINE)]


def png(width, height, colour=(255, 255, 255), rows=None):
    def chunk(kind, data):
        checksum = struct.pack(">I", zlib.crc32(kind + data))
        return struct.pack(">I", len(data)) + kind + data + checksum

    rows = (b"\0" + bytes(colour) * width) * height if rows is None else rows
    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows)) +
            chunk(b"IEND", b""))


def parse_lines(text):
    """The JSON of each line, validated against the schema."""
    lines = [json.loads(line) for line in text.splitlines()]
    for line in lines:
        SCHEMA.validate(line)
    return lines


class VsaCase(unittest.TestCase):
    """A folder of its own with a pipeline file. `out` and `err` are what vsa printed last."""

    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.pipeline = self.folder / "pipeline.json"

    def use(self, *models, root=NETWORKS, **more):
        """Writes a pipeline of these models, on OpenVINO unless they say otherwise."""
        models = [{"engine": "OpenVINO", **model} for model in models]
        self.pipeline.write_text(json.dumps({"modelRoot": str(root), "models": models, **more}))

    def use_text_models(self, names=("paddleocr",)):
        if not (MODELS / "text/recognition.xml").is_file():
            self.skipTest(f"the text models are not in {MODELS}; run scripts/setup")
        common = {"modelName": "PaddleOCR", "modelDir": "text"}
        self.use({**common, "category": "Detect", "modelFile": "detection", "classNames": ["text"],
                  "inputWidth": 960, "scoreThreshold": 0.6},
                 {**common, "category": "Track", "modelFile": "recognition", "inputWidth": 640,
                  "inputHeight": 48, "classNames": names}, root=MODELS)

    def write(self, name, content):
        path = self.folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
        return path

    def write_sign(self, name="sign.png"):
        return self.write(name, (PICTURES / "sign.png").read_bytes())

    def write_video(self, frames):
        """A grey video of raw pixels, 64 x 48 at 10 frames per second."""
        frame = b"FRAME\n" + b"\x80" * (64 * 48 * 3 // 2)
        return self.write("video.y4m", b"YUV4MPEG2 W64 H48 F10:1 C420\n" + frame * frames)

    def vsa(self, *arguments, status=0, **environment):
        """Runs vsa and returns what it prints. `status` is the expected status, or several.

        A variable of `environment` that is None is unset.
        """
        environment = {**os.environ, **environment}
        done = subprocess.run([VSA, *map(str, arguments)], capture_output=True, timeout=120,
                              cwd=self.folder,
                              env={k: v for k, v in environment.items() if v is not None})
        self.out, self.err = done.stdout.decode(), done.stderr.decode()
        expected = status if isinstance(status, tuple) else (status,)
        self.assertIn(done.returncode, expected, self.err)
        return self.out

    def run_json(self, *inputs, status=0, **environment):
        """Runs the pipeline on the inputs and returns the JSON Lines."""
        out = self.vsa("run", "--json", self.pipeline, *inputs, status=status, **environment)
        return parse_lines(out)

    def check_error(self, sentence):
        """`sentence` is a regular expression for one whole line."""
        self.assertRegex(self.err, rf"(?m)^vsa: {sentence}$")

    def start(self, *command, stderr=subprocess.PIPE, **options):
        """Starts a process that the test talks to."""
        process = self.enterContext(
            subprocess.Popen(command, cwd=self.folder, stdin=subprocess.PIPE,
                             stdout=subprocess.PIPE, stderr=stderr, **options))
        self.addCleanup(process.kill)
        return process

    def check_width(self, text):
        self.assertLessEqual(max(map(len, text.splitlines())), COLUMNS, text)


class ChainCase(VsaCase):
    """A detector that finds a car and a person in every image, and models that work on them."""

    detector = {"category": "Detect", "modelName": "YOLO26", "modelFile": "things",
                "classNames": ["car", "person"], "inputWidth": 64, "inputHeight": 64,
                "scoreThreshold": 0.5}
    classifier = {"category": "Classify", "modelName": "ResNet", "modelFile": "label",
                  "classNames": ["red", "blue", "green"], "inputWidth": 32, "inputHeight": 32}
    persons = {"category": "Track", "modelName": "DeepSort", "modelFile": "feature256",
               "classNames": ["x"], "inputWidth": 16, "inputHeight": 32}
    faces = {**persons, "modelName": "VsFaceNet", "modelFile": "feature128", "inputHeight": 16}
    reader = {"category": "Track", "modelName": "VsOCR", "modelFile": "plate", "inputWidth": 32,
              "inputHeight": 16, "classNames": ["", "七", "A", "b", "c", "d", "e", "f"]}

    def setUp(self):
        super().setUp()
        self.write("blue.png", png(64, 64, (0, 0, 255)))
