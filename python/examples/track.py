"""Gives the objects of a video ids that stay the same from frame to frame, with the tracker
ByteTrack.

    track.py PIPELINE VIDEO > tracks.csv

Prints a line for each object and frame: frame, id, class, left, top, right, bottom, score.
"""

import argparse

import supervision as sv
from trackers import ByteTrackTracker

import tolcompatible

parser = argparse.ArgumentParser(
    description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
)
parser.add_argument("pipeline", metavar="PIPELINE")
parser.add_argument("video", metavar="VIDEO")
options = parser.parse_args()

tracker = ByteTrackTracker(frame_rate=sv.VideoInfo.from_video_path(options.video).fps)
print("frame,id,class,left,top,right,bottom,score")
with tolcompatible.Pipeline(options.pipeline) as pipeline:
    for index, frame in enumerate(sv.get_video_frames_generator(options.video)):
        tracked = tracker.update(pipeline(frame).to_supervision())
        for box, score, number, name in zip(
            tracked.xyxy, tracked.confidence, tracked.tracker_id, tracked["class_name"]
        ):
            if number >= 0:  # a new object gets its id when it is seen again
                print(index, number, name, *box.astype(int), f"{score:.3f}", sep=",")
