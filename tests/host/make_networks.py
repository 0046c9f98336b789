"""Writes tiny networks for the tests of the host, in OpenVINO's format and some in ONNX too: make_networks.py FOLDER.

Inputs are [1, 3, height, width] floats. What a network answers hardly depends on its input, so that the tests can tell
what is to come out.
"""

import pathlib
import sys

import numpy
import onnx
import openvino
from openvino import opset13 as op


def save(name, height, width, output):
    picture = op.parameter([1, 3, height, width], numpy.float32)
    model = openvino.Model([output(picture)], [picture], name)
    openvino.save_model(model, folder / f"{name}.xml", compress_to_fp16=False)


def mean(picture, axes):
    return op.reduce_mean(picture, op.constant(numpy.array(axes)), keep_dims=False)


def colour(length):
    """The mean of each colour channel, then zeros up to a feature's length."""
    return lambda picture: op.pad(mean(picture, [2, 3]), op.constant([0, 0]), op.constant([0, length - 3]), "constant",
                                  op.constant(numpy.float32(0)))


def pitch(spectrum):
    """How loud the lower and the upper half of the mel bands are, above -100 dB."""
    rows = op.split(mean(spectrum, [1, 3]), op.constant(1), 2)
    return op.concat([op.add(mean(rows.output(i), [1]), op.constant(numpy.float32(100))) for i in range(2)], 0)


folder = pathlib.Path(sys.argv[1])
folder.mkdir(parents=True, exist_ok=True)
save("feature256", 32, 16, colour(256))
save("feature128", 16, 16, colour(128))
save("pitch", 16, 20, pitch)


def detector(name, side, *outputs, height=None, batch=1, **metadata):
    """A network in both formats that answers with the same tables (arrays, or shapes of zeros), and what it says of
    itself."""
    arrays = [numpy.zeros(output, numpy.float32) if isinstance(output, tuple) else numpy.array(output, numpy.float32)
              for output in outputs]
    graph = onnx.helper.make_graph(
        [onnx.helper.make_node("Identity", [f"answer{i}"], [f"out{i}"]) for i in range(len(arrays))], name,
        [onnx.helper.make_tensor_value_info("images", onnx.TensorProto.FLOAT, [batch, 3, height or side, side])],
        [onnx.helper.make_tensor_value_info(f"out{i}", onnx.TensorProto.FLOAT, a.shape) for i, a in enumerate(arrays)],
        [onnx.numpy_helper.from_array(array, f"answer{i}") for i, array in enumerate(arrays)])
    model = onnx.helper.make_model(graph, opset_imports=[onnx.helper.make_opsetid("", 13)], ir_version=8)
    onnx.helper.set_model_props(model, metadata)
    onnx.save(model, folder / f"{name}.onnx")
    openvino.save_model(openvino.convert_model(folder / f"{name}.onnx"), folder / f"{name}.xml",
                        compress_to_fp16=False)


def names(count):
    return str({i: f"thing {i}" for i in range(count)})


# A car and a better person, in pixels of a 64 x 64 input; rows of zeros are no detections.
detector("things", 64, [[[8, 4, 40, 28, 0.75, 0], [30, 10, 50, 44, 0.875, 1], [0] * 6]])
detector("nothing", 64, (1, 2, 6))
# One thing each, 32 x 16 pixels about (24, 24): turned; with 3 key points; with an outline that fills its box.
box = [24, 24, 32, 16]
detector("turned", 64, [[[value] for value in box + [0.75, 0, 0.5]]])
detector("points", 64, [[[value] for value in box + [0.75, 10, 20, 1, 30, 20, 1, 20, 28, 1]]])
detector("outline", 64, [[[value] for value in box + [0.75, 0] + [1] * 32]], numpy.ones([1, 32, 16, 16]))
detector("label", 32, [[1, 3, 0]])
detector("zeros", 16, (1, 256), height=32)
# A table of 6 time steps and 8 classes that reads "77-A-7", class 0 being the blank.
detector("plate", 32, [numpy.eye(8)[[1, 1, 0, 2, 0, 1]]], height=16)
detector("detect", 64, (1, 84, 100), task="detect", names=names(80), imgsz="[64, 64]", stride="32")
detector("bare", 64, (1, 84, 100))
detector("obb", 64, (1, 20, 100), task="obb", names=names(15))
detector("pose", 64, (1, 56, 100), task="pose", names="{0: 'person'}", kpt_shape="[17, 3]")
detector("seg", 64, (1, 116, 200), (1, 32, 16, 16), task="segment", names=names(80))
detector("anchors", 64, (1, 100, 85), task="detect", names=names(80))
detector("end2end", 64, (1, 300, 6), task="detect", names=names(80))
detector("flat", 64, (1, 6, 100), height=32)
detector("batch", 64, (4, 6, 100), batch=4)
detector("one", 64, [[[32], [32], [20], [20], [0.875]]])
detector("two", 64, [[[32], [32], [26], [20], [0.5]]])
# At the sizes of the pipelines that come along: a person in the middle, and ones.
person = numpy.zeros((1, 84, 8400))
person[0, :5, 0] = 320, 320, 200, 200, 0.9
detector("person640", 640, person)
detector("ones256", 128, numpy.ones((1, 256)), height=256)
detector("ones4", 100, numpy.ones((1, 4)), height=128)
detector("ones7", 224, numpy.ones((1, 7)))
