"""Times the same call from C++ and from Python, with all arrays of the result.

    PYTHONPATH=build/release/python .deps/venv/bin/python benchmarks/python_calls.py
    build/release/benchmarks/Peer

The networks have the input and output of YOLOv8 at 640 x 640 and return constants, so that
inference takes next to nothing and the difference between the two programs is visible. The frame is
1920 x 1080. The programs run alternately. Prints a Markdown table of medians in milliseconds.
"""

import json
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

import numpy
import openvino
import tolcompatible
from openvino import opset13 as op

RUNS, ROUNDS = 300, 7


def write_network(path, count):
    """`count` candidates apart from each other."""
    output = numpy.zeros((1, 84, 8400), numpy.float32)
    for i in range(count):
        output[0, :4, i] = 15 + 31 * (i % 20), 15 + 31 * (i // 20), 20, 20
        output[0, 4 + i % 80, i] = 0.5 + 0.4 * i / count
    image = op.parameter([1, 3, 640, 640], numpy.float32)
    corner = op.constant(numpy.zeros(4, numpy.int64))
    pixel = op.slice(
        image,
        corner,
        op.constant(numpy.ones(4, numpy.int64)),
        op.constant(numpy.ones(4, numpy.int64)),
    )
    zero = op.multiply(
        op.reduce_max(pixel, op.constant([0, 1, 2, 3])), op.constant(numpy.float32(0))
    )
    openvino.save_model(
        openvino.Model([op.add(op.constant(output), zero)], [image], "constants"),
        path,
        compress_to_fp16=False,
    )


def time_python(network, frame):
    with tolcompatible.Model(
        category="Detect",
        modelName="YOLO8",
        engine="OpenVINO",
        modelRoot=network.parent,
        modelFile=network.name,
        classNames=["thing"] * 80,
        inputWidth=640,
        inputHeight=640,
        scoreThreshold=0.25,
        nmsThreshold=0.7,
    ) as model:
        times = []
        for run in range(-10, RUNS):
            start = time.perf_counter()
            result = model(frame)
            result.boxes, result.scores, result.class_ids, result.class_names
            if run >= 0:
                times.append(1000 * (time.perf_counter() - start))
    return statistics.median(times), len(result)


def main():
    program = sys.argv[1]
    frame = numpy.random.default_rng(1).integers(0, 256, (1080, 1920, 3), numpy.uint8)
    print("| objects | C++, ms | Python, ms | difference, ms |\n|---|---|---|---|")
    with tempfile.TemporaryDirectory() as folder:
        folder = pathlib.Path(folder)
        frame.tofile(folder / "frame.bgr")
        for count in (0, 300):
            network = folder / f"network{count}"
            write_network(network.with_suffix(".xml"), count)
            direct, bound = [], []
            for _ in range(ROUNDS):
                done = subprocess.run(
                    [program, network, folder / "frame.bgr", str(RUNS)],
                    stdout=subprocess.PIPE,
                    check=True,
                )
                figures = json.loads(done.stdout)
                direct.append(statistics.median(figures["call"]))
                milliseconds, objects = time_python(network, frame)
                bound.append(milliseconds)
                assert objects == figures["objects"] == count, (objects, figures["objects"])
            first, second = statistics.median(direct), statistics.median(bound)
            print(f"| {count} | {first:.3f} | {second:.3f} | {second - first:+.3f} |", flush=True)


if __name__ == "__main__":
    main()
