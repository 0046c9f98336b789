"""Every command of the documentation is run here, or is known to be run by something else.

Commands stand in code blocks marked "sh". A block runs as a script in a folder with the places that the pages name, with
tiny networks for models that nobody trained here. Blocks marked "sh export..." need the exporters' packages, which are
gigabytes: their pages say which versions they were tried with. Windows' commands are in blocks marked "bat".
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import time
import unittest
import wave

from vsa_case import EXAMPLES, MODELS, NETWORKS, ROOT, VSA, VsaCase

# Commands that something else runs, and the file that does.
ELSEWHERE = {
    r"scripts/(test|demo|verify|check-\w+)\b.*": ".ci/run",
    r"\.ci/run": ".github/workflows/ci.yml",
    r"scripts/setup|scripts/test \w+": "scripts/test",
    r"benchmarks/ratios.*": "benchmarks/ratios",
    r"cmake --preset release && .*": "tests/package_test.py",
    r"python3 -m venv ray && .*|ray/bin/.*": "tests/host/test_ray.py",
    r"\.deps/venv/bin/python examples/melservice/.*": "tests/host/test_docs.py",
}


def blocks():
    for page in [*ROOT.glob("*.md"), *sorted(ROOT.glob("docs/**/*.md")), *sorted(EXAMPLES.glob("**/*.md"))]:
        text = page.read_text("utf-8")
        for words, body in re.findall(r"^```(sh\b[^\n]*)\n(.*?)^```", text, re.MULTILINE | re.DOTALL):
            yield str(page.relative_to(ROOT)), words, body
        for line in re.findall(r"^ {4,}((?:scripts/|vsa |cmake --|benchmarks/|\.ci/).*)", text, re.MULTILINE):
            if "windows" not in page.name:
                yield str(page.relative_to(ROOT)), "not marked", line


class DocsTest(VsaCase):
    def network(self, name, *places):
        for place in places:
            place.parent.mkdir(parents=True, exist_ok=True)
            for file in NETWORKS.glob(f"{name}.*"):
                shutil.copy(file, place.with_suffix(file.suffix))

    def prepare(self):
        shutil.copytree(EXAMPLES, self.folder / "examples")
        (self.folder / ".deps").symlink_to(MODELS.parent)
        models = self.folder / "examples/pipelines/models"
        self.network("person640", models / "yolov8n_openvino_model/yolov8n", models / "yolov8n",
                     self.folder / "yolov8n")
        self.network("ones256", models / "person-reid")
        self.network("ones4", models / "sounds")
        self.network("ones7", *(self.folder / name for name in ("colour", "detection", "recognition", "person-reid")))
        for name in ("page.png", "picture.png", "one.jpg", "other.jpg", "scans/a.png", "scans/b.png", "more/c.jpg",
                     "pictures/d.png"):
            self.write_sign(name)
        (self.folder / "pictures.txt").write_text("scans/a.png\nscans/b.png\n")
        self.write_film(2).rename(self.folder / "clip.mp4")
        for name in ("siren.wav", "dog.wav"):
            with wave.open(str(self.folder / name), "wb") as file:
                file.setparams((1, 2, 16000, 0, "NONE", ""))
                file.writeframes(bytes(48000))
        pipeline = (EXAMPLES / "pipelines/yolo8.json").read_text("utf-8")
        pipeline = pipeline.replace('"models",', f'"{self.folder}",').replace("yolov8n_openvino_model", "")
        (self.folder / "yolo8.json").write_text(pipeline.replace('"coco.txt"', '"examples/pipelines/coco.txt"'))
        service = subprocess.Popen([sys.executable, EXAMPLES / "melservice/melservice.py"], stderr=subprocess.DEVNULL)
        self.addCleanup(service.wait)
        self.addCleanup(service.kill)
        time.sleep(1)

    @unittest.skipUnless(shutil.which("parallel"), "GNU parallel is not installed")
    def test_every_command_is_run(self):
        self.prepare()
        path = ":".join([*(str(pathlib.Path(program).parent) for program in (VSA, sys.executable)), os.environ["PATH"]])
        ran = 0
        for page, words, body in blocks():
            rest = []
            for line in body.splitlines():
                command = re.sub(r"\s+#.*", "", line).strip()
                proof = next((file for pattern, file in ELSEWHERE.items() if re.fullmatch(pattern, command)), None)
                self.assertTrue(proof is None or (ROOT / proof).exists(), proof)
                rest += [line] if proof is None and command else []
            if words.startswith("sh export") or not rest:
                continue
            with self.subTest(page=page, commands=rest):
                self.assertEqual(words, "sh")
                done = subprocess.run(["bash", "-euo", "pipefail", "-c", "\n".join(rest)], cwd=self.folder, timeout=200,
                                      capture_output=True, text=True, errors="replace", env={**os.environ, "PATH": path})
                self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
                ran += 1
        self.assertGreater(ran, 12)


if __name__ == "__main__":
    unittest.main()
