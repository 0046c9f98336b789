"""Writes the ONNX files of the tests into the folder that is its argument."""

import pathlib
import sys

import numpy
import onnx
import openvino
from onnx import TensorProto, helper, numpy_helper

folder = pathlib.Path(sys.argv[1])
folder.mkdir(parents=True, exist_ok=True)


def write(name, inputs, outputs, nodes, constants=()):
    """Writes a file; inputs and outputs map names to dimensions or (dimensions, element type)."""

    def values(tensors):
        for value, dimensions in tensors.items():
            kind = TensorProto.FLOAT
            if isinstance(dimensions, tuple):
                dimensions, kind = dimensions
            yield helper.make_tensor_value_info(value, kind, dimensions)

    graph = helper.make_graph(
        nodes, name, list(values(inputs)), list(values(outputs)),
        [numpy_helper.from_array(numpy.asarray(array), key) for key, array in constants])
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)], ir_version=8)
    onnx.save(model, folder / f"{name}.onnx")


def constant(name, values, dimensions=None, inputs=None):
    """A network that returns the same numbers for every image; dimensions: the declared ones."""
    array = numpy.asarray(values, numpy.float32)
    inputs = {"images": [1, 3, 64, 64]} if inputs is None else inputs
    dimensions = list(array.shape) if dimensions is None else dimensions
    nodes = [helper.make_node("Identity", ["answer"], ["out"])]
    write(name, inputs, {"out": dimensions}, nodes, [("answer", array)])


# Two classes; columns of YOLOv8, rows of YOLOv5 (with an objectness) and of YOLO26 (corners, score,
# class).
boxes = [[32, 32, 20, 20], [33, 32, 20, 20], [8, 8, 4, 4]]
scores = [[0.5, 0], [0, 0.75], [0.25, 0.3]]
yolo8 = numpy.array([box + score for box, score in zip(boxes, scores)])
constant("yolo8", yolo8.T[None])
objectness = [0.9, 0.6, 0.5]
yolo5 = numpy.array([box + [o] + score for box, o, score in zip(boxes, objectness, scores)])
constant("yolo5", yolo5[None])
yolo26 = [[22, 22, 42, 42, 0.5, 0], [22, 22, 42, 42, 0.5, 0.9], [1, 2, 3, 4, 0.6, 2],
          [-5, -5, 80, 80, 0.7, 1]]
constant("yolo26", [yolo26])
constant("yolo26_short", numpy.ones((1, 2, 5)))

# A candidate of each family that is far outside the range of an int.
far = [1e30, 1, 2, 2]
constant("yolo8_far", numpy.array([far + [0.5, 0]]).T[None])
constant("yolo5_far", [[far + [0.9, 0.5, 0]]])
constant("yolo26_far", [[far + [0.5, 0]]])

# One candidate for each float of an input of 8 x 4; the float is its score.
count = 3 * 4 * 8
columns = numpy.full((1, 4, count), 2, numpy.float32)
columns[0, 0] = numpy.arange(count) * 4
columns[0, 1] = 1
write("echo8", {"images": [1, 3, 4, 8]}, {"out": [1, 5, count]},
      [helper.make_node("Reshape", ["images", "shape"], ["row"]),
       helper.make_node("Concat", ["boxes", "row"], ["out"], axis=1)],
      [("shape", numpy.array([1, 1, count])), ("boxes", columns)])

# Networks that are refused.
constant("two_inputs", yolo8.T[None], inputs={"images": [1, 3, 64, 64], "more": [1]})
constant("no_inputs", yolo8.T[None], inputs={})
constant("other_size", yolo8.T[None], inputs={"images": [1, 3, 64, 32]})
constant("dynamic_input", yolo8.T[None], inputs={"images": [1, 3, "h", "w"]})
constant("rank_2_input", yolo8.T[None], inputs={"images": [3, 64]})
constant("byte_input", yolo8.T[None], inputs={"images": ([1, 3, 64, 64], TensorProto.UINT8)})
constant("rank_2_output", numpy.ones((6, 3)))
constant("scalar_output", numpy.float32(1), dimensions=[])
constant("one_plane", yolo8.T[None], inputs={"images": [1, 1, 64, 64]})
graph = helper.make_graph(
    [helper.make_node("SequenceConstruct", ["images"], ["out"])], "list_output",
    [helper.make_tensor_value_info("images", TensorProto.FLOAT, [1, 3, 64, 64])],
    [helper.make_tensor_sequence_value_info("out", TensorProto.FLOAT, [1, 3, 64, 64])])
onnx.save(helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)], ir_version=8),
          folder / "list_output.onnx")
# The number of output columns depends on the brightness of the image: 2 for black, 3 for white.
for name, dimensions in (("wrong_declared_shape", [1, 6, 3]), ("dynamic_output", [1, 6, "n"])):
    write(name, {"images": [1, 3, 64, 64]}, {"out": dimensions},
          [helper.make_node("ReduceMax", ["images"], ["white"], keepdims=0),
           helper.make_node("Add", ["white", "two"], ["columns"]),
           helper.make_node("Cast", ["columns"], ["whole"], to=TensorProto.INT64),
           helper.make_node("Reshape", ["whole", "list"], ["last"]),
           helper.make_node("Concat", ["first", "last"], ["shape"], axis=0),
           helper.make_node("Expand", ["answer", "shape"], ["out"])],
          [("two", numpy.float32(2)), ("list", numpy.array([1])), ("first", numpy.array([1, 6])),
           ("answer", numpy.full((1, 6, 1), 0.5, numpy.float32))])

# The first network for the other engine.
network = openvino.convert_model(folder / "yolo8.onnx")
openvino.save_model(network, folder / "yolo8.xml", compress_to_fp16=False)
