"""Runs every command of the documentation, or names the file that runs it.

Commands are in code blocks marked "sh". A block runs as a script in a folder with the files that
the pages name; tiny networks take the place of models. Blocks marked "sh export..." need the
exporters, which are gigabytes; their pages name the versions that were tried. Windows commands are
in blocks marked "bat".
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
    r"cmake --preset library && .*": ".ci/run",
    r"ray/bin/python examples/ray/ray_data.py .*": "python/tests/test_ray_data.py",
    r"ray/bin/(ray|python .* --address) .*|export RAY_.*": "python/tests/test_ray_cluster.py",
    r"(examples/ray/setup|python3 -m venv ray && .*|.*ray/bin/.*)": "tests/host/test_ray.py",
    r"(python/examples/setup|\. \.deps/supervision/bin/activate|export PYTHONPATH=.*|"
    r"python python/examples/.*)": "python/tests/test_examples.py",
    r"\.deps/venv/bin/python examples/melservice/.*": "tests/host/test_docs.py",
}


def code_blocks():
    """Yields page, language and text of each code block; commands outside blocks are an error."""
    pages = [*ROOT.glob("*.md"), *ROOT.glob("docs/**/*.md"), *EXAMPLES.glob("**/*.md")]
    for page in sorted(pages):
        text = page.read_text("utf-8")
        name = str(page.relative_to(ROOT))
        for language, body in re.findall(r"^```(sh\b[^\n]*)\n(.*?)^```", text, re.M | re.S):
            yield name, language, body
        indented = r"^ {4,}((?:scripts/|vsa |cmake --|benchmarks/|\.ci/).*)"
        for line in re.findall(indented, text, re.M) if "windows" not in name else []:
            yield name, "not marked", line


class DocsTest(VsaCase):
    def copy_network(self, name, *targets):
        for target in targets:
            (self.folder / target).parent.mkdir(parents=True, exist_ok=True)
            for file in NETWORKS.glob(f"{name}.*"):
                shutil.copy(file, self.folder / f"{target}{file.suffix}")

    def write_files(self):
        shutil.copytree(EXAMPLES, self.folder / "examples")
        (self.folder / ".deps").symlink_to(MODELS.parent)
        models = "examples/pipelines/models"
        self.copy_network("person640", f"{models}/yolov8n_openvino_model/yolov8n",
                          f"{models}/yolov8n", "yolov8n")
        self.copy_network("ones256", f"{models}/person-reid")
        self.copy_network("ones4", f"{models}/sounds")
        self.copy_network("ones7", "colour", "detection", "recognition", "person-reid")
        for name in ("page.png", "picture.png", "one.jpg", "other.jpg", "scans/a.png",
                     "scans/b.png", "more/c.jpg", "pictures/d.png"):
            self.write_sign(name)
        self.write("pictures.txt", b"scans/a.png\nscans/b.png\n")
        self.write_video(2).rename(self.folder / "clip.mp4")
        for name in ("siren.wav", "dog.wav"):
            with wave.open(str(self.folder / name), "wb") as file:
                file.setparams((1, 2, 16000, 0, "NONE", ""))
                file.writeframes(bytes(48000))
        pipeline = (EXAMPLES / "pipelines/yolo8.json").read_text("utf-8")
        for old, new in (('"models",', f'"{self.folder}",'), ("yolov8n_openvino_model", ""),
                         ('"coco.txt"', '"examples/pipelines/coco.txt"')):
            pipeline = pipeline.replace(old, new)
        self.write("yolo8.json", pipeline.encode())
        self.pipeline = self.folder / "text.json"
        self.use_text_models()

    def start_service(self):
        service = subprocess.Popen([sys.executable, EXAMPLES / "melservice/melservice.py"],
                                   stderr=subprocess.DEVNULL)
        self.addCleanup(service.wait)
        self.addCleanup(service.kill)
        time.sleep(1)

    @unittest.skipUnless(shutil.which("parallel"), "GNU parallel is not installed")
    def test_every_command_is_run(self):
        self.write_files()
        self.start_service()
        programs = [str(pathlib.Path(program).parent) for program in (VSA, sys.executable)]
        path = ":".join([*programs, os.environ["PATH"]])
        ran = 0
        for page, language, body in code_blocks():
            commands = []
            for line in body.splitlines():
                command = re.sub(r"\s+#.*", "", line).strip()
                runner = next((file for pattern, file in ELSEWHERE.items()
                               if re.fullmatch(pattern, command)), None)
                self.assertTrue(runner is None or (ROOT / runner).exists(), runner)
                if runner is None and command:
                    commands.append(line)
            if language.startswith("sh export") or not commands:
                continue
            with self.subTest(page=page, commands=commands):
                self.assertEqual(language, "sh")
                done = subprocess.run(["bash", "-euo", "pipefail", "-c", "\n".join(commands)],
                                      cwd=self.folder, timeout=200, capture_output=True, text=True,
                                      errors="replace", env={**os.environ, "PATH": path})
                self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
                ran += 1
        self.assertGreater(ran, 12)
