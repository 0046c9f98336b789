"""Counts the objects in a zone of each image and writes annotated images, with supervision.

zones.py PIPELINE IMAGE... --zone 10,10,300,10,300,200,10,200 --output FOLDER
"""

import argparse
import pathlib

import cv2
import numpy as np
import supervision as sv

import tolcompatible

parser = argparse.ArgumentParser(
    description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
)
parser.add_argument("pipeline", metavar="PIPELINE")
parser.add_argument("images", metavar="IMAGE", nargs="+")
parser.add_argument(
    "--zone", metavar="X,Y,...", required=True, help="corners of the polygon in pixels"
)
parser.add_argument("--output", metavar="FOLDER", type=pathlib.Path, required=True)
options = parser.parse_args()

polygon = np.array(options.zone.split(","), int).reshape(-1, 2)
zone = sv.PolygonZone(polygon, triggering_anchors=[sv.Position.CENTER])
options.output.mkdir(parents=True, exist_ok=True)
with tolcompatible.Pipeline(options.pipeline) as pipeline:
    for name in options.images:
        image = cv2.imread(name)
        if image is None:
            raise SystemExit(f"{name} cannot be read")
        detections = pipeline(image).to_supervision()
        inside = detections[zone.trigger(detections)]
        names = ", ".join(inside["class_name"])
        print(f"{name}: {len(inside)} of {len(detections)} objects in the zone: {names}")
        image = sv.draw_polygon(image, polygon, sv.Color.RED)
        image = sv.BoxAnnotator().annotate(image, detections)
        image = sv.LabelAnnotator().annotate(image, detections, list(detections["class_name"]))
        cv2.imwrite(str(options.output / pathlib.Path(name).name), image)
