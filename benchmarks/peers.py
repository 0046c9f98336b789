"""Times a whole detection by this library and by others, beside the bare inference of the same network.

    .deps/peers/bin/python benchmarks/peers.py PEER_PROGRAM [--runs 100] [--fastest]

benchmarks/ratios makes the environment and calls this. The network is YOLOv8n at 640 x 640 with random weights, the
frame 1920 x 1080. Each library runs in a process of its own, where it takes turns with the bare inferences. Prints
Markdown tables.
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
    """Writes the frame and, for each count of candidates, the network as Ultralytics names such files."""
    import numpy
    import openvino
    import torch
    from openvino import opset8
    from ultralytics import YOLO

    frame = numpy.random.default_rng(1).integers(0, 256, (HEIGHT, WIDTH, 3), numpy.uint8)
    frame.tofile(folder / "frame.bgr")
    torch.manual_seed(1)
    os.chdir(folder)
    # Its own export to OpenVINO wants a newer PyTorch than Debian's, so the step from ONNX on is done here.
    model = YOLO("yolov8n.yaml")
    exported = model.export(format="onnx", imgsz=SIDE, simplify=False, opset=12)
    for count in CANDIDATES:
        network = openvino.convert_model(exported)
        if count:
            # Random weights find nothing, so candidates are added to the output, the same whatever is shown.
            result = network.get_results()[0]
            scores = numpy.zeros((1, 4 + CLASSES, 8400), numpy.float32)
            for i in range(count):
                scores[0, 4 + i % CLASSES, i * 8400 // count] = 0.5 + 0.4 * i / count
            added = opset8.add(result.input_value(0), opset8.constant(scores))
            network = openvino.Model([added], network.get_parameters(), "busy")
            network.outputs[0].set_names({"output0"})
        network.set_rt_info("YOLOv8", ["model_info", "model_type"])
        place = folder / f"{count}_openvino_model"
        place.mkdir()
        openvino.save_model(network, place / "network.xml", compress_to_fp16=False)
        names = "\n".join(f"  {i}: '{name}'" for i, name in model.names.items())
        (place / "metadata.yaml").write_text(
            f"task: detect\nstride: 32\nbatch: 1\nimgsz: [{SIDE}, {SIDE}]\nchannels: 3\ndynamic: false\nnames:\n{names}\n")


def ultralytics(place):
    """The whole call, which gives the number of objects, and the network that it compiled."""
    from ultralytics import YOLO

    model = YOLO(place, task="detect")

    def call(frame):
        results = model.predict(frame, imgsz=SIDE, conf=SCORE, iou=OVERLAP, device="cpu", verbose=False, save=False)
        return len(results[0].boxes)

    call(blank_frame())
    return call, model.predictor.model.backend.ov_compiled_model


def model_api(place):
    """The same for openvino-model-api."""
    from model_api.models import Model

    model = Model.create_model(str(place / "network.xml"), device="CPU", configuration={
        "confidence_threshold": SCORE, "iou_threshold": OVERLAP})
    return lambda frame: len(model(frame).scores), model.inference_adapter.compiled_model


def blank_frame():
    import numpy

    return numpy.zeros((HEIGHT, WIDTH, 3), numpy.uint8)


def compare(library, place, frame_file, runs):
    import numpy
    import openvino

    frame = numpy.fromfile(frame_file, numpy.uint8).reshape(HEIGHT, WIDTH, 3)
    call, compiled = library(place)
    own = compiled.create_infer_request()
    if compiled.inputs[0].partial_shape.is_dynamic:  # a network that shrinks the frame itself
        own.set_input_tensor(openvino.Tensor(frame[None]))
    plain = openvino.Core().compile_model(place / "network.xml", "CPU").create_infer_request()
    for request in (own, plain):  # memory that was never written is read faster than any picture
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


LIBRARIES = {"Ultralytics": ultralytics, "openvino-model-api": model_api}


def tables(folder, program, runs, summary):
    """Everything in processes of their own, so that no library's threads or memory are in another's way."""
    def answer(command):
        run = subprocess.run(list(map(str, command)), stdout=subprocess.PIPE, text=True)
        if run.returncode:
            sys.exit(f"peers: {' '.join(map(str, command))} failed")
        return run.stdout.splitlines()[-1]

    me = [sys.executable, __file__]
    answer([*me, "prepare", folder])
    for count in CANDIDATES:
        place, frame = folder / f"{count}_openvino_model", folder / "frame.bgr"
        print(f"\n{count} candidates in the network's output:\n")
        print("| library | whole call, ms | bare infer, ms | ratio | infer of the network as it compiled it, ms "
              "| objects |\n|---|---|---|---|---|---|")
        for name in ("this library", *LIBRARIES):
            mine = [program, place / "network", frame, runs]
            command = [*me, name, place, frame, runs] if name in LIBRARIES else mine
            result = json.loads(answer(command))
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
        place, frame, runs = sys.argv[2:]
        print(json.dumps(compare(LIBRARIES[sys.argv[1]], pathlib.Path(place), frame, int(runs))))
    else:
        parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
        parser.add_argument("program", metavar="PEER_PROGRAM", help="build/release/benchmarks/Peer")
        parser.add_argument("--runs", type=int, default=100)
        parser.add_argument("--fastest", action="store_true",
                            help="the fastest run instead of the median: steadier on a machine that others use")
        arguments = parser.parse_args()
        with tempfile.TemporaryDirectory() as folder:
            os.environ["YOLO_CONFIG_DIR"] = folder
            tables(pathlib.Path(folder), pathlib.Path(arguments.program).resolve(), arguments.runs,
                   min if arguments.fastest else statistics.median)


if __name__ == "__main__":
    main()
