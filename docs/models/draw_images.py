#!/usr/bin/env python3
"""Draws the pictures of this folder: draw_images.py VSA

VSA is the program. A scene is drawn, and a network of a few nodes that always answers with what was drawn stands in for
a trained one; the picture is what vsa makes of its answer. Needs the packages Pillow and openvino.
"""

import json
import math
import pathlib
import subprocess
import sys
import tempfile

import numpy
import openvino
from openvino import opset13 as op
from PIL import Image, ImageDraw

WIDTH, HEIGHT, SIDE = 900, 600, 640
SCALE = SIDE / WIDTH  # from the picture to the network's input
FOLDER = pathlib.Path(__file__).resolve().parent


def write_network(path, *outputs):
    picture = op.parameter([1, 3, SIDE, SIDE], numpy.float32)
    answers = [op.constant(numpy.asarray(output, numpy.float32)) for output in outputs]
    openvino.save_model(openvino.Model(answers, [picture]), f"{path}.xml", compress_to_fp16=False)


def columns(rows):
    """[1, values, N], one column a candidate, as YOLOv8's heads give them."""
    return numpy.asarray(rows, numpy.float32).T[None]


def centre_box(left, top, right, bottom):
    return [SCALE * (left + right) / 2, SCALE * (top + bottom) / 2, SCALE * (right - left), SCALE * (bottom - top)]


def street():
    image = Image.new("RGB", (WIDTH, HEIGHT), (188, 214, 232))
    draw = ImageDraw.Draw(image)
    draw.rectangle((0, 330, WIDTH, HEIGHT), fill=(112, 112, 116))
    draw.rectangle((0, 300, WIDTH, 345), fill=(172, 166, 156))
    for left, width, height in ((20, 150, 190), (190, 120, 240), (330, 190, 160), (640, 220, 210)):
        draw.rectangle((left, 300 - height, left + width, 300), fill=(206, 190, 170))
        for x in range(left + 14, left + width - 20, 34):
            for y in range(300 - height + 16, 280, 40):
                draw.rectangle((x, y, x + 16, y + 22), fill=(120, 140, 156))
    for x in range(10, WIDTH, 120):
        draw.rectangle((x, 466, x + 60, 474), fill=(236, 232, 214))
    return image, draw


def car(draw, left, top, colour):
    draw.rounded_rectangle((left, top + 40, left + 240, top + 100), 18, fill=colour)
    draw.polygon([(left + 45, top + 44), (left + 80, top), (left + 170, top), (left + 205, top + 44)], fill=colour)
    draw.polygon([(left + 64, top + 42), (left + 88, top + 10), (left + 122, top + 10), (left + 122, top + 42)],
                 fill=(198, 220, 232))
    draw.polygon([(left + 130, top + 42), (left + 130, top + 10), (left + 164, top + 10), (left + 188, top + 42)],
                 fill=(198, 220, 232))
    for x in (left + 34, left + 158):
        draw.ellipse((x, top + 74, x + 50, top + 124), fill=(34, 34, 38))
        draw.ellipse((x + 16, top + 90, x + 34, top + 108), fill=(168, 168, 172))
    return left, top, left + 240, top + 124


# Key points of a person 260 pixels high, by COCO's order: nose, eyes, ears, shoulders, elbows, wrists, hips, knees,
# ankles.
BODY = [(0, 22), (-6, 16), (6, 16), (-13, 20), (13, 20), (-30, 62), (30, 62), (-46, 108), (50, 100), (-40, 150),
        (74, 70), (-18, 146), (18, 146), (-26, 200), (24, 198), (-34, 250), (40, 248)]


def person(draw, x, top, coat):
    points = [(x + dx, top + dy) for dx, dy in BODY]
    for indices, width, colour in (((11, 13, 15), 22, (52, 58, 84)), ((12, 14, 16), 22, (52, 58, 84)),
                                   ((5, 7, 9), 17, coat), ((6, 8, 10), 17, coat)):
        line = [points[i] for i in indices]
        draw.line(line, fill=colour, width=width, joint="curve")
        for px, py in line:
            draw.ellipse((px - width / 2, py - width / 2, px + width / 2, py + width / 2), fill=colour)
    draw.polygon([points[5], points[6], points[12], points[11]], fill=coat)
    draw.rectangle((x - 9, top + 40, x + 9, top + 64), fill=(228, 188, 160))
    draw.ellipse((x - 20, top, x + 20, top + 46), fill=(228, 188, 160))
    return (x - 62, top - 4, x + 92, top + 266), points


def boxes(path):
    image, draw = street()
    found = [car(draw, 90, 380, (178, 52, 48)), car(draw, 520, 350, (52, 92, 160)),
             person(draw, 420, 290, (60, 120, 76))[0]]
    scores = [(0.91, 0), (0.87, 0), (0, 0.93)]
    write_network(path, columns([centre_box(*box) + list(score) for box, score in zip(found, scores)]))
    return image, {"modelName": "YOLO8", "classNames": ["car", "person"]}


