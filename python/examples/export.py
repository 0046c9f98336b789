"""Writes what a pipeline finds in images as COCO, YOLO and CSV files, with supervision.

export.py PIPELINE FOLDER_OF_IMAGES OUTPUT_FOLDER
"""

import argparse
import pathlib

import cv2
import supervision as sv

import tolcompatible

parser = argparse.ArgumentParser(
    description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
)
parser.add_argument("pipeline", metavar="PIPELINE")
parser.add_argument("images", metavar="FOLDER_OF_IMAGES", type=pathlib.Path)
parser.add_argument("output", metavar="OUTPUT_FOLDER", type=pathlib.Path)
options = parser.parse_args()

options.output.mkdir(parents=True, exist_ok=True)
found = {}
with (
    tolcompatible.Pipeline(options.pipeline) as pipeline,
    sv.CSVSink(str(options.output / "objects.csv")) as table,
):
    classes = pipeline.class_names[0]
    for path in sorted(options.images.iterdir()):
        image = cv2.imread(str(path))
        if image is None:
            continue  # not an image
        found[str(path)] = pipeline(image).to_supervision()
        table.append(found[str(path)], {"image": path.name})
dataset = sv.DetectionDataset(classes, list(found), found)
dataset.as_coco(annotations_path=str(options.output / "coco.json"))
dataset.as_yolo(
    annotations_directory_path=str(options.output / "yolo"),
    data_yaml_path=str(options.output / "yolo.yaml"),
)
print(f"{sum(map(len, found.values()))} objects in {len(found)} images")
