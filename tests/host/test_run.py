"""What the options of vsa run do with inputs and results, and how a run ends."""

import http.server
import json
import os
import random
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest

import onnx
from vsa_case import NETWORKS, PICTURES, VSA, YOLO8, ChainCase, parse_lines, png

if os.name != "nt":
    import fcntl
    import termios

# Characters that control a terminal or change the direction of text; "\n" ends lines.
CONTROLS = "[\x00-\x09\x0b-\x1f\x7f-\x9f\u061c\u200e\u200f\u202a-\u202e\u2066-\u2069]"


def tiff(*sizes):
    """A file with a white page of each size."""
    data = b"II*\0"
    for width, height in sizes:
        data += struct.pack("<I", len(data) + 4 + 3 * width * height)
        tags = ((256, width), (257, height), (258, 8), (259, 1), (262, 2),
                (273, len(data)), (277, 3), (278, height), (279, 3 * width * height))
        data += b"\xff" * (3 * width * height) + struct.pack("<H", len(tags))
        data += b"".join(struct.pack("<HHII", tag, 4, 1, value) for tag, value in tags)
    return data + bytes(4)


def avi(announced, present):
    """A video of raw pixels, 64 x 48 at 10 frames per second."""
    def chunk(name, data):
        return name + struct.pack("<I", len(data)) + data

    pixels = 64 * 48 * 3
    main = struct.pack("<14I", 100000, 0, 0, 0, announced, 0, 1, pixels, 64, 48, 0, 0, 0, 0)
    stream = struct.pack("<4s4s10I2I", b"vids", b"DIB ", 0, 0, 0, 1, 10, 0, announced, pixels, 0, 0,
                         0, 0)
    image = struct.pack("<IiiHHIIiiII", 40, 64, 48, 1, 24, 0, pixels, 0, 0, 0, 0)
    tracks = chunk(b"LIST", b"strl" + chunk(b"strh", stream) + chunk(b"strf", image))
    header = chunk(b"LIST", b"hdrl" + chunk(b"avih", main) + tracks)
    frames = chunk(b"LIST", b"movi" + chunk(b"00db", b"\x80" * pixels) * present)
    return chunk(b"RIFF", b"AVI " + header + frames)


