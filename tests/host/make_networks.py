"""Writes tiny networks in OpenVINO's format for the tests of the host: make_networks.py FOLDER.

Inputs are [1, 3, height, width] floats. What a network answers hardly depends on its input, so that the tests can tell
what is to come out.
"""

import pathlib
import sys

import numpy
import openvino
from openvino import opset13 as op

def save(name, height, width, output):
    picture = op.parameter([1, 3, height, width], numpy.float32)
    model = openvino.Model([output(picture)], [picture], name)
    openvino.save_model(model, folder / f"{name}.xml", compress_to_fp16=False)


def always(values):
    return lambda picture: op.constant(numpy.array(values, numpy.float32))


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
# A car and a better person, in pixels of a 64 x 64 input; rows of zeros are no detections.
save("things", 64, 64, always([[[8, 4, 40, 28, 0.75, 0], [30, 10, 50, 44, 0.875, 1], [0] * 6]]))
save("nothing", 64, 64, always([[[0] * 6] * 2]))
save("label", 32, 32, always([[1, 3, 0]]))
save("feature256", 32, 16, colour(256))
save("feature128", 16, 16, colour(128))
save("zeros", 32, 16, always([[0] * 256]))
# A table of 6 time steps and 8 classes that reads "77-A-7", class 0 being the blank.
save("plate", 16, 32, always([numpy.eye(8)[[1, 1, 0, 2, 0, 1]]]))
save("pitch", 16, 20, pitch)
