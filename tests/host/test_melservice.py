"""The example mel-spectrogram service: its figures against direct sums, its manners against wrong requests."""

import base64
import cmath
import contextlib
import http.client
import json
import math
import pathlib
import socket
import sys
import threading
import unittest

import numpy

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "examples/melservice"))
import melservice


def direct(samples, rate, mels, band, step):
    """One figure by the definition, term by term."""
    width, length = round(0.025 * rate), round(rate / 8)
    window = [math.sin(math.pi * n / width) ** 2 for n in range(width)]
    corner = [700 * (10 ** (2595 * math.log10(1 + 8000 / 700) * k / (mels + 1) / 2595) - 1) for k in range(mels + 2)]
    left, centre, right = corner[band:band + 3]
    power = 0.0
    for line in range(length // 2 + 1):
        hertz = line * rate / length
        if not left < hertz < right:
            continue
        weight = (hertz - left) / (centre - left) if hertz < centre else (right - hertz) / (right - centre)
        total = 0
        for n in range(width):
            at = round(step * rate / 100) + n
            if at < len(samples):
                total += samples[at] * window[n] * cmath.exp(-2j * cmath.pi * line * n / length)
        power += weight * abs(total / sum(window)) ** 2
    return 10 * math.log10(max(power, 1e-10))


class SpectrogramTest(unittest.TestCase):
    def test_equals_the_direct_sum(self):
        noise = numpy.random.default_rng(1)
        # More sound than the steps take, less, and hardly any.
        for rate in (8000, 11025, 16000, 44100):
            samples = noise.uniform(-1, 1, 1200)
            found = melservice.mel_spectrogram(samples, rate, 24, 10)
            self.assertEqual(found.shape, (24, 10))
            for band, step in ((0, 0), (5, 1), (11, 2), (23, 2), (17, 4), (8, 7), (2, 9)):
                self.assertAlmostEqual(found[band, step], direct(samples, rate, 24, band, step), 6,
                                       f"{rate} {band} {step}")
        self.assertTrue((melservice.filters(128, 16000, 2000).sum(axis=1) > 0).all(), "no band without a line")


class ServiceTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = melservice.Server(("127.0.0.1", 0), 16, 20)
        cls.server.RequestHandlerClass.log_message = lambda *_: None
        threading.Thread(target=cls.server.serve_forever, daemon=True).start()
        cls.addClassCleanup(cls.server.server_close)
        cls.addClassCleanup(cls.server.shutdown)

    def ask(self, body, path=melservice.PATH, method="POST", headers={}):
        connection = http.client.HTTPConnection("127.0.0.1", self.server.server_port, timeout=20)
        self.addCleanup(connection.close)
        connection.request(method, path, body if isinstance(body, bytes) else json.dumps(body).encode(), headers)
        reply = connection.getresponse()
        self.status = reply.status
        return json.loads(reply.read())

    def request(self, pcm=None, **changes):
        pcm = numpy.zeros(1600, "<i2").tobytes() if pcm is None else pcm
        request = {"pts": 1 << 40, "audio_frame_count": 0, "audio_frame_max_size": 9600, "audio_frame_size": len(pcm),
                   "audio_sample_rate": 16000, "audio_nb_samples": 1600, "audio_sample_fmt": 1,
                   "audio_sample_fmt_byte_num": 2, "audio_pcm_base64": base64.b64encode(pcm).decode(), **changes}
        return {key: value for key, value in request.items() if value is not None}

    def test_every_format_gives_the_same(self):
        left, right = (numpy.sin(2 * numpy.pi * hertz * numpy.arange(1600) / 16000) for hertz in (500, 3000))
        wanted = melservice.mel_spectrogram((left + right) / 2, 16000, 16, 20)
        for code, kind, planar in ((1, "<i2", False), (3, "<f4", False), (6, "<i2", True), (8, "<f4", True)):
            both = numpy.stack([left, right], axis=0 if planar else 1)
            pcm = (both * 32767).astype(kind) if kind == "<i2" else both.astype(kind)
            reply = self.ask(self.request(pcm.tobytes(), audio_sample_fmt=code, audio_sample_fmt_byte_num=pcm.itemsize))
            self.assertEqual((reply["code"], reply["mels"], reply["time_steps"]), (1000, 16, 20), reply["msg"])
            loud = wanted > -50  # below, 16 bits are too few to agree
            self.assertLess(numpy.abs(numpy.array(reply["mel_spec"]) - wanted)[loud].max(), 0.05)

    def test_refuses_wrong_requests(self):
        nan = numpy.full(1600, numpy.nan, "<f4").tobytes()
        wrong = [b"", b"no json", b"[" * 100000, b"\xff\xfe", b"[]", b"{}", self.request(b"")]
        wrong += [self.request(**{key: value}) for key, value in (
            ("pts", None), ("pts", "0"), ("audio_frame_count", 1.5), ("audio_frame_size", True),
            ("audio_frame_size", 3199), ("audio_sample_rate", 0), ("audio_sample_rate", 10**30),
            ("audio_nb_samples", 0), ("audio_nb_samples", -1600), ("audio_nb_samples", 1599), ("audio_nb_samples", 1),
            ("audio_nb_samples", 10**400), ("audio_sample_fmt", 4), ("audio_sample_fmt_byte_num", 4),
            ("audio_pcm_base64", None), ("audio_pcm_base64", 7), ("audio_pcm_base64", "***"),
            ("audio_pcm_base64", "é"))]
        wrong.append(self.request(nan, audio_sample_fmt=3, audio_sample_fmt_byte_num=4))
        for body in wrong:
            with self.subTest(str(body)[:200]):
                reply = self.ask(body)
                self.assertEqual((reply["code"], self.status), (400, 400), reply)
                self.assertNotIn("Traceback", reply["msg"])
        self.assertEqual(self.ask(self.request(), path="/")["code"], 404)
        self.assertEqual(self.ask(b"", method="GET")["code"], 405)
        for length, code in (("99999999999", 413), ("9" * 5000, 413), ("-1", 411), ("many", 411)):
            self.assertEqual(self.ask(b"", headers={"Content-Length": length})["code"], code)
        self.assertEqual(self.ask(self.request())["code"], 1000, "still at work")

    def test_odd_clients_harm_no_one(self):
        # The body of a refused request is not taken for a request.
        with socket.create_connection(("127.0.0.1", self.server.server_port), timeout=20) as client:
            body = b"GET /secret HTTP/1.1\r\n\r\n"
            client.sendall(b"POST / HTTP/1.1\r\nContent-Length: %d\r\n\r\n" % len(body) + body)
            replies = b""
            with contextlib.suppress(ConnectionResetError):  # as some of the body was not read
                while part := client.recv(4096):
                    replies += part
            self.assertEqual(replies.count(b"HTTP/1.1 "), 1)
        # One that goes away.
        with socket.create_connection(("127.0.0.1", self.server.server_port)) as client:
            client.sendall(f"POST {melservice.PATH} HTTP/1.1\r\nContent-Length: 5000\r\n\r\n{{".encode())
        self.assertEqual(self.ask(self.request())["code"], 1000)
