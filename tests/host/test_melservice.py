"""The example mel-spectrogram service: its values, and its replies to wrong requests."""

import base64
import cmath
import contextlib
import http.client
import json
import math
import pathlib
import socket
import subprocess
import sys
import threading
import time
import unittest
import unittest.mock

import numpy

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "examples/melservice"))
import melservice  # noqa: E402


def mel_to_hertz(mel):
    return 700 * (10 ** (mel / 2595) - 1)


def reference_value(samples, rate, mels, band, step):
    """One value of the spectrogram by its definition, term by term."""
    width, length = round(0.025 * rate), round(rate / 8)
    window = [math.sin(math.pi * n / width) ** 2 for n in range(width)]
    max_mel = 2595 * math.log10(1 + 8000 / 700)
    left, centre, right = (mel_to_hertz(max_mel * k / (mels + 1)) for k in range(band, band + 3))
    power = 0.0
    for line in range(length // 2 + 1):
        hertz = line * rate / length
        if not left < hertz < right:
            continue
        rising, falling = (hertz - left) / (centre - left), (right - hertz) / (right - centre)
        total = 0
        for n in range(width):
            index = round(step * rate / 100) + n
            if index < len(samples):
                phase = cmath.exp(-2j * cmath.pi * line * n / length)
                total += samples[index] * window[n] * phase
        power += min(rising, falling) * abs(total / sum(window)) ** 2
    return 10 * math.log10(max(power, 1e-10))


class SpectrogramTest(unittest.TestCase):
    def test_equals_the_definition(self):
        noise = numpy.random.default_rng(1)
        # The time steps take fewer samples than there are, more, and far more.
        for rate in (8000, 11025, 16000, 44100):
            samples = noise.uniform(-1, 1, 1200)
            found = melservice.mel_spectrogram(samples, rate, 24, 10)
            self.assertEqual(found.shape, (24, 10))
            for band, step in ((0, 0), (5, 1), (11, 2), (23, 2), (17, 4), (8, 7), (2, 9)):
                self.assertAlmostEqual(found[band, step],
                                       reference_value(samples, rate, 24, band, step), 6)
        weights = melservice.filters(128, 16000, 2000).sum(axis=1)
        self.assertTrue((weights > 0).all(), "every band contains a line of the spectrum")


class ServiceTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = melservice.Server(("127.0.0.1", 0), 16, 20)
        cls.server.RequestHandlerClass.log_message = lambda *_: None
        threading.Thread(target=cls.server.serve_forever, daemon=True).start()
        cls.addClassCleanup(cls.server.server_close)
        cls.addClassCleanup(cls.server.shutdown)

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.server.server_port), timeout=20)

    def send(self, body, path=melservice.PATH, method="POST", headers={}):
        """Returns the reply; self.status is its HTTP status."""
        connection = http.client.HTTPConnection("127.0.0.1", self.server.server_port, timeout=20)
        self.addCleanup(connection.close)
        body = body if isinstance(body, bytes) else json.dumps(body).encode()
        connection.request(method, path, body, headers)
        reply = connection.getresponse()
        self.status = reply.status
        return json.loads(reply.read())

    def make_request(self, pcm=bytes(3200), **changes):
        request = {"pts": 1 << 40, "audio_frame_count": 0, "audio_frame_max_size": 9600,
                   "audio_frame_size": len(pcm), "audio_sample_rate": 16000,
                   "audio_nb_samples": 1600, "audio_sample_fmt": 1, "audio_sample_fmt_byte_num": 2,
                   "audio_pcm_base64": base64.b64encode(pcm).decode(), **changes}
        return {key: value for key, value in request.items() if value is not None}

    def test_sample_formats(self):
        time = numpy.arange(1600) / 16000
        left, right = (numpy.sin(2 * numpy.pi * hertz * time) for hertz in (500, 3000))
        expected = melservice.mel_spectrogram((left + right) / 2, 16000, 16, 20)
        for code, kind, planar in ((1, "<i2", False), (3, "<f4", False), (6, "<i2", True),
                                   (8, "<f4", True)):
            both = numpy.stack([left, right], axis=0 if planar else 1)
            pcm = (both * 32767).astype(kind) if kind == "<i2" else both.astype(kind)
            reply = self.send(self.make_request(pcm.tobytes(), audio_sample_fmt=code,
                                                audio_sample_fmt_byte_num=pcm.itemsize))
            self.assertEqual((reply["code"], reply["mels"], reply["time_steps"]), (1000, 16, 20))
            loud = expected > -50  # below, 16 bits are too few
            difference = numpy.abs(numpy.array(reply["mel_spec"]) - expected)
            self.assertLess(difference[loud].max(), 0.05)

    def test_wrong_requests(self):
        nan = numpy.full(1600, numpy.nan, "<f4").tobytes()
        bodies = [b"", b"not json", b"[" * 100000, b"\xff\xfe", b"[]", b"{}",
                  self.make_request(b""),
                  self.make_request(nan, audio_sample_fmt=3, audio_sample_fmt_byte_num=4)]
        for key, *values in (("pts", None, "0"), ("audio_frame_count", 1.5),
                             ("audio_frame_size", True, 3199),
                             ("audio_sample_rate", 0, 10**30),
                             ("audio_nb_samples", 0, -1600, 1599, 1, 10**400),
                             ("audio_sample_fmt", 4), ("audio_sample_fmt_byte_num", 4),
                             ("audio_pcm_base64", None, 7, "***", "é")):
            bodies += [self.make_request(**{key: value}) for value in values]
        for body in bodies:
            with self.subTest(str(body)[:200]):
                reply = self.send(body)
                self.assertEqual((reply["code"], self.status), (400, 400), reply)
                self.assertNotIn("Traceback", reply["msg"])
        self.assertEqual(self.send(self.make_request(), path="/")["code"], 404)
        self.assertEqual(self.send(b"", method="GET")["code"], 405)
        for length, code in (("99999999999", 413), ("9" * 5000, 413), ("-1", 411), ("many", 411)):
            self.assertEqual(self.send(b"", headers={"Content-Length": length})["code"], code)
        self.assertEqual(self.send(self.make_request())["code"], 1000)

    def test_body_of_a_refused_request_is_not_a_request(self):
        with self.connect() as client:
            body = b"GET /secret HTTP/1.1\r\n\r\n"
            client.sendall(b"POST / HTTP/1.1\r\nContent-Length: %d\r\n\r\n" % len(body) + body)
            replies = b""
            with contextlib.suppress(ConnectionResetError):  # part of the body was not read
                while part := client.recv(4096):
                    replies += part
        self.assertEqual(replies.count(b"HTTP/1.1 "), 1)

    def test_slow_request_is_dropped(self):
        head = f"POST {melservice.PATH} HTTP/1.1\r\nContent-Length: 5000\r\n\r\n".encode()
        for start in (b"", b"POST", head[:-2], head):
            with self.subTest(start), unittest.mock.patch.object(melservice, "MAX_SECONDS", 1), \
                    self.connect() as client:
                client.sendall(start)
                client.settimeout(0.1)
                begin = time.monotonic()
                with contextlib.suppress(ConnectionError):
                    while time.monotonic() < begin + 10:
                        client.sendall(b"x")  # more often than any timeout of a single read
                        with contextlib.suppress(TimeoutError):
                            if client.recv(4096) == b"":
                                break
                self.assertLess(time.monotonic() - begin, 5)

    def test_number_of_connections_is_limited(self):
        with unittest.mock.patch.object(melservice, "MAX_CONNECTIONS", 2):
            server = melservice.Server(("127.0.0.1", 0), 16, 20)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)

        def is_served():
            with socket.create_connection(("127.0.0.1", server.server_port), timeout=20) as client:
                with contextlib.suppress(ConnectionError):
                    client.sendall(b"GET / HTTP/1.1\r\n\r\n")
                    return client.recv(9) == b"HTTP/1.1 "

        with contextlib.ExitStack() as idle:
            for _ in range(2):
                idle.enter_context(socket.create_connection(("127.0.0.1", server.server_port)))
            self.assertFalse(is_served())
        end = time.monotonic() + 20
        while not is_served() and time.monotonic() < end:
            time.sleep(0.05)
        self.assertTrue(is_served())

    def test_only_this_machine_reaches_it(self):
        with subprocess.Popen([sys.executable, melservice.__file__, "--port", "0"],
                              stdout=subprocess.PIPE, text=True) as service:
            self.addCleanup(service.kill)
            self.assertIn(" on http://127.0.0.1:", service.stdout.readline())
            service.kill()

    def test_client_that_disconnects(self):
        with self.connect() as client:
            head = f"POST {melservice.PATH} HTTP/1.1\r\nContent-Length: 5000\r\n\r\n"
            client.sendall(head.encode() + b"{")
        self.assertEqual(self.send(self.make_request())["code"], 1000)
