#!/usr/bin/env python3
"""Runs a pipeline on many images, on all machines of a Ray cluster, with Ray Data and the Python package.

    ray_data.py [OPTIONS] PIPELINE < images.txt > results.jsonl

Reads one path per line and writes one line of JSON for each, in the same order, as vsa run --json would. Every actor
keeps the models open. Ray starts a lost actor again and repeats what it was doing. An image that cannot be read or
processed yields an "error". Package, pipeline and images must have the same paths on all machines. vsa_ray.py does the
same with processes of vsa, and survives images that make the process fail each time.
"""

import argparse
import json
import os
import sys

os.environ.setdefault("RAY_USAGE_STATS_ENABLED", "0")  # send no usage reports

import ray  # noqa: E402

BATCH = 4  # images per call of an actor


class Processor:
    """The models of a pipeline, open in an actor."""

    def __init__(self, pipeline):
        import tolcompatible

        self.pipeline = tolcompatible.Pipeline(pipeline)

    def __call__(self, batch):
        return {"line": [self.process(str(path)) for path in batch["path"]]}

    def process(self, path):
        import numpy
        import PIL.Image
        import tolcompatible

        try:
            with PIL.Image.open(path) as image:
                pixels = numpy.asarray(image.convert("RGB"))
            return self.pipeline(pixels[..., ::-1]).to_json(path)  # blue, green, red
        except (OSError, tolcompatible.Error) as error:
            return json.dumps({"error": str(error), "input": path}, ensure_ascii=False)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("pipeline", metavar="PIPELINE", help="JSON file that lists the models")
    parser.add_argument("--address", help='address of a running cluster, or "auto" on one of its machines '
                                          "(default: only this machine)")
    parser.add_argument("--cores", type=int, default=2, help="cores per actor (default: 2)")
    parser.add_argument("--workers", type=int, default=1, help="number of actors (default: 1)")
    options = parser.parse_args()
    if options.cores < 1 or options.workers < 1:
        parser.error("--cores and --workers must be at least 1")
    paths = [line for line in sys.stdin.read().splitlines() if line]
    if not paths:
        return

    # Ray prints messages to standard output, which is reserved for results.
    results = os.fdopen(os.dup(1), "w", encoding="utf-8")
    os.dup2(2, 1)
    if options.address:
        ray.init(address=options.address)
    else:
        ray.init(address="local", num_cpus=options.workers * options.cores + 1, include_dashboard=False)
    # The cores of an actor belong to one machine.
    capacity = sum(int(node["Resources"].get("CPU", 0)) // options.cores for node in ray.nodes() if node["Alive"])
    if options.workers > capacity:
        sys.exit(f"there are cores for {capacity} actors of {options.cores}, not for {options.workers}; "
                 "see --workers and --cores")
    context = ray.data.DataContext.get_current()
    context.execution_options.preserve_order = True
    context.enable_progress_bars = False
    images = ray.data.from_items([{"path": path} for path in paths],
                                 override_num_blocks=(len(paths) + BATCH - 1) // BATCH)
    found = images.map_batches(Processor, fn_constructor_args=[os.path.abspath(options.pipeline)], batch_size=BATCH,
                               compute=ray.data.ActorPoolStrategy(size=options.workers), num_cpus=options.cores)
    failed = False
    for row in found.iter_rows():
        failed = failed or "error" in json.loads(row["line"])
        results.write(row["line"] + "\n")
        results.flush()
    results.flush()
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(130)
    except Exception as error:  # an actor's error contains its traceback
        sys.exit("ray_data.py: " + (str(error).strip().splitlines() or [type(error).__name__])[-1])