class RunTest(ChainCase):
    def setUp(self):
        super().setUp()
        self.use(self.detector)

    def test_answers_standard_input_line_by_line(self):
        self.write("in/large.png", png(128, 64))
        self.write("in/other.png", png(64, 64))
        process = self.start(VSA, "run", "--stdin", "-q", self.pipeline)

        def answers(line, count):
            process.stdin.write(line + b"\n")
            process.stdin.flush()
            return [parse_lines(process.stdout.readline().decode())[0] for _ in range(count)]

        not_a_path = "the line is not a path"
        for line, error in (
                (b"blue.png", None), (b"none.png\r", "no such file"),
                (b"none*", "no file matches this pattern"), (b"\xff.png", "no such file"),
                (b"blue.png\0x", not_a_path), (b"x" * 1000000, not_a_path), (b"", "the line is empty"),
                (b"blue.png", None)):
            answer, = answers(line, 1)
            self.assertEqual(answer.get("error"), error)
            if error != not_a_path:
                self.assertEqual(answer["input"], line.decode(errors="replace").strip())
        self.assertEqual([answer["width"] for answer in answers(b"in", 2)], [128, 64])
        out, err = process.communicate(timeout=60)
        self.assertEqual((process.returncode, out), (1, b""))
        self.assertEqual(len(err.splitlines()), 6, err)

    def test_recorded_objects(self):
        self.write("other.png", png(128, 64))
        self.use(self.detector, self.reader)
        expected = self.run_json("blue.png", "other.png")
        self.use(self.detector)
        self.vsa("run", self.pipeline, "blue.png", "other.png", "--json-file", "found.jsonl")
        self.use(self.reader)
        self.assertEqual(self.run_json("blue.png", "other.png", "--objects", "found.jsonl"),
                         expected)
        # Shrunk frames do not move recorded boxes by rounding them twice.
        shrunk = self.run_json("blue.png", "other.png", "--objects", "found.jsonl",
                               "--max-side", "47")
        self.assertEqual([[found["box"] for found in frame["objects"]] for frame in shrunk],
                         [[found["box"] for found in frame["objects"]] for frame in expected])
        found = (self.folder / "found.jsonl").read_bytes()
        error = b'{"input":"blue.png","error":"x"}\n'
        bad_box = b'{"input":"a","frame":0,"width":9,"height":9,"objects":[{"box":[1]}]}'
        for name, content, status, sentence in (
                ("wide", found.replace(b'"width":64', b'"width":65'), 1,
                 "blue.png: in wide frame 0 has 65 x 64 .+"),
                ("other", error, 1, "blue.png: frame 0 is not in other"),
                ("deep", error + b"[" * 100000, 2, "deep: line 2: .+"),
                ("text", b"x", 2, "text: line 1: not JSON"),
                ("none", None, 2, "none: no such file"),
                ("box", bad_box, 2, "box: line 1: an array is missing or has another length")):
            if content is not None:
                self.write(name, content)
            self.vsa("run", self.pipeline, "blue.png", "--objects", name, status=status)
            self.check_error(sentence)

    @unittest.skipIf(sys.platform != "linux", "file names are bytes on Linux only")
    def test_names_that_are_not_utf8_stay_distinct(self):
        names = [b"\xfe.png", b"\xff.png", "\ufffd.png".encode()]
        for side, name in enumerate(names, 64):
            with open(os.fsencode(self.folder) + b"/" + name, "wb") as file:
                file.write(png(side, side))
        found = self.run_json(*map(os.fsdecode, names), "--crops", "crops")
        self.assertEqual([bytes.fromhex(frame.get("inputHex", "")) for frame in found],
                         [*names[:2], b""])
        self.assertEqual({frame["input"] for frame in found}, {"\ufffd.png"})
        for frame, name in zip(found[:2], names):
            crop = bytes.fromhex(frame["objects"][0]["cropHex"])
            self.assertEqual(crop, b"crops/" + name.replace(b".png", b"-1.png"))
        self.write("found.jsonl", self.out.encode())
        self.use(self.reader)
        frames = self.run_json(*map(os.fsdecode, names), "--objects", "found.jsonl")
        self.assertEqual([frame["width"] for frame in frames], [64, 65, 66])
        self.write("found.jsonl", self.out.replace('"fe', '"f').encode())
        self.vsa("run", self.pipeline, "blue.png", "--objects", "found.jsonl", status=2)
        self.check_error("found.jsonl: line 1: inputHex is not an even number of hexadecimal digits")

    def test_failure_of_a_model(self):
        # The coordinates of a box exceed 32 bits.
        self.use({**self.detector, "modelFile": "beyond"}, self.reader)
        frame, = self.run_json("blue.png", status=1)
        self.assertEqual((frame["failedModels"], frame["objects"]), ([0, 1], []))
        self.check_error(r"blue.png: frame 0: models\[0\] YOLO26 \(Detect\): .+")
        self.assertNotIn("frame 0: models[1]", self.err)

    def test_never_overwrites_inputs(self):
        before = self.write("in/blue.png", png(64, 64)).read_bytes()
        (self.folder / "link").symlink_to(self.folder / "in")
        for arguments in (["--output", "in"], ["--output", "link"], ["--output", self.pipeline],
                          ["--json-file", "in/blue.png"], ["--json-file", self.pipeline],
                          ["--output", "out", "--font", self.pipeline]):
            self.vsa("run", self.pipeline, "in", *arguments, status=2)
        self.assertFalse((self.folder / "out").exists())  # not created for a wrong font
        self.assertEqual(before, (self.folder / "in/blue.png").read_bytes())

    def test_shrinks_and_crops(self):
        self.write("big.png", png(640, 320))
        frame, = self.run_json("big.png", "--max-side", "64", "--crops", "crops", "--output", "out")
        self.assertEqual([(found["box"], found["crop"]) for found in frame["objects"]],
                         [([80, 40, 400, 280], "crops/big-1.png"),
                          ([300, 100, 500, 320], "crops/big-2.png")])
        for name, size in (("crops/big-1.png", (320, 240)), ("crops/big-2.png", (200, 220)),
                           ("out/big.png", (640, 320))):
            header = (self.folder / name).read_bytes()[16:24]
            self.assertEqual(struct.unpack(">II", header), size)

    def test_chosen_classes_and_wrong_options(self):
        for only, names in (("person", ["person"]), ("person,car", ["car", "person"])):
            frame, = self.run_json("blue.png", "--only", only)
            self.assertEqual([found["className"] for found in frame["objects"]], names)
        for options, sentence in (
                (["--only", "cra"], '--only: .* "cra"; did you mean "car"'),
                (["--crops", "x", "--output", "x"], "must be different folders"),
                (["--crops", "."], "is in the output folder")):
            self.vsa("run", self.pipeline, "blue.png", *options, status=2)
            self.assertRegex(self.err, sentence)

    def test_bad_inputs_do_not_stop_a_run(self):
        def bmp(side):
            return b"BM" + struct.pack("<IHHIIiiHHIIiiII", 54, 0, 0, 54, 40, side, side, 1, 24,
                                       *[0] * 6)

        def jpeg(side):
            photo = (PICTURES / "hike.jpg").read_bytes()
            start = re.search(rb"\xff[\xc0\xc2]..\x08", photo, re.DOTALL).end()
            return photo[:start] + struct.pack(">HH", side, side) + photo[start + 4:]

        limit = r"its 20000 x 20000 pixels are more than the limit of 200000000 \(run --max-pixels\)"
        header = "its header claims more .+"
        self.write("good.png", png(10, 10000))
        (self.folder / "empty").mkdir()
        self.write("in/deep/good.png", png(64, 64))
        os.mkfifo(self.folder / "pipe.png")
        (self.folder / "pipes").mkdir()
        os.mkfifo(self.folder / "pipes/pipe.png")
        for name, content, sentence in (
                ("a.png", png(100000, 100000, rows=b""), header),
                ("b.png", png(20000, 20000, rows=b""), limit),
                ("c.bmp", bmp(100000), header),
                ("d.bmp", bmp(20000), limit),
                ("e.jpg", jpeg(60000), header),
                ("f.jpg", jpeg(20000), limit),
                ("g.pgm", b"P5 20000 20000 255 x", limit),
                ("cut.y4m", self.write_video(9).read_bytes()[:300], "no frame can be read"),
                ("text.png", b"not an image", ".+"),
                ("void.jpg", b"", ".+"),
                ("text.mp4", b"not a video", ".+"),
                ("cut.png", png(400, 300)[:60], ".+"),
                ("none.png", None, "no such file"),
                ("none*.png", None, ".+"),
                ("empty", None, "no image or video in this folder"),
                ("in", None, "no image or video in this folder, but in folders below it; -r .+"),
                ("pipe.png", None, "not a regular file"),
                ("pipes", None, None)):
            if content is not None:
                self.write(name, content)
            self.assertEqual(len(self.run_json(name, "good.png", status=1)), 1, name)
            self.check_error(f"{re.escape(name)}: {sentence}" if sentence else
                             "pipes/pipe.png: not a regular file")
            self.assertIn("1 input failed", self.err)
        video = self.write_video(3)
        self.assertEqual(self.run_json(video, "good.png", "--max-pixels", 3000, status=1), [])
        self.check_error(f"{video}: its 64 x 48 pixels are more than the limit of 3000 "
                         r"\(run --max-pixels\)")
        self.assertIn("2 inputs failed", self.err)

    def test_videos_that_end_early(self):
        self.write("whole.avi", avi(announced=10, present=10))
        self.write("cut.avi", avi(announced=100, present=10))
        self.assertEqual(len(self.run_json("whole.avi")), 10)
        done = subprocess.run([VSA, "run", "--stdin", self.pipeline, "--output", "out"],
                              input=b"cut.avi\nwhole.avi\n", cwd=self.folder, capture_output=True)
        sentence = "the video ends after 10 of about 100 frames"
        lines = parse_lines(done.stdout.decode())
        self.assertEqual([line.get("error") for line in lines],
                         [None] * 10 + [sentence] + [None] * 10)
        self.assertEqual(done.returncode, 1)
        self.assertIn(f"vsa: cut.avi: {sentence}\n", done.stderr.decode())
        self.assertEqual(len(self.run_json("out/cut.mp4")), 10)

    def test_pages_of_a_tiff_file(self):
        pages = tiff((64, 64), (128, 64), (64, 200))
        self.write("scan.tiff", pages)
        frames = self.run_json("scan.tiff", "--output", "out", "--crops", "crops")
        self.assertEqual([(frame["frame"], frame["page"], frame["pages"], frame["width"])
                          for frame in frames], [(0, 1, 3, 64), (1, 2, 3, 128), (2, 3, 3, 64)])
        self.assertEqual(frames[1]["objects"][0]["crop"], "crops/scan-2-1.png")
        self.assertEqual(sorted(os.listdir(self.folder / "out")),
                         ["scan-1.tiff", "scan-2.tiff", "scan-3.tiff"])
        self.assertNotIn("page", self.run_json(self.write("one.tif", tiff((64, 64))))[0])
        self.assertIn("scan.tiff: page 2 of 3, 128 x 64, 2 objects\n",
                      self.vsa("run", self.pipeline, "scan.tiff", "--max-frames", "2"))
        self.write("cut.tiff", pages[:-1000])
        self.assertEqual(len(self.run_json("cut.tiff", status=1)), 2)
        self.check_error("cut.tiff: page 3 is damaged")

    @unittest.skipIf(os.name == "nt", "such names are not possible")
    def test_names_are_neither_protocols_nor_commands(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            server.settimeout(0)
            names = ["10:30:05.y4m", f"tcp:127.0.0.1:{server.getsockname()[1]}.y4m",
                     "-\x1b[31m\u202e\u2066\u200f\x9b.y4m"]
            for name in names:
                self.write_video(2).rename(self.folder / name)
            self.assertEqual(len(self.run_json("--output", "10:30", "--", *names)), 6)
            self.assertEqual(sorted(os.listdir(self.folder / "10:30")),
                             sorted(name.replace("y4m", "mp4") for name in names))
            self.assertRaises(BlockingIOError, server.accept)
        self.write(names[2] + "\n.png", b"text")
        self.vsa("run", self.pipeline, "--", *names, *self.folder.glob("*.png"), status=1)
        self.assertNotRegex(self.out + self.err, CONTROLS)
        self.assertIn("-\ufffd[31m\ufffd\ufffd\ufffd\ufffd.y4m\ufffd.png: ", self.err)
        self.vsa("run", self.pipeline, "--no\x1b[31m\nvsa: x", status=2)
        self.assertIn("--no\ufffd[31m\ufffdvsa: x", self.err)
        self.vsa("run", "a\nvsa: b.json", "blue.png", status=2)
        self.assertEqual(self.err, "vsa: a\ufffdvsa: b.json: no such file\n")

    def test_options_take_files_with_any_name(self):
        self.pipeline.rename(self.folder / "-p.json")
        self.write("-i.png", png(64, 64))
        self.vsa("run", "--json-file", "-found", "-o", "-out", "--crops", "http:", "--", "-p.json",
                 "-i.png")
        self.assertEqual(len(list((self.folder / "http:").iterdir())), 2)
        self.assertTrue((self.folder / "-out/-i.png").is_file())
        self.assertIn(", 4 objects\n",
                      self.vsa("run", "--objects", "-found", "--", "-p.json", "-i.png"))
        shutil.copy(NETWORKS / "one.onnx", self.folder / "tcp:1.onnx")
        self.vsa("doctor", "--write", "-w.json", "tcp:1.onnx")
        self.assertIn(": ok", self.vsa("doctor", "--", "-w.json"))
        self.vsa("run", "tcp:1.onnx", "blue.png")

    def test_messages_of_engines_cannot_control_a_terminal(self):
        # ONNX Runtime warns of the wrong shape and adds colours.
        name = "\x1b]0;x\x07\u202e"
        floats = onnx.TensorProto.FLOAT
        graph = onnx.helper.make_graph(
            [onnx.helper.make_node("Identity", ["value"], [name])], "x",
            [onnx.helper.make_tensor_value_info("images", floats, [1, 3, 64, 64])],
            [onnx.helper.make_tensor_value_info(name, floats, [1, 5, 2])],
            [onnx.helper.make_tensor("value", floats, [1, 5, 1], [32, 32, 20, 20, 0.875])])
        model = onnx.helper.make_model(
            graph, opset_imports=[onnx.helper.make_opsetid("", 13)], ir_version=8)
        onnx.save(model, self.folder / "wrong.onnx")
        self.use({**YOLO8, "engine": "ONNXRuntime", "modelFile": "wrong.onnx",
                  "classNames": [name]}, root=self.folder)
        self.vsa("run", "-q", self.pipeline, "blue.png")
        shown = "\ufffd]0;x\ufffd\ufffd"
        self.assertRegex(self.err, rf"^vsa: [^\[]*\[W:onnxruntime:.+'{re.escape(shown)}'.+merge\.\n$")
        self.assertIn(f"  {shown}  ", self.out)
        self.assertNotRegex(self.out + self.err, CONTROLS)

    def test_passwords_are_never_shown(self):
        video = self.write_video(3).read_bytes()

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                self.wfile.write(b"HTTP/1.0 200 OK\r\n\r\n" + video)

            log_message = lambda *_: None

        with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler) as server:
            threading.Thread(target=server.serve_forever, daemon=True).start()
            host = f"127.0.0.1:{server.server_port}"
            addresses = [f"http://me:hush@{host}", f"http://{host}/?user=me&password=hush"]
            frames = self.run_json(*addresses, "--output", "out", "--json-file", "found")
            self.vsa("run", self.pipeline, f"http://me:hush@{host}")
            self.assertIn(f"http://me:***@{host}: frame 2", self.out)
            server.shutdown()
        inputs = [f"http://me:***@{host}", f"http://{host}/?user=me&password=***"]
        self.assertEqual([frame["input"] for frame in frames], sorted(inputs * 3, reverse=True))
        self.vsa("run", self.pipeline, f"http://me:hush@{host}/", status=1)
        self.check_error(rf"http://me:\*\*\*@{host}/: the stream cannot be opened")
        names = os.listdir(self.folder / "out")
        self.assertEqual(len(names), 2)
        self.assertNotIn("hush", str(names) + (self.folder / "found").read_text() + self.err)

    def test_links_to_folders_are_not_followed(self):
        (self.folder / "deep/er").mkdir(parents=True)
        for name in ("deep/er/loop", "deep/self"):
            (self.folder / name).symlink_to(self.folder / "deep")
        self.write("deep/er/1.png", png(1, 1))
        self.assertEqual(len(self.run_json("deep", "--recursive")), 1)


