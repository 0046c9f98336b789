"""The commands compare-engines and bench on tiny networks."""

import json

from vsa_case import NETWORKS, YOLO8, ChainCase, VsaCase, png

DETECTOR = {**YOLO8, "modelFile": "one", "classNames": ["a"]}
ONNX_DETECTOR = {**DETECTOR, "engine": "ONNXRuntime", "modelFile": "one.onnx"}


class EnginesTest(VsaCase):
    def setUp(self):
        super().setUp()
        self.image = self.write("a.png", png(64, 64))
        self.equal = {"input": str(self.image), "OpenVINO": 1, "ONNXRuntime": 1, "matched": 1,
                      "pixels": 0, "score": 0, "same": True}

    def compare(self, *options, status=0, model=DETECTOR):
        self.use(model)
        return self.vsa("compare-engines", self.pipeline, self.image, *options, status=status)

    def test_equal_results(self):
        for model in (DETECTOR, ONNX_DETECTOR):
            self.assertEqual(json.loads(self.compare("--json", model=model)), self.equal)

    def test_equal_results_of_boxes_without_area(self):
        found = json.loads(self.compare("--json", model={**DETECTOR, "modelFile": "thin"}))
        self.assertEqual(found, {**self.equal, "OpenVINO": 2, "ONNXRuntime": 2, "matched": 2})

    def test_different_results(self):
        other = ["--other", NETWORKS / "two.onnx"]
        for pixels, score, same in ((3, 0.375, True), (2, 0.375, False), (3, 0.374, False)):
            out = self.compare("--json", *other, "--pixels", pixels, "--score", score,
                               status=0 if same else 1)
            expected = {**self.equal, "pixels": 3, "score": 0.375, "same": same}
            self.assertEqual(json.loads(out), expected)
        strict = {**DETECTOR, "scoreThreshold": 0.6}
        found = json.loads(self.compare("--json", *other, status=1, model=strict))
        self.assertEqual((found["OpenVINO"], found["ONNXRuntime"], found["matched"]), (1, 0, 0))
        self.assertIn("(differs)", self.compare(*other, status=1))

    def test_wrong_arguments(self):
        for options in (["--other", "none.onnx"], ["--other", NETWORKS / "two.xml"]):
            self.compare(*options, status=2)
        self.compare(status=2, model={**DETECTOR, "modelName": "YOLO8-OBB"})
        self.assertIn("YOLO8, YOLO5 and YOLO26 do", self.err)
        self.compare("none.png", status=1)

    def test_bench(self):
        self.use(DETECTOR, ChainCase.faces, ONNX_DETECTOR)
        command = ["bench", self.pipeline, self.image, "--runs", "20"]
        *models, total = json.loads(self.vsa(*command, "--json"))["models"]
        self.assertEqual([model["name"].split()[-2] for model in models],
                         ["YOLO8", "VsFaceNet", "YOLO8"])
        for entry in (*models, total):
            times = [0, *(entry[key] for key in ("medianMs", "p90Ms", "p99Ms", "maxMs"))]
            self.assertEqual(times, sorted(times))
        for model in models:  # the networks do nothing
            self.assertTrue(0 < model["outsideEngine"] < 1, model)
        self.check_width(self.vsa(*command).split("\n", 1)[1])
        self.vsa("bench", self.pipeline, "none.png", status=2)
        self.use({**ChainCase.detector, "modelFile": "empty"}, ChainCase.persons)
        self.vsa(*command)
        self.use({**DETECTOR, "classNames": ["a", "b"]})
        self.vsa(*command, status=2)
        self.assertIn("the network has 1 class: ", self.err)

    def test_bench_of_several_contexts(self):
        self.use(DETECTOR, ChainCase.faces)
        command = ["bench", "--runs", "20", "--contexts", "4,1,2,1", self.pipeline, self.image]
        rows = json.loads(self.vsa(*command, "--json"))["contexts"]
        self.assertEqual([row["contexts"] for row in rows], [1, 2, 4])
        for row in rows:
            self.assertEqual(len(row["framesPerSecondOfEach"]), row["contexts"])
            self.assertAlmostEqual(sum(row["framesPerSecondOfEach"]), row["framesPerSecond"], delta=0.01)
            self.assertGreater(min(row["medianMs"], *row["framesPerSecondOfEach"]), 0)
        table = self.vsa(*command)
        self.check_width(table.split("\n", 1)[1])
        self.assertEqual([line.split()[0] for line in table.splitlines()[2:]], ["1", "2", "4"])
        for count in ("0", "x", "1;2"):
            self.vsa("bench", self.pipeline, self.image, "--contexts", count, status=2)
        self.use({**DETECTOR, "classNames": ["a", "b", "c"], "classCount": 3})
        self.vsa(*command, status=1)
