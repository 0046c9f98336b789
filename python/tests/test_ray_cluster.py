"""The examples with Ray on a cluster of two machines, one of which is lost. A machine is a set of
Linux namespaces, with a network interface, processes, shared memory and temporary files of its
own."""

import itertools
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time

import PIL.Image
import pytest

from conftest import READER, ROOT, THINGS, VSA, run_vsa

PYTHON = pathlib.Path(os.environ["TOL_RAY_PYTHON"])
# Runs a command in namespaces, which end with this process and end all processes in them.
ISOLATED = [
    *("setpriv", "--pdeathsig", "KILL"),
    *("unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "--mount-proc"),
]
CAN_ISOLATE = (
    all(map(shutil.which, ("ip", "nsenter", "setpriv", "unshare")))
    and subprocess.run([*ISOLATED, "true"], capture_output=True).returncode == 0
)


def wait_until(condition, message):
    limit = time.monotonic() + 120
    while not condition():
        assert time.monotonic() < limit, message
        time.sleep(0.05)


class Machine:
    """A machine of the cluster. Ray runs as soon as the object exists."""

    def __init__(self, number, cores, head=None):
        self.address = f"10.77.0.{number}"
        self.folder = tempfile.mkdtemp(prefix="r")  # short: sockets are in it
        self.environment = {**os.environ, "HOME": self.folder, "RAY_TMPDIR": self.folder}
        self.environment.update(RAY_AUTH_MODE="token", RAY_AUTH_TOKEN="0" * 64)
        mounts = f"mount -t tmpfs none {self.folder} && mount -t tmpfs none /dev/shm"
        self.process = subprocess.Popen(
            [*ISOLATED, "sh", "-c", f"{mounts} && exec sleep 900"], stderr=subprocess.DEVNULL
        )
        parent = self.process.pid
        children = pathlib.Path(f"/proc/{parent}/task/{parent}/children")
        wait_until(children.read_text, "the machine does not start")
        self.first = children.read_text().strip()  # the others run in its namespaces
        command = pathlib.Path(f"/proc/{self.first}/cmdline")
        wait_until(lambda: command.read_bytes().startswith(b"sleep"), "its folders are not mounted")
        self.run("ip", "link", "set", "lo", "up")
        role = ["--head", "--port", "6379"]
        if head:
            self.link_to(head)
            role = ["--address", f"{head.address}:6379"]
        else:
            self.run("ip", "address", "add", self.address, "dev", "lo")
        self.run(
            *(PYTHON, PYTHON.with_name("ray"), "start", *role, "--num-cpus", cores),
            *("--node-ip-address", self.address),
        )

    def link_to(self, head):
        name = f"link{self.address.split('.')[-1]}"
        ends = "netns", head.first, "type", "veth", "peer", "name", name, "netns", self.first
        subprocess.run(["ip", "link", "add", name, *ends], check=True)
        for machine, other in ((self, head), (head, self)):
            machine.run("ip", "address", "add", machine.address, "peer", other.address, "dev", name)
            machine.run("ip", "link", "set", name, "up")

    def start(self, *command, **options):
        """Starts a command on this machine."""
        enter = ["nsenter", "--target", self.first, "--mount", "--net", "--pid"]
        return subprocess.Popen(
            [*enter, *map(str, command)], env=self.environment, cwd="/", text=True, **options
        )

    def run(self, *command):
        output = subprocess.PIPE
        with self.start(*command, stdout=output, stderr=subprocess.STDOUT) as process:
            text = process.communicate(timeout=120)[0]
        assert process.returncode == 0, text

    def workers(self, mark):
        """The processes on this machine that have mapped the file `mark`."""
        found = []
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if os.readlink(process / "ns/pid") == os.readlink(f"/proc/{self.first}/ns/pid"):
                    if mark in (process / "maps").read_text():
                        found.append(int(process.name))
            except OSError:
                pass  # it has ended
        return found

    def lose(self):
        os.kill(int(self.first), signal.SIGKILL)
        self.process.wait()
        shutil.rmtree(self.folder)


@pytest.fixture
def images(tmp_path):
    names = []
    for i in range(160):
        names.append(str(tmp_path / f"{i}.png"))
        PIL.Image.new("RGB", (1500 + i, 1000), (i, 0, 0)).save(names[-1], compress_level=1)
    return names


@pytest.mark.skipif(not PYTHON.is_file(), reason="Ray is not installed; run examples/ray/setup")
@pytest.mark.skipif(not CAN_ISOLATE, reason="namespaces need root and iproute2")
def test_lost_workers_and_machines_lose_and_repeat_no_result(write_pipeline, tmp_path, images):
    pipeline = write_pipeline(THINGS, READER)
    expected = run_vsa(pipeline, *images)
    listed = tmp_path / "list.txt"
    listed.write_text("".join(f"{name}\n" for name in images))
    numbers = itertools.count(1)
    # Ray Data itself needs one core.
    machines = [head := Machine(next(numbers), cores=3)]
    try:
        machines.append(Machine(next(numbers), cores=2, head=head))
        for program, mark in (
            (["ray_data.py"], "tolcompatible/_native"),
            (["vsa_ray.py", "--vsa", VSA], VSA),
        ):
            options = "--address", "auto", "--workers", "2", "--cores", "2"
            with open(listed) as names, open(tmp_path / "log", "w") as log, head.start(
                *(PYTHON, ROOT / "examples/ray" / program[0], *program[1:], *options, pipeline),
                stdin=names, stdout=subprocess.PIPE, stderr=log,
            ) as process:
                for machine in machines:
                    wait_until(lambda: machine.workers(mark), f"nothing runs on {machine.address}")
                lines = [process.stdout.readline()]
                os.kill(head.workers(mark)[0], signal.SIGKILL)
                machines.pop().lose()
                machines.append(Machine(next(numbers), cores=2, head=head))
                lines += process.stdout
                assert process.wait() == 0, (tmp_path / "log").read_text()
            assert lines == [line + "\n" for line in expected], program
    finally:
        for machine in machines:
            machine.lose()
