#!/usr/bin/env python3
"""A mel-spectrogram service for development: converts audio to mel bands over time steps.

    python3 melservice.py [--host 127.0.0.1] [--port 9555] [--mels 128] [--steps 100]

Needs numpy. README.md in this folder documents request, reply and spectrogram.
"""

import argparse
import base64
import binascii
import http.server
import io
import json
import sys
import threading
import time

try:
    import numpy
except ImportError:
    sys.exit("melservice: numpy is missing; install it, or use a Python that has it")

PATH = "/api/audioToMelSpec"
SUCCESS = 1000
WINDOW_SECONDS = 0.025
HOP_SECONDS = 0.010
MAX_HZ = 8000.0
LINE_SPACING_HZ = 8.0  # of the spectrum; the narrowest mel band must contain a line
MIN_POWER = 1e-10  # -100 dB
# Codes of sample formats as in FFmpeg's AVSampleFormat: type of a sample, and whether the channels
# are planar (stored one after the other) instead of interleaved.
FORMATS = {1: ("<i2", False), 3: ("<f4", False), 6: ("<i2", True), 8: ("<f4", True)}
INTEGERS = ("pts", "audio_frame_count", "audio_frame_max_size", "audio_frame_size",
            "audio_sample_rate", "audio_nb_samples", "audio_sample_fmt",
            "audio_sample_fmt_byte_num")
MAX_CHANNELS = 64
MAX_BODY_BYTES = 64 << 20
MAX_SECONDS = 30  # in which a request must arrive completely
MAX_CONNECTIONS = 32


class RequestError(Exception):
    """An invalid request. `code` is the code of the reply and the HTTP status."""

    def __init__(self, message, code=400):
        super().__init__(message)
        self.code = code


def decode_samples(request):
    """Returns the samples of a request, averaged over the channels, and the sample rate.

    Full scale is 1.
    """
    if not isinstance(request, dict):
        raise RequestError("the body must be a JSON object")
    for key in INTEGERS:
        value = request.get(key)
        if not isinstance(value, int) or isinstance(value, bool):
            raise RequestError(f"{key} must be an integer")
    rate = request["audio_sample_rate"]
    count = request["audio_nb_samples"]
    code = request["audio_sample_fmt"]
    if not 1000 <= rate <= 768000:
        raise RequestError("audio_sample_rate must be from 1000 to 768000")
    if code not in FORMATS:
        raise RequestError(f"audio_sample_fmt must be one of {sorted(FORMATS)}")
    kind, planar = FORMATS[code]
    size = numpy.dtype(kind).itemsize
    if request["audio_sample_fmt_byte_num"] != size:
        raise RequestError(f"audio_sample_fmt_byte_num must be {size} for this format")
    try:
        pcm = base64.b64decode(request.get("audio_pcm_base64"), validate=True)
    except (TypeError, ValueError, binascii.Error):
        raise RequestError("audio_pcm_base64 must be base64") from None
    if len(pcm) != request["audio_frame_size"]:
        raise RequestError("audio_frame_size is not the number of bytes")
    channels, rest = divmod(len(pcm), count * size) if count > 0 else (0, 0)
    if not 1 <= channels <= MAX_CHANNELS or rest != 0:
        raise RequestError(
            f"the bytes must be audio_nb_samples samples of 1 to {MAX_CHANNELS} channels")
    pcm = numpy.frombuffer(pcm, kind).astype(numpy.float64)
    if kind == "<i2":
        pcm /= 32768.0
    elif not numpy.isfinite(pcm).all() or numpy.abs(pcm).max() > 1e6:
        raise RequestError("a sample is not finite or far above full scale")
    if planar:
        return pcm.reshape((channels, count)).mean(axis=0), rate
    return pcm.reshape((count, channels)).mean(axis=1), rate


def mel(hertz):
    return 2595.0 * numpy.log10(1.0 + hertz / 700.0)