class EndTest(ChainCase):
    """How a run ends early."""

    def setUp(self):
        super().setUp()
        self.use(self.detector)

    @unittest.skipIf(os.name == "nt", "needs POSIX signals")
    def test_results_are_complete_after_a_signal(self):
        video = self.write_video(5000)
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            process = self.start(VSA, "run", self.pipeline, "--json", video, "--output", "out")
            lines = [process.stdout.readline() for _ in range(3)]
            process.send_signal(number)
            out = process.stdout.read()  # communicate() would lose what readline() has buffered
            err = process.stderr.read().decode()
            self.assertEqual(process.wait(timeout=60), 128 + number, err)
            frames = [json.loads(line) for line in lines + out.splitlines()]
            self.assertLess(len(frames), 5000)
            self.assertRegex(err, rf"^vsa: interrupted\n1 input, {len(frames)} frames")
            self.assertEqual(len(self.run_json(self.folder / "out/video.mp4")), len(frames))

    @unittest.skipIf(os.name == "nt", "needs POSIX signals")
    def test_signal_while_standard_input_is_read(self):
        for number, rest in ((signal.SIGINT, b""), (signal.SIGTERM, b"blue.p")):
            process = self.start(VSA, "run", "--stdin", "--quiet", self.pipeline)
            process.stdin.write(b"blue.png\n" + rest)
            process.stdin.flush()
            process.stdout.readline()
            time.sleep(0.3)  # until it waits for the rest of the line
            process.send_signal(number)
            self.assertEqual(process.wait(timeout=10), 128 + number)
            self.assertEqual(process.stdout.read(), b"")
            self.assertEqual(process.stderr.read(), b"vsa: interrupted\n")

    @unittest.skipIf(os.name == "nt", "needs POSIX signals")
    def test_same_signal_again_after_a_moment(self):
        # "timeout" sends it twice, and so do shell and kernel if a terminal is closed.
        video = self.write_video(5000)
        for _ in range(5):
            process = self.start(VSA, "run", self.pipeline, "--quiet", video, "--output", "out")
            process.stdout.readline()
            for _ in range(5):
                process.send_signal(signal.SIGHUP)
                time.sleep(0.002)
            process.stdout.read()
            self.assertEqual(process.wait(timeout=60), 128 + signal.SIGHUP)
            self.assertEqual(process.stderr.read(), b"vsa: interrupted\n")

    @unittest.skipIf(os.name == "nt", "needs POSIX signals")
    def test_second_signal_ends_at_once(self):
        process = self.start(VSA, "run", self.pipeline, "--json", self.write_video(5000))

        def unread():
            return fcntl.ioctl(process.stdout, termios.FIONREAD, b"\0" * 4)

        before = b""
        while before in (b"", b"\0" * 4) or unread() != before:  # until the pipe is full
            before = unread()
            time.sleep(0.5)
        process.send_signal(signal.SIGHUP)
        time.sleep(0.5)
        self.assertIsNone(process.poll())
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(timeout=10), -signal.SIGTERM)

    def test_closed_standard_output(self):
        video = self.write_video(500)
        for options, end in (([], "the run ends"),
                             (["--output", "out"], "they are only written to the files"),
                             (["--json-file", "found"], "they are only written to the files")):
            process = self.start(VSA, "run", self.pipeline, video, *options)
            process.stdout.readline()
            process.stdout.close()
            err = process.stderr.read().decode()
            self.assertEqual(process.wait(timeout=60), 1)
            self.assertRegex(err, rf"^vsa: no results can be printed; {end}\n1 input, ")
            self.assertEqual("1 input, 500 frames, 1000 objects" in err, bool(options), err)
        self.assertEqual(len(self.run_json("out/video.mp4")), 500)
        self.assertEqual(len(parse_lines((self.folder / "found").read_text())), 500)

    @unittest.skipUnless(os.path.exists("/dev/full"), "needs /dev/full")
    def test_full_device(self):
        frame, = self.run_json("blue.png", "--json-file", "/dev/full", status=1)
        self.assertEqual(len(frame["objects"]), 2)
        self.check_error("/dev/full: the file cannot be written; it ends after 0 lines")

    def test_full_disk(self):
        disk = self.folder / "disk"
        disk.mkdir()
        mount = ["mount", "-t", "tmpfs", "-o", "size=8k", "none", disk]
        if shutil.which("mount") is None or subprocess.run(mount, stderr=-1).returncode != 0:
            self.skipTest("a full disk needs the right to mount a tmpfs")
        self.addCleanup(subprocess.run, ["umount", disk], check=True)
        rows = b"".join(b"\0" + random.Random(i).randbytes(600) for i in range(200))
        image = self.write("noise.png", png(200, 200, rows=rows))
        video = self.write_video(300)
        for input_, option, kind, count in ((video, "--output", "video", 300),
                                            (image, "--output", "image", 1),
                                            (image, "--crops", "image", 1)):
            frames = self.run_json(input_, option, "disk", status=1)
            self.assertEqual([len(frame["objects"]) for frame in frames], [2] * count)
            self.assertNotIn("crop", str(frames))
            self.check_error(rf"{input_}: disk/.+: the {kind} could not be written completely "
                             "and was removed")
            self.assertIn("1 input failed", self.err)
            self.assertEqual(list(disk.iterdir()), [])
        lines = self.run_json(video, "--json-file", "disk/found.jsonl", status=1)
        self.check_error(rf"disk/found.jsonl: .+; it ends after {len(lines) - 1} lines")
        self.assertEqual(parse_lines((disk / "found.jsonl").read_text()), lines[:-1])
