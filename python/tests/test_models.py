"""Models: opening, running, results as arrays, errors."""

import gc
import logging
import pickle
import re
import sys

import numpy as np
import pytest

import tolcompatible
from conftest import LABELS, ONNX, PERSONS, READER, SHAPES, THINGS
from tolcompatible import Model

ENGINES = pytest.mark.parametrize("fields", [THINGS, ONNX], ids=["OpenVINO", "ONNXRuntime"])


@ENGINES
def test_arrays_of_a_detector(fields, frame):
    with Model(**fields) as model:
        result = model(frame)
    order = np.argsort(result.class_ids)
    expected = {
        "boxes": ([[8, 4, 40, 28], [30, 10, 50, 44]], np.int32),
        "scores": ([0.75, 0.875], np.float32),
        "class_ids": ([0, 1], np.int32),
        "class_names": (["car", "person"], object),
        "angles": ([np.nan] * 2, np.float32),
        "key_points": (np.zeros((2, 0, 2)), np.float32),
        "label_ids": ([-1, -1], np.int32),
        "label_names": ([None] * 2, object),
        "label_scores": ([np.nan] * 2, np.float32),
        "texts": ([None] * 2, object),
        "features": (np.zeros((2, 0)), np.float32),
    }
    for name, (values, dtype) in expected.items():
        array = getattr(result, name)
        assert array.dtype == dtype, name
        np.testing.assert_array_equal(array[order], values, name)
    assert result.corners[order][0].tolist() == [[8, 4], [40, 4], [40, 28], [8, 28]]
    assert [outline.shape for outline in result.outlines] == [(0, 2)] * 2
    assert (len(result), result.width, result.height) == (2, 64, 64)
    assert result.boxes is result.boxes


def test_shapes(frame):
    result = Model(**SHAPES, modelName="YOLO8-OBB", modelFile="turned")(frame)
    assert result.angles.tolist() == [0.5]
    assert result.boxes.tolist() == [[8, 16, 40, 32]]
    cosine, sine = np.cos(0.5), np.sin(0.5)
    corners = [
        (24 + x * cosine - y * sine, 24 + x * sine + y * cosine)
        for x, y in ((-16, -8), (16, -8), (16, 8), (-16, 8))
    ]
    np.testing.assert_allclose(result.corners[0], corners, atol=1e-5)
    pose = Model(**SHAPES, classCount=3, modelName="YOLO8-POSE", modelFile="points")(frame)
    assert pose.key_points.tolist() == [[[10, 20], [30, 20], [20, 28]]]
    outline = Model(**SHAPES, modelName="YOLO8-Seg", modelFile="outline")(frame).outlines[0]
    assert outline.dtype == np.int32 and outline.min(0).tolist() == [8, 16]
    one = pose[0]
    assert one.key_points.shape == (3, 2) and one.angle is None and one.outline is None


def test_chain_of_models(things, frame):
    found = things(frame)
    with Model(**PERSONS) as persons, Model(**LABELS) as labels, Model(**READER) as reader:
        result = reader(frame, labels(frame, persons(frame, found)))
    assert result.features.shape == (2, 256) and result.features.dtype == np.float32
    assert result.features[:, :3].all() and not result.features[:, 3:].any()  # means of the colours
    assert result.label_names.tolist() == ["blue", "blue"] and result.label_ids.tolist() == [1, 1]
    np.testing.assert_allclose(result.label_scores, 0.75)
    assert result.texts.tolist() == ["七A七"] * 2
    assert found.features.shape == (2, 0)  # not changed
    again = things(frame, found)
    assert len(again) == 4


def test_subsets_and_objects(things, frame):
    result = things(frame)
    car = result[result.class_names == "car"]
    assert car.boxes.tolist() == [[8, 4, 40, 28]]
    assert len(result[[]]) == 0 and len(result[:1]) == 1 and len(result[[1, 0]]) == 2
    names = {found.class_name: found for found in result}
    assert names["person"].score == 0.875 and names["person"].box.tolist() == [30, 10, 50, 44]
    assert names["person"].text is None and names["person"].feature is None
    with pytest.raises(IndexError):
        result[2]
    with Model(**PERSONS) as persons:
        assert persons(frame, car).features.shape == (1, 256)


