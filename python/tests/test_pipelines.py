"""Pipeline files, and results that are equal to those of vsa."""

import json
import os
import re
import threading
import time

import jsonschema
import numpy as np
import PIL.Image
import pytest

import tolcompatible
from conftest import LABELS, MODELS, ONNX, PERSONS, READER, ROOT, SHAPES, THINGS, run_vsa
from tolcompatible import Pipeline

SCHEMA = jsonschema.Draft202012Validator(
    json.loads((ROOT / "docs/vsa-output.schema.json").read_text("utf-8"))
)
SHAPED = [
    {**SHAPES, "modelName": name, "modelFile": file, **more}
    for name, file, more in (
        ("YOLO8-OBB", "turned", {}),
        ("YOLO8-POSE", "points", {"classCount": 3}),
        ("YOLO8-Seg", "outline", {}),
    )
]


def write_ppm(path, image):
    """A file that vsa reads as exactly these pixels."""
    height, width, _ = image.shape
    path.write_bytes(b"P6 %d %d 255\n" % (width, height) + image[..., ::-1].tobytes())
    return path


@pytest.mark.parametrize(
    "models",
    [
        [THINGS],
        [ONNX],
        [THINGS, PERSONS, LABELS],
        [THINGS, READER],
        *([m] for m in SHAPED),
        [{**THINGS, "wantedClasses": []}],
    ],
)
def test_results_are_those_of_vsa(models, write_pipeline, tmp_path):
    path = write_pipeline(*models)
    frame = np.random.default_rng(1).integers(0, 256, (60, 90, 3), np.uint8)
    image = write_ppm(tmp_path / "image.ppm", frame)
    (expected,) = run_vsa(path, image)
    with Pipeline(path) as pipeline:
        result = pipeline(frame)
    assert result.to_json(image) == expected
    assert result.to_dict(image) == json.loads(expected)
    SCHEMA.validate(result.to_dict())
    SCHEMA.validate(result.to_dict("video.mp4", 3, 0.12))


@pytest.mark.skipif(
    not (MODELS / "text/recognition.xml").is_file(), reason="the text models are not installed"
)
def test_text_is_decoded_and_equal_to_that_of_vsa(tmp_path):
    common = {
        "modelName": "PaddleOCR",
        "modelDir": "text",
        "engine": "OpenVINO",
        "modelRoot": str(MODELS),
    }
    path = tmp_path / "text.json"
    path.write_text(
        json.dumps(
            {
                "models": [
                    {
                        **common,
                        "category": "Detect",
                        "modelFile": "detection",
                        "classNames": ["text"],
                    },
                    {
                        **common,
                        "category": "Track",
                        "modelFile": "recognition",
                        "classNames": ["paddleocr"],
                    },
                ]
            }
        )
    )
    pixels = np.array(PIL.Image.open(ROOT / "examples/pictures/sign.png").convert("RGB"))[
        ..., ::-1
    ]
    with Pipeline(path) as pipeline:
        result = pipeline(pixels)
    image = write_ppm(tmp_path / "sign.ppm", pixels)
    assert result.to_json(image) == run_vsa(path, image)[0]
    assert len(result) > 1 and all(isinstance(text, str) for text in result.texts)
    assert any(ord(character) > 0x4E00 for text in result.texts for character in text)
    assert (
        result.corners[:, 0].astype(int)
        == [found["corners"][0] for found in result.to_dict()["objects"]]
    ).all()
    assert (result.boxes[:, :2] <= result.corners.min(1)).all() and (
        result.boxes[:, 2:] >= result.corners.max(1)
    ).all()


def test_errors_are_those_of_vsa(write_pipeline, tmp_path):
    path = write_pipeline({**THINGS, "category": "Detcet"})
    with pytest.raises(
        tolcompatible.PipelineError,
        match=re.escape(f'{path}: models[0]: category must be "Detect"'),
    ):
        Pipeline(path)
    with pytest.raises(tolcompatible.PipelineError, match="no such file"):
        Pipeline(tmp_path / "none.json")
    with pytest.raises(tolcompatible.PipelineError, match="not a path"):
        Pipeline(f"{path}\0")
    failing = write_pipeline(THINGS, {**LABELS, "modelFile": "zeros"})
    with (
        Pipeline(failing) as pipeline,
        pytest.raises(tolcompatible.Error, match=r"models\[1\].*\[E\]"),
    ):
        pipeline(np.zeros((64, 64, 3), np.uint8))


def test_pipe_that_another_thread_writes_is_read(write_pipeline):
    content = write_pipeline(THINGS).read_bytes()
    reader, writer = os.pipe()

    def write():
        time.sleep(0.2)
        os.write(writer, content)
        os.close(writer)

    thread = threading.Thread(target=write)
    thread.start()
    Pipeline(f"/dev/fd/{reader}").close()
    thread.join()
    os.close(reader)


def test_example_pipelines_are_read():
    for path in sorted((ROOT / "examples/pipelines").glob("*.json")):
        try:
            Pipeline(path).close()
        except tolcompatible.PipelineError as error:
            assert "there is no model file" in str(error)


def test_names_and_closing(write_pipeline, tmp_path):
    path = write_pipeline(THINGS, PERSONS)
    os.rename(path, tmp_path / "näme\udcff.json")
    with Pipeline(tmp_path / "näme\udcff.json") as pipeline:
        assert pipeline.class_names == [["car", "person"], ["x"]]
        assert not pipeline.takes_audio and pipeline.block_seconds == 1.0 and not pipeline.closed
    assert pipeline.closed
