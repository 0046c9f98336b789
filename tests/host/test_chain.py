"""Chains of models over images: what each model adds, the table, and vsa compare."""

import math

from vsa_case import ChainCase, parse_lines, png


class ChainTest(ChainCase):
    def test_every_model_adds_its_part(self):
        self.use(self.detector, self.classifier, self.persons, self.reader)
        frame, = self.run_json("blue.png", "--output", "out")
        features = [found.pop("feature") for found in frame["objects"]]
        self.assertEqual([len(feature) for feature in features], [256, 256])
        more = {"classifyName": "blue", "classifyId": 1, "classifyScore": 0.75, "text": "七A七",
                "textScore": 1}
        self.assertEqual(frame["objects"], [
            {"className": "car", "classId": 0, "box": [8, 4, 40, 28], "score": 0.75, **more},
            {"className": "person", "classId": 1, "box": [30, 10, 50, 44], "score": 0.875, **more}])
        self.assertRegex(
            self.vsa("run", self.pipeline, "blue.png"),
            r"(?m)^  1  0.750  car     8,4 40,28    blue 0.750  256 numbers  七A七$")
        self.assertNotEqual((self.folder / "out/blue.png").read_bytes(),
                            (self.folder / "blue.png").read_bytes())

    def test_objects_without_an_area_are_removed_before_regions_are_cut_out(self):
        empty = {**self.detector, "modelFile": "empty"}
        self.use(empty)
        self.assertEqual(len(self.run_json("blue.png")[0]["objects"]), 3)
        self.assertNotIn("area", self.err)
        for model, key in ((self.classifier, "classifyName"), (self.persons, "feature"),
                           (self.faces, "feature"), (self.reader, "text")):
            self.use(empty, model)
            objects = self.run_json("blue.png")[0]["objects"]
            self.assertEqual([found["className"] for found in objects], ["car", "person"])
            self.assertTrue(all(key in found for found in objects))
            self.assertRegex(self.err, r"  1 object without an area removed before models\[1\] ")

    def test_padding(self):
        self.write("wide.png", png(128, 64))
        self.write("high.png", png(32, 64))
        boxes = {None: ([[16, 8, 80, 56], [60, 88, 100, 20], [60, 80, 100, 64]],
                        [[8, 4, 32, 28], [30, 44, 32, 10], [30, 40, 32, 60]]),
                 114: ([[16, 8, 80, 56]], [[8, 4, 32, 28], [30, 44, 32, 10], [30, 40, 32, 60]])}
        for padding, expected in boxes.items():
            more = {} if padding is None else {"padding": padding}
            self.use({**self.detector, "modelFile": "empty", **more})
            frames = self.run_json("wide.png", "high.png")
            self.assertEqual(tuple([found["box"] for found in frame["objects"]]
                                   for frame in frames), expected)

    def test_wanted_names(self):
        self.use(self.detector, {**self.classifier, "wantedLabels": ["red", "green"]}, self.faces)
        self.assertEqual(self.run_json("blue.png")[0]["objects"], [])
        self.use({**self.detector, "wantedClasses": ["car"]}, self.faces)
        objects = self.run_json("blue.png")[0]["objects"]
        self.assertEqual([len(found["feature"]) for found in objects], [128])

    def test_angles_key_points_and_outlines(self):
        box = {"box": [8, 16, 40, 32], "score": 0.75, "classId": 0, "className": "car"}
        points = [[10, 20], [30, 20], [20, 28]]
        outline = [[9, 16], [8, 17], [8, 30], [9, 31], [38, 31], [39, 30], [39, 17], [38, 16]]
        for name, network, count, more in (
                ("YOLO8-OBB", "turned", 2, {"angle": 0.5}),
                ("YOLO8-POSE", "points", 3, {"shapes": [{"tag": 5, "points": points}]}),
                ("YOLO8-Seg", "outline", 2, {"shapes": [{"tag": 10, "points": outline}]})):
            with self.subTest(name):
                self.use({**self.detector, "modelName": name, "modelFile": network,
                          "classCount": count, "nmsThreshold": 0.5})
                self.assertEqual(self.run_json("blue.png")[0]["objects"], [{**box, **more}])


class CompareTest(ChainCase):
    def test_similarity(self):
        self.write("red.png", png(64, 64, (255, 0, 0)))
        images = ("blue.png", "red.png")
        for embedding in (self.persons, self.faces):
            self.use(self.detector, embedding)
            found, = parse_lines(self.vsa("compare", "--json", self.pipeline, *images))
            first, second = (best["feature"] for best in found["objects"])
            product = sum(map(float.__mul__, first, second))
            cosine = product / math.hypot(*first) / math.hypot(*second)
            self.assertAlmostEqual(found["similarity"], cosine, 6)
            for best, name in zip(found["objects"], images, strict=True):
                self.assertEqual((best["input"], best["className"], best["box"]),
                                 (name, "person", [30, 10, 50, 44]))
            table = self.vsa("compare", self.pipeline, *images)
            self.assertIn("person  30,10 50,44", table)
            self.assertTrue(table.endswith(f"cosine similarity {cosine:.4f}\n"), table)

    def test_failures(self):
        nothing = {**self.detector, "modelFile": "nothing"}
        beyond = {**self.detector, "modelFile": "beyond"}
        zeros = {**self.persons, "modelFile": "zeros"}
        narrow = {**self.persons, "inputWidth": 17}
        flat = {**self.detector, "modelFile": "empty", "scoreThreshold": 0.8}
        for models, image, status, sentence in (
                ([nothing, self.persons], "blue.png", 1, "blue.png: no object was found"),
                ([self.detector], "blue.png", 1, "blue.png: no object has a feature vector; .+"),
                ([self.detector, zeros], "blue.png", 1, "all numbers of a feature vector are zero"),
                ([self.detector, narrow], "blue.png", 2,
                 r".+: models\[1\]: inputWidth x inputHeight is 17 x 32 and .+"),
                ([beyond, self.persons], "blue.png", 1,
                 r"blue.png: models\[0\] YOLO26 \(Detect\): the model refused the frame"),
                ([flat, self.persons], "blue.png", 1,
                 "blue.png: no object with an area was found"),
                ([self.detector, self.persons], "none.png", 1, "none.png: no such file"),
                ([{**self.detector, "modelName": "YOLO0"}], "blue.png", 2,
                 r".+: models\[0\]: the library has no model .+"),
                ([{**self.classifier, "modelName": "AudioNet"}], "blue.png", 2,
                 ".+: compare takes images, not audio")):
            with self.subTest(sentence):
                self.use(*models)
                self.vsa("compare", self.pipeline, "blue.png", image, status=status)
                self.assertEqual(self.out, "")
                self.check_error(sentence)
