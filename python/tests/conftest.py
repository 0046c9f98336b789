"""What the tests share: networks of a few nodes, written by tests/host/make_networks.py, frames,
and the program vsa.

VSA is the program, TOL_NETWORKS the folder of the networks, TOL_MODELS that of the text models.
"""

import json
import os
import pathlib
import subprocess

import numpy as np
import pytest

import tolcompatible

VSA = os.environ["VSA"]
NETWORKS = pathlib.Path(os.environ["TOL_NETWORKS"])
MODELS = pathlib.Path(os.environ["TOL_MODELS"])
ROOT = pathlib.Path(__file__).resolve().parents[2]

# A car (8, 4, 40, 28) of score 0.75 and a person (30, 10, 50, 44) of score 0.875 in every image of
# 64 x 64.
THINGS = {
    "category": "Detect",
    "modelName": "YOLO26",
    "engine": "OpenVINO",
    "modelRoot": NETWORKS,
    "modelFile": "things",
    "classNames": ["car", "person"],
    "inputWidth": 64,
    "inputHeight": 64,
    "scoreThreshold": 0.5,
}
ONNX = {**THINGS, "engine": "ONNXRuntime", "modelFile": "things.onnx"}
# One object around (24, 24), for YOLO8-OBB, YOLO8-POSE and YOLO8-Seg.
SHAPES = {**THINGS, "classNames": ["thing", "other"], "nmsThreshold": 0.45}
for key in ("modelName", "modelFile"):
    del SHAPES[key]
OTHERS = {"category": "Track", "engine": "OpenVINO", "modelRoot": NETWORKS, "classNames": ["x"]}
PERSONS = {
    **OTHERS,
    "modelName": "DeepSort",
    "modelFile": "feature256",
    "inputWidth": 16,
    "inputHeight": 32,
}
LABELS = {
    **OTHERS,
    "category": "Classify",
    "modelName": "ResNet",
    "modelFile": "label",
    "classNames": ["red", "blue", "green"],
    "inputWidth": 32,
    "inputHeight": 32,
}
READER = {
    **OTHERS,
    "modelName": "VsOCR",
    "modelFile": "plate",
    "inputWidth": 32,
    "inputHeight": 16,
    "classNames": ["", "七", "A", "b", "c", "d", "e", "f"],
}


@pytest.fixture
def frame():
    return np.full((64, 64, 3), (255, 0, 0), np.uint8)


@pytest.fixture
def things():
    with tolcompatible.Model(**THINGS) as model:
        yield model


@pytest.fixture
def write_pipeline(tmp_path):
    """Writes a pipeline file of these models."""

    def write(*models, **more):
        path = tmp_path / "pipeline.json"
        path.write_text(json.dumps({"models": models, **more}, default=str))
        return path

    return write


def run_vsa(*arguments, **options):
    """The lines that vsa run prints."""
    done = subprocess.run(
        [VSA, "run", "--json", *map(str, arguments)], capture_output=True, text=True, **options
    )
    assert done.returncode == 0, done.stderr
    return done.stdout.splitlines()
