"""Runs in the environment of an installed wheel, without anything else: opens a network on each
engine. With --system, the package was built from the source distribution, and takes all libraries
but the engines from the system."""

import pathlib
import re
import sys
import sysconfig
import tempfile

import numpy as np
import openvino
from openvino import opset13 as op


def libraries():
    """The shared objects that this process has loaded."""
    with open("/proc/self/maps") as maps:
        return {line.split()[-1] for line in maps if ".so" in line}


before = libraries()
import tolcompatible  # noqa: E402

ROWS = np.array([[[8, 4, 40, 28, 0.75, 0], [30, 10, 50, 44, 0.875, 1]]], np.float32)

assert (
    tolcompatible.devices().count("OpenVINO-CPU")
    == tolcompatible.devices().count("ONNXRuntime-CPU")
    == 1
)
with tempfile.TemporaryDirectory() as folder:
    image = op.parameter([1, 3, 64, 64], np.float32)
    zero = op.multiply(op.reduce_max(image, op.constant([0, 1, 2, 3])), op.constant(np.float32(0)))
    openvino.save_model(
        openvino.Model([op.add(op.constant(ROWS), zero)], [image], "things"),
        pathlib.Path(folder, "things.xml"),
    )
    with tolcompatible.Model(
        category="Detect",
        modelName="YOLO26",
        engine="OpenVINO",
        modelRoot=folder,
        modelFile="things",
        classNames=["car", "person"],
        inputWidth=64,
        inputHeight=64,
        scoreThreshold=0.5,
    ) as model:
        result = model(np.zeros((64, 64, 3), np.uint8))
    assert result.boxes.tolist() == [[8, 4, 40, 28], [30, 10, 50, 44]], result.boxes
    pathlib.Path(folder, "broken.onnx").write_bytes(b"x")
    try:
        tolcompatible.Model(
            category="Detect",
            modelName="YOLO8",
            engine="ONNXRuntime",
            modelRoot=folder,
            modelFile="broken.onnx",
            classNames=["car"],
            inputWidth=64,
            inputHeight=64,
        )
        raise AssertionError("a broken network was opened")
    except tolcompatible.Error as error:
        assert "cannot be loaded" in str(error), error

# Everything that the package loads comes from this environment, except for the C and C++ runtime,
# zlib, and OpenCL, which OpenVINO's plugin for GPUs loads if the system has it. With --system, only
# the engines do. There is one TBB.
here = sysconfig.get_path("purelib")
runtime = re.compile(
    r"/(ld-linux-x86-64|lib(c|m|dl|rt|pthread|resolv|gcc_s|stdc\+\+|z|OpenCL))(-[0-9.]+)?\.so"
)
foreign = [
    path
    for path in libraries() - before
    if not path.startswith((here, sysconfig.get_path("stdlib"))) and not runtime.search(path)
]
if "--system" in sys.argv:
    foreign = [path for path in foreign if re.search(r"/lib(openvino|onnxruntime|tbb)", path)]
assert not foreign, foreign
assert sum("libtbb.so" in path for path in libraries()) == 1
print("the wheel works with Python", sys.version.split()[0])
