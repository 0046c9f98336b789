"""The examples with supervision and trackers, in the environment of python/examples/setup."""

import csv
import json
import os
import pathlib
import subprocess

import numpy as np
import openvino
import PIL.Image
import pytest
from openvino import opset13 as op

from conftest import PERSONS, ROOT, SHAPES, THINGS

PYTHON = pathlib.Path(os.environ["TOL_SUPERVISION_PYTHON"])
HAS_NORFAIR = any(PYTHON.parents[1].glob("lib/python3*/site-packages/norfair"))
pytestmark = pytest.mark.skipif(
    not PYTHON.is_file(), reason="supervision is not installed; run python/examples/setup"
)


def run(folder, *command, status=0):
    done = subprocess.run(
        [PYTHON, *map(str, command)],
        capture_output=True,
        text=True,
        cwd=folder,
        env={**os.environ, "MPLCONFIGDIR": str(folder)},
    )
    assert done.returncode == status, done.stderr
    return done.stdout if status == 0 else done.stderr


@pytest.fixture
def images(tmp_path):
    folder = tmp_path / "images"
    folder.mkdir()
    for name in ("a.png", "b.png"):
        PIL.Image.new("RGB", (64, 64)).save(folder / name)
    (folder / "notes.txt").write_text("not an image")
    return folder


def test_zones(write_pipeline, images, tmp_path):
    pipeline = write_pipeline(THINGS)
    out = run(
        tmp_path,
        ROOT / "python/examples/zones.py",
        pipeline,
        images / "a.png",
        "--zone",
        "20,10,30,10,30,20,20,20",
        "--output",
        "out",
    )
    assert out.endswith("a.png: 1 of 2 objects in the zone: car\n")
    assert np.array(PIL.Image.open(tmp_path / "out/a.png")).any()


