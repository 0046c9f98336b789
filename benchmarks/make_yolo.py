"""Writes the detector of Networks.cpp, about YOLOv8n at 640 x 640 by its cost, as the ONNX file that is its argument."""

import pathlib
import sys

import numpy
import onnx
from onnx import TensorProto, helper, numpy_helper

random = numpy.random.default_rng(1)
nodes, constants = [], []


def constant(array):
    constants.append(numpy_helper.from_array(array, f"c{len(constants)}"))
    return constants[-1].name


def node(kind, *inputs, **attributes):
    nodes.append(helper.make_node(kind, inputs, [f"n{len(nodes)}"], **attributes))
    return nodes[-1].output[0]


def weighted(x, channels, out, kernel, stride):
    weights = random.uniform(-0.05, 0.05, (out, channels, kernel, kernel)).astype(numpy.float32)
    return node("Conv", x, constant(weights), strides=[stride] * 2, pads=[kernel // 2] * 4)


def convolved(x, channels, out, stride):
    x = weighted(x, channels, out, 3, stride)
    return node("Mul", x, node("Sigmoid", x))


def repeated(x, channels, times):
    for _ in range(times):
        x = convolved(x, channels, channels, 1)
    return x


def head(x, channels):
    logits = weighted(convolved(x, channels, 64, 1), 64, 84, 1, 1)
    scores = node("Sigmoid", node("Sub", logits, constant(numpy.float32([9]))))
    return node("Reshape", scores, constant(numpy.int64([1, 84, -1])))


x = repeated(convolved(convolved("images", 3, 16, 2), 16, 32, 2), 32, 2)
fine = repeated(convolved(x, 32, 64, 2), 64, 4)
middle = repeated(convolved(fine, 64, 128, 2), 128, 4)
coarse = repeated(convolved(middle, 128, 256, 2), 256, 2)
nodes.append(helper.make_node("Concat", [head(fine, 64), head(middle, 128), head(coarse, 256)], ["out"], axis=2))
graph = helper.make_graph(
    nodes, "yolo",
    [helper.make_tensor_value_info("images", TensorProto.FLOAT, [1, 3, 640, 640])],
    [helper.make_tensor_value_info("out", TensorProto.FLOAT, [1, 84, 8400])], constants)
onnx.save(helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)], ir_version=8), pathlib.Path(sys.argv[1]))
