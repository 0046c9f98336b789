"""The command line of vsa: help, options, manual page and the pipeline files in examples/."""

import pathlib
import re
import shutil
import subprocess
import unittest

from vsa_case import DOCUMENTED_MODELS, EXAMPLES, ROOT, VSA, ChainCase

COMMANDS = ("devices", "run", "compare", "doctor", "compare-engines", "bench")


class UsageTest(ChainCase):
    def test_help_fits_a_terminal_and_the_manual_has_every_option(self):
        manual = (ROOT / "docs/vsa.1").read_text("utf-8")
        for command in ([], *([name] for name in COMMANDS)):
            text = self.vsa(*command, "--help")
            self.check_width(text)
            self.assertIn("Exit status", text)
            for option in re.findall(r"--([a-z-]+)", text):
                self.assertIn("Fl -" + option.replace("-", r"\-"), manual)
        for command in COMMANDS:
            self.assertIn(f"Cm {command}", manual)

    def test_version_and_devices(self):
        self.assertRegex(self.vsa("--version"),
                         r"^vsa \d+\.\d+\.\d+ \(library interface pub\d+\)\n$")
        devices = set(self.vsa("devices").splitlines())
        self.assertLessEqual({"OpenVINO-CPU", "ONNXRuntime-CPU"}, devices)

    @unittest.skipUnless(shutil.which("mandoc"), "mandoc is not installed")
    def test_manual_page(self):
        done = subprocess.run(["mandoc", "-Tlint", "-Wwarning", ROOT / "docs/vsa.1"],
                              capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stdout), (0, ""))

    def test_wrong_usage(self):
        self.use(self.detector)
        pipeline = self.pipeline
        for options in (["--jsn"], ["--max-frames", "0"], ["--max-frames", "many"], ["--stdin"],
                        ["--max-side", "0"], ["--max-pixels", "715827883"]):
            self.check_usage_error("run", *options, pipeline, "x")
        self.vsa("rnu", pipeline, status=2)
        self.check_error(r'there is no command "rnu"; did you mean "run"\?')
        self.assertEqual(self.vsa("help", "run"), self.vsa("run", "--help"))
        self.assertEqual(self.vsa("run", "--version"), self.vsa("--version"))
        self.vsa("run", "--max-frames", "0", pipeline, "x", status=2)
        self.assertIn("0 is not a whole number of at least 1", self.err)
        for arguments in ([], ["run"], ["run", pipeline], ["compare", pipeline, "x"],
                          ["compare", pipeline, "x", "y", "z"], ["doctor"],
                          ["compare-engines", "--pixels", "-1", pipeline, "x"]):
            self.check_usage_error(*arguments)

    def check_usage_error(self, *arguments):
        self.vsa(*arguments, status=2)
        self.assertEqual(self.out, "")
        self.assertNotEqual(self.err, "")

    def test_pipelines_of_the_examples(self):
        for path in sorted(EXAMPLES.glob("pipelines/*.json")):
            with self.subTest(path.name):
                self.vsa("run", path, "none.png", status=(1, 2))
                # Everything is right except for the networks, most of which do not exist.
                self.assertRegex(self.err, r"there is no model file|none.png: no such file")

    def test_leaves_nothing_in_the_home_folder(self):
        """ONNX Runtime would write an identifier of the device there and send usage data."""
        home = self.folder / "home"
        home.mkdir()
        self.use({**self.detector, "engine": "ONNXRuntime", "modelFile": "things.onnx"})
        environment = {"HOME": str(home), "XDG_CACHE_HOME": "", "ORT_DISABLE_TELEMETRY": None}
        self.vsa("run", self.pipeline, "blue.png", **environment)
        self.vsa("doctor", self.pipeline, **environment)
        self.assertEqual(list(home.rglob("*")), [])

    def test_loads_no_library_from_the_current_folder(self):
        """An empty entry of the run path stands for the current folder."""
        for file in (VSA, *pathlib.Path(VSA).parents[1].glob("libTolCompatibleLib.so")):
            done = subprocess.run(["readelf", "-d", file], capture_output=True, text=True)
            for path in re.findall(r"R(?:UN)?PATH.*\[(.*)\]", done.stdout):
                self.assertNotIn("", path.split(":"))

    def test_every_model_has_an_example_and_a_page(self):
        examples = "".join(path.read_text("utf-8") for path in EXAMPLES.glob("pipelines/*.json"))
        used = re.findall(r'"category": "(.+)",\s+"modelName": "(.+)"', examples)
        self.assertEqual({" ".join(names) for names in used}, set(DOCUMENTED_MODELS))
        folder = ROOT / "docs/models"
        contents = (folder / "README.md").read_text("utf-8")
        pages = "".join(path.read_text("utf-8") for path in folder.glob("[a-z]*.md"))
        for name in (model.split()[1] for model in DOCUMENTED_MODELS):
            for text in (contents, pages):
                self.assertRegex(text, rf"(?<![\w-]){name}(?![\w-])")