def test_boxes_of_another_detector(frame):
    result = tolcompatible.Result.from_boxes(
        frame, [[-3, 2.9, 20, 100]], scores=[0.5], class_names=["dog"]
    )
    assert result.boxes.tolist() == [[0, 2, 20, 64]]
    assert (result.scores[0], result.class_names[0]) == (0.5, "dog")
    with Model(**PERSONS) as persons:
        assert persons(frame, result).features.shape == (1, 256)
        outside = tolcompatible.Result.from_boxes(frame, [[70, 70, 90, 90]])
        assert len(persons(frame, outside)) == 0  # as in vsa
        assert len(persons(frame, result)) == 1
    for boxes in ([[np.nan] * 4], [[0, 0, 1e12, 1]], [[0, 0, 1]]):
        with pytest.raises(ValueError):
            tolcompatible.Result.from_boxes(frame, boxes)
    for wrong in ([[1, 2]], frame[0, 0, 0], frame[:0]):
        with pytest.raises((TypeError, ValueError), match="frame"):
            tolcompatible.Result.from_boxes(wrong, [[0, 0, 1, 1]])
    for values in (
        {"scores": [1, 2]},
        {"scores": 1},
        {"class_ids": [[1]]},
        {"class_names": []},
        {"scores": [float("nan")]},
        {"scores": [1e300]},
        {"class_ids": np.array([2**40])},
        {"class_ids": [2**40]},
    ):
        with pytest.raises(ValueError):
            tolcompatible.Result.from_boxes(frame, [[0, 0, 1, 1]], **values)


def test_pickled_results_are_equal(things, frame):
    with Model(**PERSONS) as persons:
        result = persons(frame, things(frame))
    copy = pickle.loads(pickle.dumps(result))
    assert copy.to_dict() == result.to_dict()
    np.testing.assert_array_equal(copy.features, result.features)


def test_contiguous_frames_are_not_copied_and_others_are_accepted(things, frame):
    wide = np.zeros((64, 128, 3), np.uint8)
    wide.flags.writeable = False
    assert len(things(wide)) == 2
    for view in (wide[:, 32:96], wide[::-1], wide[:, :, ::-1], np.asfortranarray(wide)):
        assert things(view).width == view.shape[1]
    big = np.zeros((8000, 8000, 3), np.uint8)
    before = peak_memory()
    things(big)
    assert peak_memory() - before < big.nbytes // 4


def peak_memory():
    with open("/proc/self/status") as status:
        return int(re.search(r"VmHWM:\s+(\d+)", status.read())[1]) << 10


def test_wrong_frames(things, frame):
    wrong = [
        (None, TypeError),
        ([[1]], TypeError),
        (frame.astype(np.float32), TypeError),
        (frame.view(np.int8), TypeError),
        (frame[0], ValueError),
        (frame[..., :1], ValueError),
        (frame[..., 0], ValueError),
        (frame[:0], ValueError),
        (np.zeros((4, 4, 4), np.uint8), ValueError),
        (np.broadcast_to(np.zeros((1, 1, 3), np.uint8), (1, 1 << 31, 3)), ValueError),
    ]
    for value, kind in wrong:
        with pytest.raises(kind, match="frame"):
            things(value)
    with pytest.raises(TypeError, match="Result"):
        things(frame, [1])
    with pytest.raises(ValueError, match="64 x 64"):
        things(np.zeros((8, 8, 3), np.uint8), things(frame))
    with pytest.raises(TypeError, match="images"):
        things.classify_audio(np.zeros(9, np.int16), 16000)
    for arguments in ((), (1,), (frame, None, 3), ("x", frame)):
        with pytest.raises(TypeError):
            things._models[0].run_on_image(*arguments)


