"""The example that spreads a pipeline over processes and machines with Ray Data."""

import json
import os
import pathlib
import signal
import subprocess
import tempfile
import time

import PIL.Image
import pytest

from conftest import READER, ROOT, THINGS, run_vsa

PYTHON = pathlib.Path(os.environ["TOL_RAY_PYTHON"])
IS_INSTALLED = any(PYTHON.parents[1].glob("lib/python3*/site-packages/pyarrow"))


def actors(mark):
    """The processes of this test that have opened models."""
    found = []
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if mark in (process / "environ").read_bytes():
                if "tolcompatible/_native" in (process / "maps").read_text():
                    found.append(int(process.name))
        except OSError:
            pass  # it has ended
    return found


@pytest.fixture
def short_path():
    """A folder for sockets, whose paths have a maximum length."""
    with tempfile.TemporaryDirectory() as folder:
        yield folder


@pytest.mark.skipif(not IS_INSTALLED, reason="Ray is not installed; run examples/ray/setup")
def test_lost_actor_loses_and_repeats_no_result(write_pipeline, tmp_path, short_path):
    pipeline = write_pipeline(THINGS, READER)
    names = []
    for i in range(80):
        names.append(str(tmp_path / f"{i}.png"))
        PIL.Image.new("RGB", (1500 + 10 * i, 1000), (i, 0, 0)).save(names[-1])
    expected = run_vsa(pipeline, *names)
    names.append(str(tmp_path / "none.png"))
    mark = f"TOL_TEST_MARK={tmp_path}".encode()
    environment = {
        **os.environ,
        "TOL_TEST_MARK": str(tmp_path),
        "HOME": short_path,
        "RAY_TMPDIR": short_path,
        "RAY_AUTH_MODE": "disabled",
    }
    command = [PYTHON, ROOT / "examples/ray/ray_data.py", "--workers", "2", "--cores", "1", pipeline]
    with open(tmp_path / "log", "wb") as log, subprocess.Popen(
        command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=log, env=environment, text=True
    ) as process:
        process.stdin.write("".join(f"{name}\n" for name in names))
        process.stdin.close()
        limit = time.monotonic() + 120
        while not actors(mark) and time.monotonic() < limit:
            time.sleep(0.05)
        killed = actors(mark)[0]
        os.kill(killed, signal.SIGKILL)
        lines = process.stdout.read().splitlines()
        assert process.wait(timeout=60) == 1, (tmp_path / "log").read_text()
    assert lines[:-1] == expected
    error = json.loads(lines[-1])
    assert error["input"] == names[-1] and "none.png" in error["error"]
