#!/usr/bin/env python3
"""Runs vsa on many pictures, on as many machines as a Ray cluster has.

    vsa_ray.py [OPTIONS] PIPELINE < pictures.txt > results.jsonl

Reads one path a line and writes one line of JSON for each, in the same order, as vsa run --json would. Every worker
keeps one vsa process, so the models are loaded once a worker. A picture whose process, worker or machine fails is
handed in again; one that fails three times is answered with an "error". Program, pipeline and pictures must have the
same paths on all machines. Paths are bytes here, as they need not be UTF-8; answers always are.
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

os.environ.setdefault("RAY_USAGE_STATS_ENABLED", "0")  # tell nobody

import ray  # noqa: E402
from ray.exceptions import RayError, RayTaskError  # noqa: E402

ATTEMPTS = 3
BATCH = 4  # pictures handed to a worker at once: enough to hide the way there and back


def claim_cores(count):
    """Cores of this machine that no other worker has, with the lock that keeps them; all cores where none are left."""
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


def repaired(path):
    """The text that stands for a path in an answer."""
    return path.decode("utf-8", "replace")


def error_line(path, reason):
    return (json.dumps({"error": reason, "input": repaired(path)}, ensure_ascii=False) + "\n").encode()


@ray.remote
class Worker:
    """One vsa process on cores of its own."""

    def __init__(self, command, cores, seconds):
        self.command = command
        self.seconds = seconds
        self.process = None
        # The engine starts a thread for each core that the process may use.
        self.lock, mine = claim_cores(cores)
        os.sched_setaffinity(0, mine)

    def answer(self, paths):
        """A line of JSON for each path."""
        return [self.answer_one(path) for path in paths]

    def answer_one(self, path):
        for _ in range(ATTEMPTS):
            line = self.ask(path)
            if line is None:
                continue
            if json.loads(line)["input"] != repaired(path):
                self.stop()  # more lines for this path may follow
                return error_line(path, "this is not one picture; list the files of a folder instead")
            return line
        return error_line(path, f"vsa failed {ATTEMPTS} times")

    def ask(self, path):
        """The answer of the process, or None where it ended or took too long."""
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
        if line.endswith(b"\n"):  # what a dying process wrote of a line is no answer
            return line
        if self.stop() == 2:
            raise ValueError("vsa refuses its arguments or the pipeline; its messages stand above")
        return None

    def kill(self):
        # With its children: where vsa is a script, they hold the other ends of the pipes.
        os.killpg(self.process.pid, signal.SIGKILL)

    def stop(self):
        """Ends the process and returns its exit status."""
        self.kill()
        process, self.process = self.process, None
        process.stdout.close()
        try:
            process.stdin.close()
        except BrokenPipeError:
            pass  # of a path that it has not read
        return process.wait()


def answers(paths, start, count):
    """Yields the line of each path, in their order, from as many workers as count says; start() makes one."""
    jobs = collections.deque(range(first, min(first + BATCH, len(paths))) for first in range(0, len(paths), BATCH))
    lines = {}  # not yielded yet, by index of the path
    failures = collections.Counter()  # of workers, by index of the path
    failed_starts = 0
    idle = []
    running = {}  # the worker and its job, by what Ray returns for the call

    def add_worker():
        # It gets its first job when it has started, as there may be no machine for it.
        worker = start()
        running[worker.answer.remote([])] = worker, ()

    for _ in range(count):
        add_worker()
    told = 0
    while told < len(paths):
        while idle and jobs:
            worker, job = idle.pop(), jobs.popleft()
            running[worker.answer.remote([paths[index] for index in job])] = worker, job
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
                    jobs.appendleft((index,))  # alone, so that others do not fail with it
                else:
                    lines[index] = error_line(paths[index], f"the worker failed {ATTEMPTS} times")
            add_worker()
        while told in lines:
            yield lines.pop(told)
            told += 1


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("pipeline", metavar="PIPELINE", help="JSON file that names the models")
    parser.add_argument("--vsa", default="vsa", metavar="FILE", help="the program (default: the one on the PATH)")
    parser.add_argument("--address", help='address of a running cluster, "auto" on one of its machines; without it '
                                          "this machine alone")
    parser.add_argument("--cores", type=int, default=2, help="cores of each worker (default: 2)")
    parser.add_argument("--workers", type=int, help="number of workers (default: as many as the cores allow)")
    parser.add_argument("--seconds", type=float, default=300, help="most time for one picture (default: 300)")
    options = parser.parse_args()
    if options.cores < 1 or options.workers is not None and options.workers < 1:
        parser.error("--cores and --workers must be at least 1")
    paths = [line.rstrip(b"\r\n") for line in sys.stdin.buffer]
    paths = [path for path in paths if path]

    # Ray prints its messages to standard output, which is for results alone.
    results = os.fdopen(os.dup(1), "wb")
    os.dup2(2, 1)
    if options.address:
        ray.init(address=options.address)
    else:
        ray.init(address="local", num_cpus=options.workers and options.workers * options.cores,
                 include_dashboard=False)
    # A worker's cores are those of one machine.
    places = sum(int(node["Resources"].get("CPU", 0)) // options.cores for node in ray.nodes() if node["Alive"])
    if places < 1:
        sys.exit(f"no machine has {options.cores} cores for a worker; see --cores")
    if options.workers and options.workers > places:
        sys.exit(f"there is room for {places} workers of {options.cores} cores, not for {options.workers}; "
                 "see --workers and --cores")
    command = [options.vsa, "run", "--stdin", "--quiet", "--max-frames", "1", options.pipeline]

    def start():
        return Worker.options(num_cpus=options.cores).remote(command, options.cores, options.seconds)

    failed = False
    for line in answers(paths, start, options.workers or places):
        if b'"error"' in line or b'"failedModels"' in line:
            failed = failed or not {"error", "failedModels"}.isdisjoint(json.loads(line))
        results.write(line)
        results.flush()
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
