"""The example that compares recognised text with the true text."""

import contextlib
import io
import json
import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "examples/text"))

import compare  # noqa: E402


def frame_json(name, *texts):
    objects = [{"text": text, "score": 0.9} for text in texts]
    return json.dumps({"input": f"some/folder/{name}.png", "objects": objects})


class CompareTest(unittest.TestCase):
    def setUp(self):
        self.truth = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def run_on(self, *frames, options=()):
        """Returns the exit status and the output."""
        output = io.StringIO()
        with contextlib.redirect_stderr(io.StringIO()):
            status = compare.main(["-", str(self.truth), *options],
                                  stdin=io.StringIO("\n".join(frames)), stdout=output)
        return status, output.getvalue()

    def write(self, name, *lines):
        (self.truth / f"{name}.txt").write_text("\n".join(lines) + "\n", encoding="utf-8")

    def test_edit_distance(self):
        for a, b, edits in (("", "", 0), ("", "abc", 3), ("abcd", "bcd", 1),
                            ("kitten", "sitting", 3)):
            self.assertEqual(compare.edit_distance(a, b), edits, (a, b))
            self.assertEqual(compare.edit_distance(b, a), edits, (b, a))

    def test_counts(self):
        # Two equal lines, one with a wrong character, one without its space, one missed, and one
        # that does not exist.
        found = compare.Comparison(
            "p", [" Open  daily", "营业时间", "12.50", "Thank you", "谢谢惠顾", ""],
            ["12.50", "营业时问", "Thankyou", "Open daily ", "zzz"])
        self.assertEqual((found.lines, found.found), (5, 4))
        self.assertEqual((found.characters, found.right), (10 + 4 + 5 + 9 + 4, 10 + 3 + 5 + 8))
        self.assertEqual((found.misread, found.missed, found.extra),
                         ([("营业时间", "营业时问"), ("Thank you", "Thankyou")], ["谢谢惠顾"], ["zzz"]))

    def test_pairs(self):
        # 19.90 resembles both lines and is paired with the equal one, although it comes second.
        found = compare.Comparison("p", ["19.80", "19.90"], ["19.90"])
        self.assertEqual((found.right, found.missed, found.misread), (5, ["19.80"], []))
        # Of a line that is read twice, the second is extra.
        found = compare.Comparison("p", ["12.50"], ["12.50", "12.50"])
        self.assertEqual((found.right, found.extra), (5, ["12.50"]))
        # A line of at most twice the length can be paired; all surplus characters are edits.
        self.assertEqual(compare.Comparison("p", ["ab"], ["abxy"]).right, 0)
        self.assertEqual(compare.Comparison("p", ["ab"], ["abxyz"]).found, 0)

    def test_report_and_minimum(self):
        self.write("one", "abcd", "1234")
        self.write("two", "谢谢")
        frames = (frame_json("one", "abcd", "1239"), frame_json("two", "谢谢"))
        status, output = self.run_on(*frames)
        self.assertEqual(status, 0)
        self.assertEqual(output.splitlines()[3].split(),
                         ["total", "3", "3", "10", "9", "90.00", "%"])
        self.assertIn("  true    1234\n  read    1239\n", output)
        self.assertLessEqual(max(map(len, output.splitlines())), 80)
        for minimum, status in (("0.9", 0), ("0.91", 1)):
            self.assertEqual(self.run_on(*frames, options=["--minimum", minimum])[0], status)
        # An image without results counts unless --only-given.
        options = ["--minimum", "0.9"]
        self.assertEqual(self.run_on(frames[1], options=options)[0], 1)
        self.assertEqual(self.run_on(frames[1], options=[*options, "--only-given"])[0], 0)

    def test_bad_input(self):
        self.assertEqual(self.run_on(frame_json("one", "abcd"))[0], 2)  # no true texts
        self.write("one", "abcd")
        for bad in ("not json", "[]", '{"input": "one.png"}', '{"objects": []}',
                    frame_json("other", "x"), '{"input": "one.png", "objects": [{"text": 3}]}'):
            self.assertEqual(self.run_on(bad)[0], 2, bad)