def test_ids_stay_the_same_over_a_video(write_pipeline, tmp_path):
    pixels = b"FRAME\n" + b"\x80" * (64 * 64 * 3 // 2)
    (tmp_path / "video.y4m").write_bytes(b"YUV4MPEG2 W64 H64 F10:1 C420\n" + pixels * 8)
    out = run(tmp_path, ROOT / "python/examples/track.py", write_pipeline(THINGS), "video.y4m")
    rows = list(csv.DictReader(out.splitlines()))
    ids = {(row["class"], row["id"]) for row in rows}
    assert len(ids) == 2 and {row["class"] for row in rows} == {"car", "person"}
    assert {row["left"] for row in rows if row["class"] == "car"} == {"8"}
    assert int(rows[-1]["frame"]) == 7


def save_detector_of_bright_halves(path):
    """Writes a YOLO26 network that finds an object in each half of the image that is not black. The
    score is the largest value of the half."""
    image = op.parameter([1, 3, 64, 64], np.float32)
    halves = op.split(image, op.constant(3), 2)
    rows = []
    for half, left in enumerate((2, 34)):
        score = op.reduce_max(halves.output(half), op.constant([1, 2, 3]), keep_dims=True)
        box = op.constant(np.float32([left, 4, left + 28, 60]).reshape(1, 1, 4))
        category = op.constant(np.float32([[[0]]]))
        rows.append(op.concat([box, op.squeeze(score, op.constant([3])), category], 2))
    openvino.save_model(openvino.Model([op.concat(rows, 1)], [image], "halves"), path, False)


@pytest.mark.skipif(not HAS_NORFAIR, reason="norfair is not installed; run python/examples/setup")
def test_ids_follow_the_appearance(write_pipeline, tmp_path):
    save_detector_of_bright_halves(tmp_path / "halves.xml")
    halves = {**THINGS, "modelRoot": tmp_path, "modelFile": "halves", "classNames": ["car"]}
    # The colours of the left and the right half, as planes of a video: luminance, blue, red.
    black, red, blue = (0, 128, 128), (81, 90, 240), (41, 240, 110)
    scenes = [(red, black)] * 5 + [(black, black)] * 30 + [(blue, red)] * 5
    planes = [
        np.repeat([[first, second]], 64 >> shrink, 0).repeat(32 >> shrink, 1).astype(np.uint8)
        for pair in scenes
        for first, second, shrink in zip(*pair, (0, 1, 1))
    ]
    frames = [b"".join(plane.tobytes() for plane in planes[i : i + 3]) for i in range(0, 120, 3)]
    (tmp_path / "video.y4m").write_bytes(
        b"YUV4MPEG2 W64 H64 F10:1 C420\n" + b"".join(b"FRAME\n" + frame for frame in frames)
    )
    program = ROOT / "python/examples/track_by_appearance.py"
    out = run(tmp_path, program, write_pipeline(halves, PERSONS), "video.y4m")
    rows = list(csv.DictReader(out.splitlines()))
    seen = {(int(row["frame"]), row["id"], row["left"]) for row in rows}
    assert {(4, "1", "2"), (39, "1", "34")} <= seen  # red, before and after
    others = {number for _, number, left in seen if number != "1"}
    assert len(others) == 1 and (39, others.pop(), "2") in seen  # blue
    assert {frame for frame, _, _ in seen} == {*range(2, 5), *range(36, 40)}
    done = run(tmp_path, program, write_pipeline(halves), "video.y4m", status=1)
    assert "features" in done


def test_export(write_pipeline, images, tmp_path):
    assert (
        run(tmp_path, ROOT / "python/examples/export.py", write_pipeline(THINGS), images, "out")
        == "4 objects in 2 images\n"
    )
    coco = json.loads((tmp_path / "out/coco.json").read_text())
    boxes = sorted(found["bbox"] for found in coco["annotations"])
    assert boxes == [[8, 4, 32, 24]] * 2 + [[30, 10, 20, 34]] * 2
    assert [entry["name"] for entry in coco["categories"]] == ["car", "person"]
    labels = sorted((tmp_path / "out/yolo/a.txt").read_text().splitlines())
    assert [float(number) for number in labels[0].split()] == [
        0,
        24 / 64,
        16 / 64,
        32 / 64,
        24 / 64,
    ]
    with open(tmp_path / "out/objects.csv") as file:
        rows = list(csv.DictReader(file))
    assert sorted((row["image"], row["class_name"], row["x_min"]) for row in rows)[0] == (
        "a.png",
        "car",
        "8.0",
    )


def test_detections_hold_masks_corners_and_features(tmp_path):
    script = """
        import json, sys, numpy as np, tolcompatible
        from tolcompatible import Model
        things, shapes, persons = json.load(sys.stdin)
        frame = np.zeros((64, 64, 3), np.uint8)
        plain = Model(**things)(frame)
        with_features = Model(**persons)(frame, plain).to_supervision()
        assert with_features["feature"].shape == (2, 256) and with_features.mask is None
        assert "xyxyxyxy" not in plain.to_supervision().data
        masks = Model(**shapes, modelName="YOLO8-Seg", modelFile="outline")(frame).to_supervision()
        assert masks.mask.shape == (1, 64, 64) and masks.mask[0, 24, 24] and not masks.mask[0, 2, 2]
        turned = Model(**shapes, modelName="YOLO8-OBB", modelFile="turned")(frame).to_supervision()
        assert turned["xyxyxyxy"].shape == (1, 4, 2)
        assert len(plain[[]].to_supervision()) == 0
        """
    done = subprocess.run(
        [PYTHON, "-c", "import textwrap; exec(textwrap.dedent('''" + script + "'''))"],
        text=True,
        input=json.dumps([THINGS, SHAPES, PERSONS], default=str),
        capture_output=True,
        env={**os.environ, "MPLCONFIGDIR": str(tmp_path)},
    )
    assert done.returncode == 0, done.stderr
