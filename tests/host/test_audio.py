"""Audio through a spectrogram service on port 9555, which the tests provide themselves."""

import base64
import http.server
import json
import os
import random
import struct
import sys
import threading
import unittest

from vsa_case import VsaCase, png

PCM = 1  # WAVE format codes
FLOAT = 3


def spectrum(low, high):
    """The network's scores are low + 100 for the first class, high + 100 for the second."""
    rows = [[float(low)] * 20] * 8 + [[float(high)] * 20] * 8
    return {"code": 1000, "msg": "", "mels": 16, "time_steps": 20, "mel_spec": rows}


class AudioTest(VsaCase):
    model = {"category": "Classify", "modelName": "AudioNet", "modelFile": "pitch",
             "classNames": ["low", "high"], "inputWidth": 20, "inputHeight": 16,
             "scoreThreshold": 0.6}

    def setUp(self):
        super().setUp()
        self.use(self.model, blockSeconds=0.2)

    def write_wav(self, name, samples, rate=16000, channels=1, code=PCM, size=2):
        """`size` is the number of bytes of a sample."""
        header = struct.pack("<4sIHHIIHH", b"fmt ", 16, code, channels, rate,
                             rate * channels * size, channels * size, 8 * size)
        data = b"WAVE" + header + b"data" + struct.pack("<I", len(samples)) + samples
        return self.write(name, b"RIFF" + struct.pack("<I", len(data)) + data)

    def sent_samples(self):
        return b"".join(base64.b64decode(request["audio_pcm_base64"]) for request in self.requests)

    def serve(self, *replies):
        """Starts a service that gives these replies in turn. self.requests are the requests."""
        self.requests = requests = []
        paths = self.paths = set()
        replies = iter(replies)

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                paths.add(self.path)
                requests.append(json.loads(self.rfile.read(int(self.headers["Content-Length"]))))
                body = json.dumps(next(replies)).encode()
                self.send_response(200)
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)

            log_message = lambda *_: None

        server = http.server.HTTPServer(("127.0.0.1", 9555), Handler)
        self.addCleanup(server.server_close)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.shutdown)

    def test_blocks_and_their_results(self):
        def block(index, duration, name=None, class_id=None, score=0, **more):
            objects = [{"className": name, "classId": class_id, "score": score}] if name else []
            return {"input": "a.wav", "frame": index, "time": index / 5, "duration": duration,
                    "classified": bool(objects), "score": score, "objects": objects, **more}

        samples = random.Random(1).randbytes(44800)  # 0.7 s
        self.write_wav("a.wav", samples, channels=2)
        self.serve(spectrum(-50, -50), spectrum(-100, -50), {"code": 7, "msg": "no"},
                   spectrum(-25, -75))
        self.assertEqual(self.run_json("a.wav", status=1), [
            block(0, 0.2), block(1, 0.2, "high", 1, 1), block(2, 0.2, failedModels=[0]),
            block(3, 0.1, "low", 0, 0.75)])
        self.check_error(r"a.wav: block 2: models\[0\] AudioNet \(Classify\): .+")
        self.assertIn("1 input, 4 blocks, 2 objects in", self.err)
        self.assertEqual(self.paths, {"/api/audioToMelSpec"})
        common = {"audio_frame_max_size": 12800, "audio_frame_size": 12800,
                  "audio_sample_rate": 16000, "audio_nb_samples": 3200, "audio_sample_fmt": 1,
                  "audio_sample_fmt_byte_num": 2}
        for index, request in enumerate(self.requests):
            expected = {"pts": 200 * index, "audio_frame_count": index, **common}
            self.assertLessEqual(expected.items(), request.items())
        self.assertEqual(self.sent_samples(), samples + bytes(6400))

    def test_sample_formats(self):
        # Blocks of 4 samples: 8 bits become 16, 24 bits become floats, floats stay.
        floats = struct.pack("<4f", 0.1, -2.5, 1e-20, 1)
        from8 = struct.pack("<4h", 0, 0x7f00, -0x100, 0x100)
        from24 = struct.pack("<4f", 0.5, 2**-23, -1, 0)
        self.serve(*[spectrum(0, -75)] * 3)
        self.write_wav("-", b"\x80\xff\x7f\x81", 20, size=1)  # a file, not standard input
        self.run_json("-", self.write_wav("24.wav", b"\0\0\x40\1\0\0\0\0\x80", 20, size=3),
                      self.write_wav("float.wav", floats, 20, code=FLOAT, size=4))
        formats = [(request["audio_sample_fmt"], request["audio_sample_fmt_byte_num"])
                   for request in self.requests]
        self.assertEqual(formats, [(1, 2), (3, 4), (3, 4)])
        self.assertEqual(self.sent_samples(), from8 + from24 + floats)

    def test_bad_files_do_not_stop_a_run(self):
        # Blocks of the last one would take more memory than there is.
        bad = ["none.wav", self.write("text.wav", b"not audio"), self.write("void.wav", b""),
               self.write_wav("empty.wav", b""),
               self.write_wav("huge.wav", bytes(4000), 655350, 1000, FLOAT, 4)]
        self.serve(spectrum(0, -75))
        short = self.write_wav("short.wav", b"ab", rate=1)
        os.mkfifo(self.write("pipes/x", b"").with_name("pipe.wav"))
        frames = self.run_json(*bad, "pipes", short, status=1)
        self.assertEqual([frame["input"] for frame in frames], [str(short)])
        self.assertEqual(self.requests[0]["audio_nb_samples"], 1)
        self.assertIn("7 inputs, 1 block, ", self.err)
        self.assertIn("6 inputs failed", self.err)

    def test_table_and_options(self):
        self.write_wav("in/a.wav", bytes(16000))
        self.write("in/b.png", png(4, 4))
        self.serve(spectrum(0, -75), spectrum(-50, -50))
        self.assertEqual(self.vsa("run", self.pipeline, "in", "--max-frames", "2"),
                         "in/a.wav: 0.000 s to 0.200 s: low 0.800\n"
                         "in/a.wav: 0.200 s to 0.400 s: nothing\n")
        for option, sentence in (("--output", "draws on images"), ("--crops", "is for images")):
            self.vsa("run", self.pipeline, "in/a.wav", option, "out", status=2)
            self.assertIn(f"{option} {sentence}", self.err)

    def test_without_a_service(self):
        self.vsa("run", self.pipeline, self.write_wav("a.wav", bytes(64000)), status=2)
        self.assertEqual(self.out, "")
        self.check_error(r".+: models\[0\]: the mel-spectrogram service on 127\.0\.0\.1:9555 is "
                         "not running: start it, .+")

    def test_a_failure_does_not_stop_other_models(self):
        self.use(self.model, self.model)
        self.serve({"code": 7, "msg": "no"}, {"code": 7, "msg": "no"})
        frame, = self.run_json(self.write_wav("a.wav", bytes(6400)), status=1)
        self.assertEqual((frame["classified"], frame["failedModels"]), (False, [0, 1]))
        self.assertIn("block 0: models[1] AudioNet (Classify): ", self.err)

    @unittest.skipIf(os.name == "nt", "ffmpeg is run on POSIX only")
    def test_audio_of_a_video(self):
        # A program that replaces ffmpeg and records its arguments. A shell starts it, because the
        # first line of a script cannot contain a path with spaces.
        path = str(self.folder / "bin")
        video = self.write_video(2)
        self.write("bin/ffmpeg", f"""#!/bin/sh
exec "{sys.executable}" "{self.folder}/ffmpeg.py" "$@"
""".encode()).chmod(0o755)
        self.write("ffmpeg.py", b"""
import pathlib, struct, sys
pathlib.Path("arguments").write_text(" ".join(sys.argv[1:]))
name = pathlib.Path(sys.argv[sys.argv.index("-i") + 1]).stem
if name == "silent":
    sys.exit("Stream map '0:a:0' matches no streams.")
header = struct.pack(">4sIIIII", b".snd", 24, 0xffffffff, 3, 1000, 1)
sys.stdout.buffer.write(header + struct.pack(">300h", *range(300)))
sys.stdout.buffer.flush()
if name == "broken":
    sys.exit("video: the rest is damaged")
""")
        self.serve(*[spectrum(0, -75)] * 4)
        frames = self.run_json(video, PATH=path)
        self.assertEqual([frame["duration"] for frame in frames], [0.2, 0.1])
        self.assertEqual(
            (self.folder / "arguments").read_text(),
            f"-nostdin -v error -i file:{video} -map 0:a:0 -c:a pcm_s16be -f au pipe:1")
        self.assertEqual(self.sent_samples(), struct.pack("<300h", *range(300)) + bytes(200))
        damaged = "ffmpeg cannot read the audio: video: the rest is damaged"
        for name, blocks, sentence in (("broken", 2, damaged),
                                       ("silent", 0, "there is no audio in this file")):
            video = video.rename(self.folder / f"{name}.y4m")
            self.assertEqual(len(self.run_json(video, PATH=path, status=1)), blocks)
            self.check_error(f"{video}: {sentence}")
        self.assertEqual(self.run_json(video, PATH=str(self.folder), status=1), [])
        self.check_error(f"{video}: .*the program ffmpeg.* is not on the PATH")
