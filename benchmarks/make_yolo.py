"""Writes YOLOv8n at 640 x 640 with random weights, which detects nothing, as an ONNX file (the argument) and as OpenVINO
IR in the same folder. Layers, sizes and order are those of the published network."""

import math
import pathlib
import sys

import numpy
import onnx
import openvino
from onnx import TensorProto, helper, numpy_helper

CLASSES = 80
BINS = 16  # per side of a box
random = numpy.random.default_rng(1)
nodes, constants = [], []


def constant(values, kind=numpy.float32):
    constants.append(numpy_helper.from_array(numpy.asarray(values, kind), f"c{len(constants)}"))
    return constants[-1].name


def node(kind, *inputs, outputs=1, **attributes):
    names = [f"n{len(nodes)}_{i}" for i in range(outputs)]
    nodes.append(helper.make_node(kind, inputs, names, **attributes))
    return names[0] if outputs == 1 else names


def reshape(x, *shape):
    return node("Reshape", x, constant(shape, numpy.int64))


def concat(parts, axis=1):
    return node("Concat", *parts, axis=axis)


def split_half(x, channels):
    return node("Split", x, constant([channels // 2] * 2, numpy.int64), outputs=2, axis=1)


def convolution(x, channels, out, kernel=1, stride=1, bias=0.0):
    limit = math.sqrt(6 / (channels * kernel * kernel))
    weights = random.uniform(-limit, limit, (out, channels, kernel, kernel))
    return node("Conv", x, constant(weights), constant(numpy.full(out, bias)), strides=[stride] * 2,
                pads=[kernel // 2] * 4)


def layer(*arguments):
    x = convolution(*arguments)
    return node("Mul", x, node("Sigmoid", x))


def block(x, channels, out, times, is_residual):
    """A cross-stage block: half of the channels go through pairs of convolutions, then all results are concatenated."""
    half = out // 2
    parts = split_half(layer(x, channels, out), out)
    for _ in range(times):
        y = layer(layer(parts[-1], half, half, 3), half, half, 3)
        parts.append(node("Add", parts[-1], y) if is_residual else y)
    return layer(concat(parts), (2 + times) * half, out)


def pyramid_pooling(x):
    """Three successive poolings, concatenated."""
    parts = [layer(x, 256, 128)]
    for _ in range(3):
        parts.append(node("MaxPool", parts[-1], kernel_shape=[5, 5], pads=[2] * 4))
    return layer(concat(parts), 512, 256)


def upsample(x):
    return node("Resize", x, "", constant([1, 1, 2, 2]), mode="nearest", coordinate_transformation_mode="asymmetric",
                nearest_mode="floor")


def head(x, channels):
    sides = convolution(layer(layer(x, channels, 64, 3), 64, 64, 3), 64, 4 * BINS)
    scores = layer(layer(x, channels, CLASSES, 3), CLASSES, CLASSES, 3)
    scores = convolution(scores, CLASSES, CLASSES, 1, 1, -11.0)  # keeps all scores low
    return reshape(concat([sides, scores]), 1, 4 * BINS + CLASSES, -1)


def boxes(sides):
    """Decodes boxes to centre and size; the distance of a cell from each side is a weighted mean over bins."""
    grids = [numpy.stack(numpy.meshgrid(*[numpy.arange(640 // stride) + 0.5] * 2)).reshape(2, -1) for stride in (8, 16, 32)]
    centres = constant(numpy.concatenate(grids, 1)[None])
    strides = constant(numpy.concatenate([numpy.full(grid.shape[1], stride) for grid, stride in zip(grids, (8, 16, 32))]))
    weights = node("Softmax", node("Transpose", reshape(sides, 1, 4, BINS, -1), perm=[0, 2, 1, 3]), axis=1)
    means = node("Conv", weights, constant(numpy.arange(BINS).reshape(1, BINS, 1, 1)))
    near, far = split_half(reshape(means, 1, 4, -1), 4)
    low, high = node("Sub", centres, near), node("Add", centres, far)
    middle = node("Mul", node("Add", low, high), constant(0.5))
    return node("Mul", concat([middle, node("Sub", high, low)]), strides)


x = layer(layer("images", 3, 16, 3, 2), 16, 32, 3, 2)
x = layer(block(x, 32, 32, 1, True), 32, 64, 3, 2)
fine = block(x, 64, 64, 2, True)
middle = block(layer(fine, 64, 128, 3, 2), 128, 128, 2, True)
coarse = pyramid_pooling(block(layer(middle, 128, 256, 3, 2), 256, 256, 1, True))
middle = block(concat([upsample(coarse), middle]), 384, 128, 1, False)
fine = block(concat([upsample(middle), fine]), 192, 64, 1, False)
middle = block(concat([layer(fine, 64, 64, 3, 2), middle]), 192, 128, 1, False)
coarse = block(concat([layer(middle, 128, 128, 3, 2), coarse]), 384, 256, 1, False)
heads = concat([head(fine, 64), head(middle, 128), head(coarse, 256)], 2)
sides, scores = node("Split", heads, constant([4 * BINS, CLASSES], numpy.int64), outputs=2, axis=1)
nodes.append(helper.make_node("Concat", [boxes(sides), node("Sigmoid", scores)], ["out"], axis=1))

graph = helper.make_graph(
    nodes, "yolo",
    [helper.make_tensor_value_info("images", TensorProto.FLOAT, [1, 3, 640, 640])],
    [helper.make_tensor_value_info("out", TensorProto.FLOAT, [1, 4 + CLASSES, 8400])], constants)
path = pathlib.Path(sys.argv[1])
onnx.save(helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)], ir_version=8), path)
openvino.save_model(openvino.convert_model(path), path.with_suffix(".xml"), compress_to_fp16=False)
