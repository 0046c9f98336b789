"""Gives the objects of a video ids that survive long occlusions, with the tracker norfair, which
compares the feature vectors of DeepSort.

    track_by_appearance.py PIPELINE VIDEO > tracks.csv

PIPELINE lists a detector and a model that writes features. An object keeps its id while its boxes
overlap from frame to frame. One that appears elsewhere gets the id of the object of the same class
that it resembles most, if that one was lost at most --seconds ago and the cosine similarity of
their features is above --similarity.

Prints a line for each object and frame: frame, id, class, left, top, right, bottom, score.
"""

import argparse

import norfair
import numpy as np
import supervision as sv

import tolcompatible

parser = argparse.ArgumentParser(
    description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
)
parser.add_argument("pipeline", metavar="PIPELINE")
parser.add_argument("video", metavar="VIDEO")
parser.add_argument("--similarity", type=float, default=0.7, help="default: 0.7")
parser.add_argument("--seconds", type=float, default=10, help="default: 10")
options = parser.parse_args()


def distance(new, lost):
    """1 - cosine similarity of the new object to the most similar view of the lost one."""
    return 1 - max(new.last_detection.embedding @ seen.embedding for seen in lost.past_detections)


fps = sv.VideoInfo.from_video_path(options.video).fps
tracker = norfair.Tracker(
    distance_function="iou",  # 1 - IoU
    distance_threshold=0.7,
    initialization_delay=2,  # an object gets an id when it has been seen in three frames
    past_detections_length=10,
    reid_distance_function=distance,
    reid_distance_threshold=1 - options.similarity,
    reid_hit_counter_max=round(options.seconds * fps),
)
print("frame,id,class,left,top,right,bottom,score")
with tolcompatible.Pipeline(options.pipeline) as pipeline:
    for index, frame in enumerate(sv.get_video_frames_generator(options.video)):
        result = pipeline(frame)
        if len(result) and not result.features.shape[1]:
            raise SystemExit("the pipeline has no model that writes features")
        lengths = np.linalg.norm(result.features, axis=1, keepdims=True)
        features = result.features / np.maximum(lengths, 1e-12)
        found = [
            norfair.Detection(
                points=each.box.reshape(2, 2),
                label=each.class_name,
                embedding=feature,
                data=(index, each),
            )
            for each, feature in zip(result, features)
        ]
        for tracked in tracker.update(found):
            seen, each = tracked.last_detection.data
            if seen == index:  # not only predicted
                print(
                    index, tracked.id, each.class_name, *each.box, f"{each.score:.3f}", sep=","
                )