def filters(mels, rate, length):
    """Returns one row per band: its weight for each line of the spectrum of `length` samples."""
    lines = numpy.arange(length // 2 + 1) * (rate / length)
    edges = 700.0 * (10.0 ** (numpy.linspace(0.0, mel(MAX_HZ), mels + 2) / 2595.0) - 1.0)
    left, centre, right = edges[:-2, None], edges[1:-1, None], edges[2:, None]
    rising = (lines - left) / (centre - left)
    falling = (right - lines) / (right - centre)
    return numpy.maximum(0.0, numpy.minimum(rising, falling))


def mel_spectrogram(samples, rate, mels, steps):
    """Returns decibels: one row for each of `mels` bands, one column for each of `steps` steps."""
    window = round(WINDOW_SECONDS * rate)
    length = round(rate / LINE_SPACING_HZ)
    weights = 0.5 - 0.5 * numpy.cos(2.0 * numpy.pi * numpy.arange(window) / window)
    bands = filters(mels, rate, length)
    power = numpy.zeros((mels, steps))
    for step in range(steps):
        start = round(step * HOP_SECONDS * rate)
        if start >= len(samples):
            break
        frame = numpy.zeros(window)
        part = samples[start:start + window]
        frame[:len(part)] = part
        # The division makes the values independent of the sample rate.
        spectrum = numpy.fft.rfft(frame * weights, length) / weights.sum()
        power[:, step] = bands @ (spectrum.real ** 2 + spectrum.imag ** 2)
    return 10.0 * numpy.log10(numpy.maximum(power, MIN_POWER))


class LimitedReader(io.RawIOBase):
    """Reads from a connection until `end`, a time of time.monotonic()."""

    def __init__(self, connection):
        super().__init__()
        self.connection, self.end = connection, 0.0

    def readable(self):
        return True

    def readinto(self, buffer):
        left = self.end - time.monotonic()
        if left <= 0:
            raise TimeoutError("the request takes too long")
        self.connection.settimeout(left)
        return self.connection.recv_into(buffer)


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"  # supports "Expect: 100-continue" and persistent connections
    server_version = "melservice"
    sys_version = ""

    def setup(self):
        super().setup()
        self.rfile.close()
        self.limit = LimitedReader(self.connection)
        self.rfile = io.BufferedReader(self.limit)

    def handle_one_request(self):
        # The base class limits the head to 100 lines of 64 KiB, and ends the connection after a
        # TimeoutError.
        self.limit.end = time.monotonic() + MAX_SECONDS
        super().handle_one_request()

    def do_POST(self):
        code, reply = SUCCESS, None
        try:
            reply = self.compute_reply()
        except RequestError as error:
            code, message = error.code, str(error)
        except OSError:
            self.close_connection = True  # the client has disconnected
            return
        except Exception as error:  # the client gets a reply in any case, without a traceback
            self.log_error("%r", error)
            code, message = 500, "the service failed"
        if reply is None:
            self.close_connection = True  # unread bytes of the body must not be parsed as a request
            reply = {"code": code, "msg": message}
        self.send(200 if code == SUCCESS else code, reply)

    def do_GET(self):
        self.close_connection = True
        self.send(405, {"code": 405, "msg": f"POST to {PATH}"})

    def compute_reply(self):
        if self.path != PATH:
            raise RequestError(f"unknown path; use {PATH}", 404)
        length = self.headers.get("Content-Length", "")
        if not (length.isascii() and length.isdigit()):
            raise RequestError("Content-Length is missing", 411)
        if len(length) > 12 or int(length) > MAX_BODY_BYTES:
            raise RequestError(f"the body has more than {MAX_BODY_BYTES} bytes", 413)
        try:
            request = json.loads(self.rfile.read(int(length)))
        except (ValueError, RecursionError):
            raise RequestError("the body is not JSON") from None
        samples, rate = decode_samples(request)
        spectrogram = mel_spectrogram(samples, rate, self.server.mels, self.server.steps)
        return {"code": SUCCESS, "msg": "", "mels": self.server.mels,
                "time_steps": self.server.steps, "mel_spec": spectrogram.round(4).tolist()}

    def send(self, status, reply):
        body = json.dumps(reply).encode()
        self.connection.settimeout(MAX_SECONDS)  # of each write
        try:
            self.send_response(status)
            self.send_header("Content-Type", "application/json")
            self.send_header("Content-Length", str(len(body)))
            if self.close_connection:
                self.send_header("Connection", "close")
            self.end_headers()
            self.wfile.write(body)
        except OSError:
            self.close_connection = True  # the client has disconnected

    def log_request(self, code="-", size="-"):
        if code != 200:
            super().log_request(code, size)


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, address, mels, steps):
        self.mels, self.steps = mels, steps
        self.free_connections = threading.Semaphore(MAX_CONNECTIONS)
        super().__init__(address, Handler)

    def process_request(self, request, client_address):
        if not self.free_connections.acquire(blocking=False):
            self.shutdown_request(request)
            return
        try:
            super().process_request(request, client_address)
        except RuntimeError:  # no thread can be started
            self.free_connections.release()
            raise

    def process_request_thread(self, request, client_address):
        try:
            super().process_request_thread(request, client_address)
        finally:
            self.free_connections.release()


def parse_count(text):
    try:
        value = int(text)
    except ValueError:
        value = 0
    if not 1 <= value <= 4096:
        raise argparse.ArgumentTypeError("must be an integer from 1 to 4096")
    return value


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--host", default="127.0.0.1")
    parser.add_argument("--port", type=int, default=9555)
    parser.add_argument("--mels", type=parse_count, default=128,
                        help="number of mel bands, the rows (default: 128)")
    parser.add_argument("--steps", type=parse_count, default=100,
                        help="number of time steps, the columns (default: 100)")
    options = parser.parse_args()
    try:
        server = Server((options.host, options.port), options.mels, options.steps)
    except (OSError, OverflowError) as error:
        sys.exit(f"melservice: {options.host}:{options.port}: {error}")
    print(f"melservice: {options.mels} mel bands, {options.steps} time steps, on "
          f"http://{options.host}:{server.server_port}{PATH}", flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass


if __name__ == "__main__":
    main()