def labels(path):
    image, draw = street()
    found = [car(draw, 90, 380, (178, 52, 48)), car(draw, 520, 350, (178, 52, 48))]
    write_network(path, columns([centre_box(*box) + [score] for box, score in zip(found, (0.91, 0.87))]))
    write_network(f"{path}-label", [[0.2, 0.3, 6.5, 0.1]])
    label = {"category": "Classify", "modelName": "ResNet", "modelFile": f"{path.name}-label",
             "classNames": ["black", "blue", "red", "white"]}
    return image, {"modelName": "YOLO8", "classNames": ["car"]}, label


def oriented(path):
    image = Image.new("RGB", (WIDTH, HEIGHT), (96, 122, 84))
    draw = ImageDraw.Draw(image)
    draw.polygon([(60, 600), (330, 0), (620, 0), (350, 600)], fill=(126, 126, 130))
    rows = []
    vehicles = ((300, 180, 110, 46, -1.15, (230, 230, 232)), (270, 420, 110, 46, -1.15, (178, 52, 48)),
                (455, 250, 170, 56, -1.15, (52, 92, 160)), (720, 420, 150, 60, 0.5, (206, 186, 90)))
    for x, y, length, width, angle, colour in vehicles:
        turn = numpy.array([[math.cos(angle), -math.sin(angle)], [math.sin(angle), math.cos(angle)]])
        def corners(length, width):
            ends = numpy.array([(-length, -width), (length, -width), (length, width), (-length, width)]) / 2
            return [tuple(point) for point in ends @ turn.T + (x, y)]
        draw.polygon(corners(length, width), fill=colour)
        draw.polygon(corners(length * 0.45, width * 0.75), fill=tuple(c * 3 // 4 for c in colour))
        scores = [0.0, 0.88] if length > 120 else [0.9, 0.0]
        rows.append([SCALE * x, SCALE * y, SCALE * length, SCALE * width, *scores, angle])
    write_network(path, columns(rows))
    return image, {"modelName": "YOLO8-OBB", "classNames": ["small vehicle", "large vehicle"]}


def pose(path):
    image, draw = street()
    rows = []
    for x, top, coat, score in ((250, 270, (178, 52, 48), 0.94), (610, 290, (60, 120, 76), 0.9)):
        box, points = person(draw, x, top, coat)
        rows.append(centre_box(*box) + [score] + [value for px, py in points for value in (SCALE * px, SCALE * py, 1)])
    write_network(path, columns(rows))
    return image, {"modelName": "YOLO8-POSE", "classNames": ["person"], "classCount": 1}


def outlines(path):
    image, draw = street()
    rows, prototypes = [], numpy.full((1, 32, SIDE // 4, SIDE // 4), -8.0, numpy.float32)
    shapes = [(lambda d, colour=None: car(d, 110, 380, colour or (178, 52, 48)), 0),
              (lambda d, colour=None: person(d, 600, 290, colour or (60, 120, 76))[0], 1)]
    for k, (shape, class_id) in enumerate(shapes):
        before = image.copy()
        box = shape(draw)
        changed = numpy.any(numpy.asarray(image) != numpy.asarray(before), axis=2)
        canvas = numpy.zeros((WIDTH, WIDTH), numpy.uint8)
        canvas[:HEIGHT] = changed * 255
        mask = numpy.asarray(Image.fromarray(canvas).resize((SIDE // 4, SIDE // 4), Image.Resampling.BILINEAR))
        prototypes[0, k] = numpy.where(mask > 110, 8, -8)
        scores = [0.92 if c == class_id else 0 for c in range(2)]
        rows.append(centre_box(*box) + scores + [1 if i == k else 0 for i in range(32)])
    write_network(path, columns(rows), prototypes)
    return image, {"modelName": "YOLO8-Seg", "classNames": ["car", "person"]}


def main():
    vsa = pathlib.Path(sys.argv[1]).resolve()
    for name, scene in {"detection": boxes, "classification": labels, "oriented-boxes": oriented, "pose": pose,
                        "segmentation": outlines}.items():
        with tempfile.TemporaryDirectory() as folder:
            folder = pathlib.Path(folder)
            image, *models = scene(folder / "network")
            image.save(folder / f"{name}.jpg", quality=95)
            common = {"category": "Detect", "engine": "OpenVINO", "modelFile": "network", "inputWidth": SIDE,
                      "inputHeight": SIDE, "scoreThreshold": 0.25, "nmsThreshold": 0.45}
            pipeline = folder / "pipeline.json"
            models = [{**common, **model} for model in models]
            pipeline.write_text(json.dumps({"modelRoot": str(folder), "models": models}))
            subprocess.run([vsa, "run", "--quiet", pipeline, folder / f"{name}.jpg", "--output", folder / "out"],
                           check=True)
            drawn, = (folder / "out").rglob("*.jpg")
            Image.open(drawn).save(FOLDER / f"{name}.jpg", quality=82, optimize=True)


if __name__ == "__main__":
    main()
