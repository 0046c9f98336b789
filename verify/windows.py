"""Runs vsa.exe under Wine and compares it with vsa of the release build:
python -m unittest verify/windows.py. Both run a network of ONNX Runtime on the same images.
"""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import unittest

import numpy
import onnx
from onnx import TensorProto, helper, numpy_helper

ROOT = pathlib.Path(__file__).resolve().parents[1]
LINUX = ROOT / "build/release/Host/vsa"
PROGRAM = ROOT / "build/mingw/bin/vsa.exe"
WINE = shutil.which("wine64", path="/usr/lib/wine:" + os.environ["PATH"]) or "wine"
PICTURES = ROOT / "examples/pictures"
SIDE = 64


def write_network(path):
    """Writes a YOLO8 network, a convolution with a sigmoid, of 2 classes and 256 candidates."""
    numbers = numpy.random.default_rng(5)
    constants = {
        "weights": numbers.normal(0, 0.5, (6, 3, 4, 4)).astype(numpy.float32),
        "shape": numpy.array([1, 6, 256]),
        "size": numpy.array([64, 64, 64, 64, 1, 1], numpy.float32).reshape(1, 6, 1)}
    nodes = [helper.make_node("Conv", ["images", "weights"], ["cells"], strides=[4, 4]),
             helper.make_node("Sigmoid", ["cells"], ["scores"]),
             helper.make_node("Reshape", ["scores", "shape"], ["columns"]),
             helper.make_node("Mul", ["columns", "size"], ["out"])]
    info = helper.make_tensor_value_info
    graph = helper.make_graph(
        nodes, "cells", [info("images", TensorProto.FLOAT, [1, 3, SIDE, SIDE])],
        [info("out", TensorProto.FLOAT, [1, 6, 256])],
        [numpy_helper.from_array(array, name) for name, array in constants.items()])
    onnx.save(helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)], ir_version=8),
              path)


class WindowsProgram(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        (self.folder / "models/deep").mkdir(parents=True)
        write_network(self.folder / "models/deep/cells.onnx")
        for image in PICTURES.iterdir():
            if image.suffix in (".png", ".jpg"):
                shutil.copy(image, self.folder)
        self.write_pipeline("p.json")

    def write_pipeline(self, name, **changes):
        model = {"category": "Detect", "modelName": "YOLO8", "engine": "ONNXRuntime",
                 "modelFile": "deep/cells.onnx", "classNames": ["a", "b"], "inputWidth": SIDE,
                 "inputHeight": SIDE, "scoreThreshold": 0.6, "nmsThreshold": 0.45, **changes}
        (self.folder / name).write_text(json.dumps({"modelRoot": "models", "models": [model]}))

    def run_program(self, *command, status=0):
        done = subprocess.run(command, cwd=self.folder, capture_output=True, timeout=300)
        self.assertEqual(done.returncode, status, done.stderr.decode(errors="replace"))
        return done

    def windows(self, *arguments, status=0):
        return self.run_program(WINE, PROGRAM, *arguments, status=status)

    def lines(self, *arguments):
        """The JSON Lines of a run, without the folders of the inputs."""
        printed = self.windows("run", "--json", *arguments).stdout
        lines = [json.loads(line) for line in printed.splitlines()]
        for line in lines:
            line["input"] = line["input"].replace("\\", "/").rsplit("/", 1)[-1]
        return lines

    def test_results_are_those_of_linux_byte_for_byte(self):
        images = sorted(path.name for path in self.folder.glob("*.[pj][np]g"))
        self.assertGreater(len(images), 2)
        expected = self.run_program(LINUX, "run", "--json", "p.json", *images).stdout
        self.assertGreater(expected.count(b'"className"'), len(images))
        self.assertEqual(self.windows("run", "--json", "p.json", *images).stdout, expected)

    def test_paths_may_have_backslashes_and_drives(self):
        image = next(self.folder.glob("*.png")).name
        (self.folder / "in/deep").mkdir(parents=True)
        shutil.copy(self.folder / image, self.folder / "in/deep/x.png")
        self.write_pipeline("back.json", modelFile="deep\\cells.onnx")
        expected = self.lines("p.json", "in/deep/x.png")
        drive = "Z:" + str(self.folder).replace("/", "\\")
        for pipeline, given in (("back.json", "in\\deep\\x.png"), ("back.json", "in\\*\\?.png"),
                                (drive + "\\p.json", drive + "\\in\\deep"),
                                ("p.json", "in\\deep\\")):
            self.assertEqual(self.lines(pipeline, given), expected, given)

    def test_annotated_images_are_written(self):
        image = next(self.folder.glob("*.png")).name
        self.windows("run", "p.json", image, "--output", "out\\images")
        self.assertTrue((self.folder / "out/images" / image).read_bytes().startswith(b"\x89PNG"))

    def test_ctrl_c_ends_the_run_after_the_current_frame(self):
        image = next(self.folder.glob("*.png")).name
        process = subprocess.Popen(
            [WINE, PROGRAM, "run", "--json", "p.json", *[image] * 2000], cwd=self.folder,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(process.kill)
        first = process.stdout.readline()
        process.send_signal(signal.SIGINT)  # Wine makes a Ctrl-C event of it
        out, err = process.communicate(timeout=120)
        self.assertEqual(process.returncode, 128 + signal.SIGINT, err)
        self.assertIn(b"vsa: interrupted", err)
        lines = (first + out).splitlines()
        self.assertLess(len(lines), 2000)
        for line in lines:
            json.loads(line)

    def test_doctor_and_devices_know_the_engines(self):
        self.assertIn(b"YOLO8", self.windows("doctor", "models/deep/cells.onnx").stdout)
        self.assertIn(b"ONNXRuntime-CPU", self.windows("devices").stdout)
