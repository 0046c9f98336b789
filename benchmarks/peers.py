"""Times whole detections by this library and by others, compared with inference of the same network alone.

    .deps/peers/bin/python benchmarks/peers.py PEER_PROGRAM [--runs 100] [--fastest]

benchmarks/ratios creates the environment and calls this script. The network is YOLOv8n at 640 x 640 with random weights,
the frame 1920 x 1080. Each library runs in a process of its own, alternately with inference alone. Prints Markdown
tables.
"""

import argparse
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

WIDTH, HEIGHT, SIDE, CLASSES = 1920, 1080, 640, 80
SCORE, OVERLAP = 0.25, 0.7
WARM_UP = 10
CANDIDATES = (0, 300)


def prepare(folder):
    """Writes the frame and, for each number of candidates, the network, in files named as Ultralytics expects."""
    import numpy
    import openvino
    import torch
    from openvino import opset8
    from ultralytics import YOLO

    frame = numpy.random.default_rng(1).integers(0, 256, (HEIGHT, WIDTH, 3), numpy.uint8)
    frame.tofile(folder / "frame.bgr")
    torch.manual_seed(1)
    os.chdir(folder)
    # Ultralytics' export to OpenVINO needs a newer PyTorch than Debian's, so the ONNX file is converted here.
    model = YOLO("yolov8n.yaml")
    exported = model.export(format="onnx", imgsz=SIDE, simplify=False, opset=12)
    for count in CANDIDATES:
        network = openvino.convert_model(exported)
        if count:
            # Random weights detect nothing, so constant candidates are added to the output.
            result = network.get_results()[0]
            scores = numpy.zeros((1, 4 + CLASSES, 8400), numpy.float32)
            for i in range(count):
                scores[0, 4 + i % CLASSES, i * 8400 // count] = 0.5 + 0.4 * i / count
            added = opset8.add(result.input_value(0), opset8.constant(scores))
            network = openvino.Model([added], network.get_parameters(), "busy")
            network.outputs[0].set_names({"output0"})
        network.set_rt_info("YOLOv8", ["model_info", "model_type"])
        model_folder = folder / f"{count}_openvino_model"
        model_folder.mkdir()
        openvino.save_model(network, model_folder / "network.xml", compress_to_fp16=False)
        names = "\n".join(f"  {i}: '{name}'" for i, name in model.names.items())
        (model_folder / "metadata.yaml").write_text(
            f"task: detect\nstride: 32\nbatch: 1\nimgsz: [{SIDE}, {SIDE}]\nchannels: 3\ndynamic: false\nnames:\n{names}\n")


def ultralytics(model_folder):
    """Returns the whole call, which returns the number of objects, and the network as the library compiled it."""
    from ultralytics import YOLO

    model = YOLO(model_folder, task="detect")

    def call(frame):
        results = model.predict(frame, imgsz=SIDE, conf=SCORE, iou=OVERLAP, device="cpu", verbose=False, save=False)
        return len(results[0].boxes)

    call(black_frame())
    return call, model.predictor.model.backend.ov_compiled_model


def model_api(model_folder):
    """The same for openvino-model-api."""
    from model_api.models import Model

    model = Model.create_model(str(model_folder / "network.xml"), device="CPU", configuration={
        "confidence_threshold": SCORE, "iou_threshold": OVERLAP})
    return lambda frame: len(model(frame).scores), model.inference_adapter.compiled_model


def in_python(model_folder):
    """The same for this library's Python package, which must be on the PYTHONPATH."""
    import openvino
    from tolcompatible import Model

    model = Model(category="Detect", modelName="YOLO8", engine="OpenVINO", modelRoot=model_folder, modelFile="network",
                  classNames=["thing"] * CLASSES, inputWidth=SIDE, inputHeight=SIDE, scoreThreshold=SCORE,
                  nmsThreshold=OVERLAP)

    def call(frame):
        result = model(frame)
        return len(result.boxes), result.scores, result.class_ids, result.class_names

    return lambda frame: call(frame)[0], openvino.Core().compile_model(model_folder / "network.xml", "CPU")


def black_frame():
    import numpy

    return numpy.zeros((HEIGHT, WIDTH, 3), numpy.uint8)


def compare(library, model_folder, frame_file, runs):
    import numpy
    import openvino

    frame = numpy.fromfile(frame_file, numpy.uint8).reshape(HEIGHT, WIDTH, 3)
    call, compiled = library(model_folder)
    own = compiled.create_infer_request()
    if compiled.inputs[0].partial_shape.is_dynamic:  # a network that resizes the frame itself
        own.set_input_tensor(openvino.Tensor(frame[None]))
    plain = openvino.Core().compile_model(model_folder / "network.xml", "CPU").create_infer_request()
    for request in (own, plain):  # memory that was never written is a page of zeros, read faster than any image
        numbers = request.get_input_tensor().data
        numbers[...] = numpy.random.default_rng(1).random(numbers.shape).astype(numbers.dtype)
    objects = 0

    def detect():
        nonlocal objects
        objects = call(frame)

    times = {"call": [], "own": [], "plain": []}
    for run in range(-WARM_UP, runs):
        for name, work in (("call", detect), ("own", own.infer), ("plain", plain.infer)):
            start = time.perf_counter()
            work()
            if run >= 0:
                times[name].append(1000 * (time.perf_counter() - start))
    return times | {"objects": objects}


LIBRARIES = {"this library in Python": in_python, "Ultralytics": ultralytics, "openvino-model-api": model_api}


def tables(folder, program, runs, summary):
    """Prints the tables. Each library runs in its own process, so that threads and memory of one do not affect another."""
    def last_line(command):
        run = subprocess.run(list(map(str, command)), stdout=subprocess.PIPE, text=True)
        if run.returncode:
            sys.exit(f"peers: {' '.join(map(str, command))} failed")
        return run.stdout.splitlines()[-1]

    me = [sys.executable, __file__]
    last_line([*me, "prepare", folder])
    for count in CANDIDATES:
        model_folder, frame = folder / f"{count}_openvino_model", folder / "frame.bgr"
        print(f"\n{count} candidates in the network's output:\n")
        print("| library | whole call, ms | inference alone, ms | ratio | inference of its own compiled network, ms "
              "| objects |\n|---|---|---|---|---|---|")
        for name in ("this library", *LIBRARIES):
            mine = [program, model_folder / "network", frame, runs]
            command = [*me, name, model_folder, frame, runs] if name in LIBRARIES else mine
            result = json.loads(last_line(command))
            call, plain, own = (summary(result[key]) for key in ("call", "plain", "own"))
            print(f"| {name} | {call:.2f} | {plain:.2f} | {call / plain:.2f} | {own:.2f} | {result['objects']} |",
                  flush=True)


def main():
    os.environ.setdefault("YOLO_AUTOINSTALL", "false")
    os.environ.setdefault("YOLO_OFFLINE", "true")
    if sys.argv[1:2] == ["prepare"]:
        prepare(pathlib.Path(sys.argv[2]))
        print("done")
    elif sys.argv[1:2] and sys.argv[1] in LIBRARIES:
        model_folder, frame, runs = sys.argv[2:]
        print(json.dumps(compare(LIBRARIES[sys.argv[1]], pathlib.Path(model_folder), frame, int(runs))))
    else:
        parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
        parser.add_argument("program", metavar="PEER_PROGRAM", help="build/release/benchmarks/Peer")
        parser.add_argument("--runs", type=int, default=100)
        parser.add_argument("--fastest", action="store_true",
                            help="print the fastest run instead of the median; more stable on a busy machine")
        arguments = parser.parse_args()
        with tempfile.TemporaryDirectory() as folder:
            os.environ["YOLO_CONFIG_DIR"] = folder
            tables(pathlib.Path(folder), pathlib.Path(arguments.program).resolve(), arguments.runs,
                   min if arguments.fastest else statistics.median)


if __name__ == "__main__":
    main()
