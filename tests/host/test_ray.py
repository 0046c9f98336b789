"""The example that spreads vsa over processes and machines with Ray."""

import json
import os
import pathlib
import signal

from vsa_case import EXAMPLES, VSA, ChainCase, png


class RayTest(ChainCase):
    def start_ray(self, *options):
        python = pathlib.Path(os.environ["TOL_RAY_PYTHON"])
        if not python.is_file():
            self.skipTest(f"Ray is not installed: {python} does not exist; run examples/ray/setup")
        return self.start(
            python, EXAMPLES / "ray/vsa_ray.py", "--vsa", self.folder / "vsa", "--workers", "2",
            "--cores", "1", *options, self.pipeline, stderr=None,
            env={**os.environ, "HOME": str(self.folder), "RAY_TMPDIR": str(self.folder),
                 "RAY_AUTH_MODE": "disabled"})

    def write_program(self, script):
        """Takes the place of vsa."""
        self.write("vsa", b"#!/bin/sh\n" + script.encode()).chmod(0o755)

    def test_killed_process_loses_and_repeats_no_result(self):
        self.use(self.detector, self.reader)
        names = [self.write(f"{i}.png", png(1500 + 10 * i, 1000)) for i in range(80)]
        names.append(self.folder / "none.png")
        expected = self.vsa("run", "--json", self.pipeline, *names, status=1).splitlines(True)
        started = self.folder / "started"
        started.mkdir()
        self.write_program(f'touch "{started}/$$"\nexec "{VSA}" "$@"\n')
        process = self.start_ray()
        process.stdin.write("".join(f"{name}\n" for name in names).encode())
        process.stdin.close()
        first = process.stdout.readline()
        os.kill(int(min(os.listdir(started))), signal.SIGKILL)
        lines = [line.decode() for line in (first, *process.stdout)]
        self.assertEqual(process.wait(timeout=60), 1)
        self.assertEqual(lines[:-1], expected)
        self.assertEqual(json.loads(lines[-1]), {"error": "no such file", "input": str(names[-1])})
        self.assertEqual(len(os.listdir(started)), 3)  # one of two was started again

    def test_failures_do_not_affect_other_images(self):
        self.write_program("""while read -r path; do
  case $path in
    hang*) sleep 1000 ;;
    die*) exit 3 ;;
    lose*) kill -9 $PPID ;;
    folder) echo '{"input":"folder/a"}' ;;
    bytes*) path=$(printf 'bytes\\357\\277\\275') ;;
  esac
  echo '{"input":"'$path'"}'
done
""")
        vsa_failed = "vsa failed 3 times"
        errors = {b"hang": vsa_failed, b"die": vsa_failed, b"lose": "the worker failed 3 times",
                  b"folder": "not a single image; list the files of a folder instead",
                  b"bytes\xff": None}
        names = []
        for i, bad in enumerate(errors):
            names += [*(b"%d.png" % (4 * i + j) for j in range(4)), bad]
        out, _ = self.start_ray("--seconds", "2").communicate(b"\n".join(names), timeout=100)
        answers = list(map(json.loads, out.splitlines()))
        self.assertEqual([(answer["input"], answer.get("error")) for answer in answers],
                         [(name.decode(errors="replace"), errors.get(name)) for name in names])
