#!/usr/bin/env python3
"""Draws the images of this folder: draw_images.py VSA

VSA is the path of the program vsa. Each scene is drawn together with a network of a few nodes that
always returns the boxes that were drawn; the image is vsa's annotated output. Needs the packages
Pillow and openvino.
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
MASK_SIDE = SIDE // 4
SCALE = SIDE / WIDTH  # from image pixels to network pixels
FOLDER = pathlib.Path(__file__).resolve().parent

RED, BLUE, GREEN = (178, 52, 48), (52, 92, 160), (60, 120, 76)
GLASS = (198, 220, 232)
SKIN = (228, 188, 160)
TROUSERS = (52, 58, 84)


def write_network(path, *outputs):
    """Writes a network with one image input that returns `outputs`."""
    image = op.parameter([1, 3, SIDE, SIDE], numpy.float32)
    results = [op.constant(numpy.asarray(output, numpy.float32)) for output in outputs]
    model = openvino.Model(results, [image])
    openvino.save_model(model, f"{path}.xml", compress_to_fp16=False)


def to_yolo8_output(candidates):
    """Returns [1, values, N], one column per candidate."""
    return numpy.asarray(candidates, numpy.float32).T[None]


def to_network_box(left, top, right, bottom):
    """Returns centre x, centre y, width and height in network pixels."""
    box = (left + right) / 2, (top + bottom) / 2, right - left, bottom - top
    return [SCALE * value for value in box]


def draw_street():
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


def draw_car(draw, left, top, colour):
    """Draws a car and returns its box."""
    def polygon(points, fill):
        draw.polygon([(left + x, top + y) for x, y in points], fill=fill)

    draw.rounded_rectangle((left, top + 40, left + 240, top + 100), 18, fill=colour)
    polygon([(45, 44), (80, 0), (170, 0), (205, 44)], colour)
    polygon([(64, 42), (88, 10), (122, 10), (122, 42)], GLASS)
    polygon([(130, 42), (130, 10), (164, 10), (188, 42)], GLASS)
    for x in (left + 34, left + 158):
        draw.ellipse((x, top + 74, x + 50, top + 124), fill=(34, 34, 38))
        draw.ellipse((x + 16, top + 90, x + 34, top + 108), fill=(168, 168, 172))
    return left, top, left + 240, top + 124


# Key points of a person 260 pixels high, in COCO's order: nose, eyes, ears, shoulders, elbows,
# wrists, hips, knees, ankles.
KEY_POINTS = [(0, 22), (-6, 16), (6, 16), (-13, 20), (13, 20), (-30, 62), (30, 62), (-46, 108),
              (50, 100), (-40, 150), (74, 70), (-18, 146), (18, 146), (-26, 200), (24, 198),
              (-34, 250), (40, 248)]
LEGS = ((11, 13, 15), (12, 14, 16))
ARMS = ((5, 7, 9), (6, 8, 10))


def draw_person(draw, x, top, coat):
    """Draws a person and returns the box and the key points."""
    points = [(x + dx, top + dy) for dx, dy in KEY_POINTS]
    limbs = [(limb, 22, TROUSERS) for limb in LEGS] + [(limb, 17, coat) for limb in ARMS]
    for indices, width, colour in limbs:
        line = [points[i] for i in indices]
        draw.line(line, fill=colour, width=width, joint="curve")
        r = width / 2
        for px, py in line:
            draw.ellipse((px - r, py - r, px + r, py + r), fill=colour)
    draw.polygon([points[5], points[6], points[12], points[11]], fill=coat)
    draw.rectangle((x - 9, top + 40, x + 9, top + 64), fill=SKIN)
    draw.ellipse((x - 20, top, x + 20, top + 46), fill=SKIN)
    return (x - 62, top - 4, x + 92, top + 266), points


# The following functions draw a scene, write its networks to `path` and return the image and the
# models of the pipeline.

def make_detection(path):
    image, draw = draw_street()
    red_car = draw_car(draw, 90, 380, RED)
    blue_car = draw_car(draw, 520, 350, BLUE)
    person, _ = draw_person(draw, 420, 290, GREEN)
    write_network(path, to_yolo8_output([to_network_box(*red_car) + [0.91, 0],
                                         to_network_box(*blue_car) + [0.87, 0],
                                         to_network_box(*person) + [0, 0.93]]))
    return image, {"modelName": "YOLO8", "classNames": ["car", "person"]}


def make_classification(path):
    image, draw = draw_street()
    cars = [draw_car(draw, 90, 380, RED), draw_car(draw, 520, 350, RED)]
    candidates = [to_network_box(*box) + [score] for box, score in zip(cars, (0.91, 0.87))]
    write_network(path, to_yolo8_output(candidates))
    write_network(f"{path}-label", [[0.2, 0.3, 6.5, 0.1]])
    detector = {"modelName": "YOLO8", "classNames": ["car"]}
    classifier = {"category": "Classify", "modelName": "ResNet", "modelFile": f"{path.name}-label",
                  "classNames": ["black", "blue", "red", "white"]}
    return image, detector, classifier


def rotated_corners(x, y, length, width, angle):
    rotation = numpy.array([[math.cos(angle), -math.sin(angle)],
                            [math.sin(angle), math.cos(angle)]])
    corners = numpy.array([(-length, -width), (length, -width), (length, width), (-length, width)])
    return [tuple(point) for point in corners / 2 @ rotation.T + (x, y)]


def make_oriented_boxes(path):
    image = Image.new("RGB", (WIDTH, HEIGHT), (96, 122, 84))
    draw = ImageDraw.Draw(image)
    draw.polygon([(60, 600), (330, 0), (620, 0), (350, 600)], fill=(126, 126, 130))
    candidates = []
    for x, y, length, width, angle, colour in ((300, 180, 110, 46, -1.15, (230, 230, 232)),
                                               (270, 420, 110, 46, -1.15, RED),
                                               (455, 250, 170, 56, -1.15, BLUE),
                                               (720, 420, 150, 60, 0.5, (206, 186, 90))):
        roof = tuple(channel * 3 // 4 for channel in colour)
        draw.polygon(rotated_corners(x, y, length, width, angle), fill=colour)
        draw.polygon(rotated_corners(x, y, length * 0.45, width * 0.75, angle), fill=roof)
        box = [SCALE * value for value in (x, y, length, width)]
        scores = [0.0, 0.88] if length > 120 else [0.9, 0.0]
        candidates.append([*box, *scores, angle])
    write_network(path, to_yolo8_output(candidates))
    return image, {"modelName": "YOLO8-OBB", "classNames": ["small vehicle", "large vehicle"]}


def make_pose(path):
    image, draw = draw_street()
    candidates = []
    for x, top, coat, score in ((250, 270, RED, 0.94), (610, 290, GREEN, 0.9)):
        box, points = draw_person(draw, x, top, coat)
        candidate = to_network_box(*box) + [score]
        for px, py in points:
            candidate += [SCALE * px, SCALE * py, 1]
        candidates.append(candidate)
    write_network(path, to_yolo8_output(candidates))
    return image, {"modelName": "YOLO8-POSE", "classNames": ["person"], "classCount": 1}


def to_prototype(before, after):
    """Returns a prototype mask that is positive where the two images differ."""
    changed = numpy.any(numpy.asarray(after) != numpy.asarray(before), axis=2)
    canvas = numpy.zeros((WIDTH, WIDTH), numpy.uint8)
    canvas[:HEIGHT] = changed * 255
    mask = Image.fromarray(canvas).resize((MASK_SIDE, MASK_SIDE), Image.Resampling.BILINEAR)
    return numpy.where(numpy.asarray(mask) > 110, 8, -8)


def make_segmentation(path):
    image, draw = draw_street()
    prototypes = numpy.full((1, 32, MASK_SIDE, MASK_SIDE), -8.0, numpy.float32)
    before = image.copy()
    car = draw_car(draw, 110, 380, RED)
    prototypes[0, 0] = to_prototype(before, image)
    before = image.copy()
    person, _ = draw_person(draw, 600, 290, GREEN)
    prototypes[0, 1] = to_prototype(before, image)
    # The coefficients of each candidate select its own prototype.
    candidates = [to_network_box(*car) + [0.92, 0] + [1, 0] + [0] * 30,
                  to_network_box(*person) + [0, 0.92] + [0, 1] + [0] * 30]
    write_network(path, to_yolo8_output(candidates), prototypes)
    return image, {"modelName": "YOLO8-Seg", "classNames": ["car", "person"]}


SCENES = {"detection": make_detection, "classification": make_classification,
          "oriented-boxes": make_oriented_boxes, "pose": make_pose,
          "segmentation": make_segmentation}


def main():
    vsa = pathlib.Path(sys.argv[1]).resolve()
    defaults = {"category": "Detect", "engine": "OpenVINO", "modelFile": "network",
                "inputWidth": SIDE, "inputHeight": SIDE, "scoreThreshold": 0.25,
                "nmsThreshold": 0.45}
    for name, make_scene in SCENES.items():
        with tempfile.TemporaryDirectory() as folder:
            folder = pathlib.Path(folder)
            image, *models = make_scene(folder / "network")
            image.save(folder / f"{name}.jpg", quality=95)
            pipeline = folder / "pipeline.json"
            pipeline.write_text(json.dumps({"modelRoot": str(folder),
                                            "models": [defaults | model for model in models]}))
            subprocess.run([vsa, "run", "--quiet", pipeline, folder / f"{name}.jpg",
                            "--output", folder / "out"], check=True)
            annotated, = (folder / "out").rglob("*.jpg")
            Image.open(annotated).save(FOLDER / f"{name}.jpg", quality=82, optimize=True)


if __name__ == "__main__":
    main()
