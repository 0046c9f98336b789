#!/usr/bin/env python3
"""Runs vsa on many images, on all machines of a Ray cluster.

    vsa_ray.py [OPTIONS] PIPELINE < images.txt > results.jsonl

Reads one path per line and writes one line of JSON for each, in the same order, as vsa run --json would. Every worker
keeps one vsa process, so it loads the models once. An image whose process, worker or machine fails is tried again; if it
fails three times, its result is an "error". Program, pipeline and images must have the same paths on all machines.
Paths are bytes here, because they may not be UTF-8; results always are.
"""

import argparse
import collections
import fcntl
import json
import os
import signal
import subprocess
import sys
import tempfile
import threading

os.environ.setdefault("RAY_USAGE_STATS_ENABLED", "0")  # send no usage reports

import ray  # noqa: E402
from ray.exceptions import RayError, RayTaskError  # noqa: E402

ATTEMPTS = 3
BATCH = 4  # images per call of a worker: enough to hide the latency of a call


def claim_cores(count):
    """Returns a lock and the cores of this machine that it reserves, or None and all cores if too few are left."""
    cores = sorted(os.sched_getaffinity(0))
    for first in range(0, len(cores) - count + 1, count):
        name = os.path.join(tempfile.gettempdir(), f"vsa-cores-{os.getuid()}-{first}-{count}")
        lock = None
        try:
            lock = open(name, "a")
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError:
            if lock:
                lock.close()
            continue
        return lock, cores[first:first + count]
    return None, cores


def printable(path):
    """The path as it appears in a result."""
    return path.decode("utf-8", "replace")


def error_line(path, reason):
    return (json.dumps({"error": reason, "input": printable(path)}, ensure_ascii=False) + "\n").encode()


@ray.remote
class Worker:
    """One vsa process, on cores that no other worker uses."""

    def __init__(self, command, cores, seconds):
        self.command = command
        self.seconds = seconds
        self.process = None
        # The engine starts one thread per core that the process may use.
        self.lock, mine = claim_cores(cores)
        os.sched_setaffinity(0, mine)

    def process_all(self, paths):
        """Returns a line of JSON for each path."""
        return [self.process_one(path) for path in paths]

    def process_one(self, path):
        for _ in range(ATTEMPTS):
            line = self.try_once(path)
            if line is None:
                continue
            if json.loads(line)["input"] != printable(path):
                self.stop()  # more lines for this path may follow
                return error_line(path, "not a single image; list the files of a folder instead")
            return line
        return error_line(path, f"vsa failed {ATTEMPTS} times")

    def try_once(self, path):
        """Returns the line that vsa prints, or None if it ended or took too long."""
        if self.process is None:
            self.process = subprocess.Popen(self.command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                            start_new_session=True)
        limit = threading.Timer(self.seconds, self.kill)
        limit.start()
        try:
            self.process.stdin.write(path + b"\n")
            self.process.stdin.flush()
            line = self.process.stdout.readline()
        except BrokenPipeError:
            line = b""
        finally:
            limit.cancel()
            limit.join()
        if line.endswith(b"\n"):  # a partial line comes from a process that died
            return line
        if self.stop() == 2:
            raise ValueError("vsa rejects its arguments or the pipeline; see its messages above")
        return None

    def kill(self):
        # Kills its children, too: if vsa is a script, they hold the other ends of the pipes.
        os.killpg(self.process.pid, signal.SIGKILL)

    def stop(self):
        """Ends the process and returns its exit status."""
        self.kill()
        process, self.process = self.process, None
        process.stdout.close()
        try:
            process.stdin.close()
        except BrokenPipeError:
            pass  # it has not read the last path
        return process.wait()


def process_images(paths, start_worker, count):
    """Yields the line of each path, in order, from `count` workers; start_worker() makes one."""
    jobs = collections.deque(range(first, min(first + BATCH, len(paths))) for first in range(0, len(paths), BATCH))
    lines = {}  # results not yielded yet, by index of the path
    failures = collections.Counter()  # lost workers, by index of the path
    failed_starts = 0
    idle = []
    running = {}  # worker and job, by the object that Ray returns for the call

    def add_worker():
        # The worker gets its first job only after it has started, because there may be no machine for it.
        worker = start_worker()
        running[worker.process_all.remote([])] = worker, ()

    for _ in range(count):
        add_worker()
    next_index = 0
    while next_index < len(paths):
        while idle and jobs:
            worker, job = idle.pop(), jobs.popleft()
            running[worker.process_all.remote([paths[index] for index in job])] = worker, job
        (call,), _ = ray.wait(list(running))
        worker, job = running.pop(call)
        try:
            lines.update(zip(job, ray.get(call)))
            idle.append(worker)
            failed_starts = 0
        except RayTaskError:
            raise
        except RayError:  # the worker or its machine is lost
            failed_starts += not job
            if failed_starts > ATTEMPTS * count:
                raise
            ray.kill(worker)
            for index in reversed(job):
                failures[index] += 1
                if failures[index] < ATTEMPTS:
                    jobs.appendleft((index,))  # alone, so that no other image fails with it
                else:
                    lines[index] = error_line(paths[index], f"the worker failed {ATTEMPTS} times")
            add_worker()
        while next_index in lines:
            yield lines.pop(next_index)
            next_index += 1


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("pipeline", metavar="PIPELINE", help="JSON file that lists the models")
    parser.add_argument("--vsa", default="vsa", metavar="FILE", help="the vsa program (default: from the PATH)")
    parser.add_argument("--address", help='address of a running cluster, or "auto" on one of its machines '
                                          "(default: only this machine)")
    parser.add_argument("--cores", type=int, default=2, help="cores per worker (default: 2)")
    parser.add_argument("--workers", type=int, help="number of workers (default: as many as the cores allow)")
    parser.add_argument("--seconds", type=float, default=300, help="maximum time for one image (default: 300)")
    options = parser.parse_args()
    if options.cores < 1 or options.workers is not None and options.workers < 1:
        parser.error("--cores and --workers must be at least 1")
    paths = [line.rstrip(b"\r\n") for line in sys.stdin.buffer]
    paths = [path for path in paths if path]

    # Ray prints messages to standard output, which is reserved for results.
    results = os.fdopen(os.dup(1), "wb")
    os.dup2(2, 1)
    if options.address:
        ray.init(address=options.address)
    else:
        ray.init(address="local", num_cpus=options.workers and options.workers * options.cores,
                 include_dashboard=False)
    # The cores of a worker belong to one machine.
    capacity = sum(int(node["Resources"].get("CPU", 0)) // options.cores for node in ray.nodes() if node["Alive"])
    if capacity < 1:
        sys.exit(f"no machine has {options.cores} cores for a worker; see --cores")
    if options.workers and options.workers > capacity:
        sys.exit(f"there are cores for {capacity} workers of {options.cores}, not for {options.workers}; "
                 "see --workers and --cores")
    command = [options.vsa, "run", "--stdin", "--quiet", "--max-frames", "1", options.pipeline]

    def start_worker():
        return Worker.options(num_cpus=options.cores).remote(command, options.cores, options.seconds)

    failed = False
    for line in process_images(paths, start_worker, options.workers or capacity):
        if b'"error"' in line or b'"failedModels"' in line:
            failed = failed or not {"error", "failedModels"}.isdisjoint(json.loads(line))
        results.write(line)
        results.flush()
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(130)
    except Exception as error:  # a worker's error contains its traceback
        sys.exit("vsa_ray.py: " + (str(error).strip().splitlines() or [type(error).__name__])[-1])