def test_wrong_arguments_name_the_field():
    cases = {
        'unknown key "scoreTreshold"; did you mean': {"scoreTreshold": 0.5},
        "category must be": {"category": "detect"},
        "inputWidth must be": {"inputWidth": -1},
        "there is no model file": {"modelFile": "none"},
        "classNames must not be empty": {"classNames": []},
        "the library has no": {"modelName": "YOLO7"},
        "float": {"scoreThreshold": float("nan")},
        "surrogates": {"modelFile": "\ud800"},
    }
    for message, fields in cases.items():
        with pytest.raises(tolcompatible.Error, match="^Model: .*" + re.escape(message)):
            Model(**{**THINGS, **fields})
    with pytest.raises(TypeError, match="argument of Model"):
        Model(**{**THINGS, "device": object()})
    assert issubclass(tolcompatible.PipelineError, ValueError)


def test_arguments_may_be_paths_and_numbers_of_numpy(tmp_path, frame):
    names = tmp_path / "names.txt"
    names.write_text("car\nperson\n")
    with Model(
        **{
            **THINGS,
            "classNames": names,
            "inputWidth": np.int64(64),
            "scoreThreshold": np.float32(0.8),
            "wantedClasses": {"person"},
        }
    ) as model:
        assert model(frame).class_names.tolist() == ["person"]
        assert model.class_names == ["car", "person"]


def test_errors_carry_the_line_of_the_library_and_the_message_of_the_engine(
    tmp_path, frame, caplog, capfd
):
    with Model(
        **{**THINGS, "modelFile": "nothing", "modelName": "YOLO8", "nmsThreshold": 0.5}
    ) as model:
        with (
            caplog.at_level(logging.INFO, "tolcompatible"),
            pytest.raises(tolcompatible.Error, match=r"^Model: \[E\]") as caught,
        ):
            model(frame)
    line = next(record for record in caplog.records if record.levelno == logging.ERROR)
    assert line.message in str(caught.value)
    assert line.pathname.startswith("Core/OpenVINO/") and line.lineno > 0
    assert capfd.readouterr().err == ""
    (tmp_path / "broken.xml").write_text("<net")
    with pytest.raises(tolcompatible.Error, match="cannot be loaded"):
        Model(**{**THINGS, "modelRoot": tmp_path, "modelFile": "broken"})
    with pytest.raises(tolcompatible.Error, match="NOWHERE"):
        Model(**{**THINGS, "device": "NOWHERE"})


def test_log_lines_go_to_logging(caplog):
    with caplog.at_level(logging.INFO, "tolcompatible"):
        Model(**THINGS).close()
    texts = [record.message for record in caplog.records]
    assert any("OvDetectYolo26()" in text for text in texts) and any(
        "~OvDetectYolo26()" in text for text in texts
    )
    assert {record.levelno for record in caplog.records} == {logging.INFO}


def test_closed_models(frame):
    model = Model(**THINGS)
    assert not model.closed
    with model:
        result = model(frame)
    assert model.closed
    model.close()
    with pytest.raises(tolcompatible.Error, match="^Model: the model is closed$"):
        model(frame)
    boxes = result.boxes
    del model, result
    gc.collect()
    assert boxes.shape == (2, 4)


def test_devices():
    assert {"OpenVINO-CPU", "ONNXRuntime-CPU"} <= set(tolcompatible.devices())


def test_memory_and_references_stay_flat_over_10000_calls(things, frame):
    def work(count):
        for _ in range(count):
            result = things(frame)
            result.boxes, result.class_names, result.scores, result.corners, result.features
            for found in result:
                found.box
            result.to_dict()

    def memory():
        gc.collect()
        with open("/proc/self/statm") as file:
            return int(file.read().split()[1]) * 4096

    work(1000)
    before, references, blocks = memory(), sys.getrefcount(frame), sys.getallocatedblocks()
    work(10000)
    assert sys.getrefcount(frame) == references
    assert abs(sys.getallocatedblocks() - blocks) < 200
    assert memory() - before < 2 << 20
