"""The program vsa with the real text models."""

import json
import os
import re

from vsa_case import EXAMPLES, PICTURES, ChainCase, VsaCase, png


def words_of(line):
    """Drops spaces and punctuation, which depend on the model, not on the host."""
    return "".join(re.findall(r"\w", line))


class TextTest(VsaCase):
    def setUp(self):
        super().setUp()
        self.use_text_models()

    def test_reads_the_true_lines(self):
        frame, = self.run_json(self.write_sign())
        self.assertEqual((frame["frame"], frame["width"], frame["height"]), (0, 900, 680))
        self.assertNotIn("time", frame)
        read = {words_of(found["text"]) for found in frame["objects"]}
        true = set(map(words_of, (PICTURES / "sign.txt").read_text("utf-8").splitlines()))
        self.assertGreaterEqual(len(read & true), len(true) - 1, f"{read} {true}")
        for found in frame["objects"]:
            self.assertEqual([len(corner) for corner in found["corners"]], [2] * 4)
            self.assertGreaterEqual(found["score"], 0.6)
            self.assertEqual((found["className"], found["textScore"]), ("text", 1))
        self.vsa("run", self.pipeline, "sign.png", "--json-file", "out.jsonl")
        self.assertRegex(self.err, r"1 input, 1 frame, \d+ objects in")
        written = json.loads((self.folder / "out.jsonl").read_text("utf-8"))
        self.assertEqual(written["objects"], frame["objects"])
        self.vsa("run", "--quiet", self.pipeline, "sign.png")
        self.assertEqual(self.err, "")

    def test_dictionary_of_the_examples(self):
        # It adds the spaces to what the built-in dictionary reads.
        texts = []
        for names in (["paddleocr"], str(EXAMPLES / "pipelines/paddleocr.txt")):
            self.use_text_models(names)
            frame, = self.run_json(self.write_sign())
            texts.append([found["text"] for found in frame["objects"]])
        self.assertEqual([text.replace(" ", "") for text in texts[1]], texts[0])
        self.assertIn("Please wait here to be seated", texts[1])

    def test_plain_text(self):
        # The order is that of the page. The title may be misread.
        self.use_text_models(str(EXAMPLES / "pipelines/paddleocr.txt"))
        page = PICTURES / "newsletter.png"
        text = self.vsa("run", "--quiet", "--text", self.pipeline, page, page)
        self.assertEqual(self.err, "")
        first, second = text.split("\f")
        self.assertEqual(first, second)
        true = list(map(words_of, page.with_suffix(".txt").read_text("utf-8").splitlines()))
        self.assertEqual(list(map(words_of, first.splitlines()))[1:], true[1:])
        reported = [found["text"] for found in self.run_json(page)[0]["objects"]]
        self.assertEqual(reported, first.splitlines())
        for option in ("--json", "--stdin"):
            self.vsa("run", "--text", option, self.pipeline, page, status=2)
        self.use(ChainCase.detector)
        self.vsa("run", "--text", self.pipeline, page, status=2)
        self.check_error(".*--text: no model reads text")

    def test_annotated_images(self):
        inputs = [self.write_sign("a/sign.png"), self.write_sign("b/sign.png"),
                  self.write("b/white.png", png(50, 20))]
        before = [path.read_bytes() for path in inputs]
        # A link must not lead the output to an input.
        out = self.folder / "out"
        out.mkdir()
        (out / "white.png").symlink_to(inputs[2])
        self.vsa("run", self.pipeline, *inputs, "--output", "out")
        self.assertEqual(sorted(os.listdir(out)), ["sign-2.png", "sign.png", "white.png"])
        self.assertEqual(before, [path.read_bytes() for path in inputs])
        first, second = ((out / name).read_bytes() for name in ("sign.png", "sign-2.png"))
        self.assertEqual(first, second)
        self.assertEqual(first[16:24], before[0][16:24], "width and height")
        self.assertNotEqual(first, before[0])
        self.assertFalse((out / "white.png").is_symlink())

    def test_video(self):
        video = self.write_video(6)
        frames = self.run_json(video)
        self.assertEqual([frame["frame"] for frame in frames], list(range(6)))
        self.assertEqual([round(frame["time"], 2) for frame in frames], [0, .1, .2, .3, .4, .5])
        self.assertEqual(len(self.run_json(video, "--max-frames", "2")), 2)
