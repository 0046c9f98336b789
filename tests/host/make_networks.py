"""Writes tiny networks for the tests of the host: make_networks.py FOLDER.

They are in OpenVINO's format, most in ONNX too. Inputs are [1, 3, height, width] floats. Outputs
hardly depend on the input, so that the tests know the results.
"""

import pathlib
import sys

import numpy
import onnx
import openvino
from openvino import opset13 as op

FOLDER = pathlib.Path(sys.argv[1])


def save_model(name, height, width, output_of):
    image = op.parameter([1, 3, height, width], numpy.float32)
    model = openvino.Model([output_of(image)], [image], name)
    openvino.save_model(model, FOLDER / f"{name}.xml", compress_to_fp16=False)


def mean(image, axes):
    return op.reduce_mean(image, op.constant(numpy.array(axes)), keep_dims=False)


def save_feature(length, height):
    """The mean of each colour channel, padded with zeros."""
    zero = op.constant(numpy.float32(0))
    padding = (op.constant([0, 0]), op.constant([0, length - 3]))
    save_model(f"feature{length}", height, 16,
               lambda image: op.pad(mean(image, [2, 3]), *padding, "constant", zero))


def loudness(spectrum):
    """The mean of the lower and of the upper half of the mel bands, above -100 dB."""
    halves = op.split(mean(spectrum, [1, 3]), op.constant(1), 2)
    floor = op.constant(numpy.float32(100))
    return op.concat([op.add(mean(halves.output(i), [1]), floor) for i in range(2)], 0)


def save_constant(name, side, *outputs, height=None, batch=1, **metadata):
    """A network in both formats with constant outputs (arrays, or shapes of zeros)."""
    arrays = [numpy.zeros(output) if isinstance(output, tuple) else numpy.array(output)
              for output in outputs]
    arrays = [array.astype(numpy.float32) for array in arrays]
    floats = onnx.TensorProto.FLOAT
    info = onnx.helper.make_tensor_value_info
    indices = range(len(arrays))
    graph = onnx.helper.make_graph(
        [onnx.helper.make_node("Identity", [f"value{i}"], [f"out{i}"]) for i in indices], name,
        [info("images", floats, [batch, 3, height or side, side])],
        [info(f"out{i}", floats, arrays[i].shape) for i in indices],
        [onnx.numpy_helper.from_array(arrays[i], f"value{i}") for i in indices])
    model = onnx.helper.make_model(graph, opset_imports=[onnx.helper.make_opsetid("", 13)],
                                   ir_version=8)
    onnx.helper.set_model_props(model, metadata)
    onnx.save(model, FOLDER / f"{name}.onnx")
    openvino.save_model(openvino.convert_model(FOLDER / f"{name}.onnx"), FOLDER / f"{name}.xml",
                        compress_to_fp16=False)


def columns(*values):
    """One candidate in an output of one column per candidate."""
    return [[[value] for value in values]]


def names(count):
    return str({i: f"thing {i}" for i in range(count)})


FOLDER.mkdir(parents=True, exist_ok=True)
save_feature(256, height=32)
save_feature(128, height=16)
save_model("pitch", 16, 20, loudness)
# A car and a person with a higher score, in pixels of 64 x 64; rows of zeros are not detections.
save_constant("things", 64,
              [[[8, 4, 40, 28, 0.75, 0], [30, 10, 50, 44, 0.875, 1], [0] * 6]])
save_constant("nothing", 64, (1, 2, 6))
# A car, a person whose bottom is above its top, and a person in the padding of a wide image.
save_constant("empty", 64,
              [[[8, 4, 40, 28, 0.75, 0], [30, 44, 50, 10, 0.875, 1], [30, 40, 50, 60, 0.625, 1]]])
save_constant("beyond", 64, [[[0, 0, 1e30, 1e30, 0.75, 0]]])
# One object of 32 x 16 pixels around (24, 24): rotated; with 3 key points; with a full mask.
BOX = (24, 24, 32, 16, 0.75)
save_constant("turned", 64, columns(*BOX, 0, 0.5))
save_constant("points", 64, columns(*BOX, 10, 20, 1, 30, 20, 1, 20, 28, 1))
save_constant("outline", 64, columns(*BOX, 0, *[1] * 32), numpy.ones([1, 32, 16, 16]))
save_constant("label", 32, [[1, 3, 0]])
save_constant("zeros", 16, (1, 256), height=32)
# The scores of 8 classes at 6 time steps, which read "77-A-7"; class 0 is the CTC blank.
save_constant("plate", 32, [numpy.eye(8)[[1, 1, 0, 2, 0, 1]]], height=16)
save_constant("detect", 64, (1, 84, 100), task="detect", names=names(80), imgsz="[64, 64]",
              stride="32")
save_constant("bare", 64, (1, 84, 100))
save_constant("obb", 64, (1, 20, 100), task="obb", names=names(15))
save_constant("pose", 64, (1, 56, 100), task="pose", names="{0: 'person'}", kpt_shape="[17, 3]")
save_constant("seg", 64, (1, 116, 200), (1, 32, 16, 16), task="segment", names=names(80))
save_constant("anchors", 64, (1, 100, 85), task="detect", names=names(80))
save_constant("end2end", 64, (1, 300, 6), task="detect", names=names(80))
save_constant("flat", 64, (1, 6, 100), height=32)
save_constant("batch", 64, (4, 6, 100), batch=4)
save_constant("one", 64, columns(32, 32, 20, 20, 0.875), task="detect", names="{0: 'cat'}")
# A box without height, and a score that is not finite.
save_constant("thin", 64, [numpy.array([[32, 32, 20, 0, 0.875], [48, 16, 9, 9, numpy.inf]]).T])
save_constant("line", 32, [numpy.eye(8)[[1, 1, 0, 2, 0, 1]]], height=16)
save_constant("two", 64, columns(32, 32, 26, 20, 0.5))
# In the input sizes of the example pipelines: a person in the middle, and ones.
person = numpy.zeros((1, 84, 8400))
person[0, :5, 0] = 320, 320, 200, 200, 0.9
save_constant("person640", 640, person, task="detect", names=names(80))
save_constant("ones256", 128, numpy.ones((1, 256)), height=256)
save_constant("ones4", 100, numpy.ones((1, 4)), height=128)
save_constant("ones7", 224, numpy.ones((1, 7)))
