#!/usr/bin/env python3
"""A mel-spectrogram service for development: sound in, a matrix of mel bands and time steps out.

    python3 melservice.py [--host 127.0.0.1] [--port 9555] [--mels 128] [--steps 100]

Needs numpy. README.md beside this file tells what is asked and answered, and what the numbers mean.
"""

import argparse
import base64
import binascii
import http.server
import json
import sys

try:
    import numpy
except ImportError:
    sys.exit("melservice: numpy is missing; install it, or use a Python that has it")

PATH = "/api/audioToMelSpec"
SUCCESS = 1000
WINDOW_SECONDS = 0.025
HOP_SECONDS = 0.010
TOP_HZ = 8000.0
SPACING_HZ = 8.0  # of the lines of the spectrum; the narrowest mel band must hold one
FLOOR = 1e-10  # least power, -100 dB
# Codes of sample formats as in FFmpeg's AVSampleFormat: how a sample is kept, and whether the channels follow each
# other whole (planar) instead of sample by sample.
FORMATS = {1: ("<i2", False), 3: ("<f4", False), 6: ("<i2", True), 8: ("<f4", True)}
INTEGERS = ("pts", "audio_frame_count", "audio_frame_max_size", "audio_frame_size", "audio_sample_rate",
            "audio_nb_samples", "audio_sample_fmt", "audio_sample_fmt_byte_num")
MOST_CHANNELS = 64
MOST_BODY = 64 << 20  # bytes


class Refused(Exception):
    """The request is wrong; `code` goes into the reply and, as its status, into HTTP."""

    def __init__(self, message, code=400):
        super().__init__(message)
        self.code = code


def samples_of(request):
    """The sound of a request, averaged over its channels, full scale at 1; and its sample rate."""
    if not isinstance(request, dict):
        raise Refused("the body must be a JSON object")
    for key in INTEGERS:
        value = request.get(key)
        if not isinstance(value, int) or isinstance(value, bool):
            raise Refused(f"{key} must be an integer")
    rate, count, code = (request[key] for key in ("audio_sample_rate", "audio_nb_samples", "audio_sample_fmt"))
    if not 1000 <= rate <= 768000:
        raise Refused("audio_sample_rate must be from 1000 to 768000")
    if code not in FORMATS:
        raise Refused(f"audio_sample_fmt must be one of {sorted(FORMATS)}")
    kind, planar = FORMATS[code]
    size = numpy.dtype(kind).itemsize
    if request["audio_sample_fmt_byte_num"] != size:
        raise Refused(f"audio_sample_fmt_byte_num must be {size} for this format")
    try:
        pcm = base64.b64decode(request.get("audio_pcm_base64"), validate=True)
    except (TypeError, ValueError, binascii.Error):
        raise Refused("audio_pcm_base64 must be base64") from None
    if len(pcm) != request["audio_frame_size"]:
        raise Refused("audio_frame_size is not the number of bytes")
    if count < 1 or len(pcm) == 0 or len(pcm) % (count * size) or len(pcm) // (count * size) > MOST_CHANNELS:
        raise Refused(f"the bytes must be audio_nb_samples samples of 1 to {MOST_CHANNELS} channels")
    pcm = numpy.frombuffer(pcm, kind).astype(numpy.float64)
    if kind == "<i2":
        pcm /= 32768.0
    elif not numpy.isfinite(pcm).all() or numpy.abs(pcm).max() > 1e6:
        raise Refused("a sample is not finite or far beyond full scale")
    return pcm.reshape((-1, count)).mean(axis=0) if planar else pcm.reshape((count, -1)).mean(axis=1), rate


def mel(hertz):
    return 2595.0 * numpy.log10(1.0 + hertz / 700.0)


def filters(mels, rate, length):
    """One row for each band: its weight for each line of a spectrum of `length` samples."""
    lines = numpy.arange(length // 2 + 1) * (rate / length)
    edges = 700.0 * (10.0 ** (numpy.linspace(0.0, mel(TOP_HZ), mels + 2) / 2595.0) - 1.0)
    left, centre, right = edges[:-2, None], edges[1:-1, None], edges[2:, None]
    return numpy.maximum(0.0, numpy.minimum((lines - left) / (centre - left), (right - lines) / (right - centre)))


def mel_spectrogram(samples, rate, mels, steps):
    """Decibels, one row for each of `mels` bands, one column for each of `steps` time steps."""
    window = round(WINDOW_SECONDS * rate)
    length = round(rate / SPACING_HZ)
    weights = 0.5 - 0.5 * numpy.cos(2.0 * numpy.pi * numpy.arange(window) / window)
    bands = filters(mels, rate, length)
    power = numpy.zeros((mels, steps))
    for step in range(steps):
        start = round(step * HOP_SECONDS * rate)
        if start >= len(samples):
            break
        frame = numpy.zeros(window)
        heard = samples[start:start + window]
        frame[:len(heard)] = heard
        # Divided so that the figures do not depend on the sample rate.
        spectrum = numpy.fft.rfft(frame * weights, length) / weights.sum()
        power[:, step] = bands @ (spectrum.real ** 2 + spectrum.imag ** 2)
    return 10.0 * numpy.log10(numpy.maximum(power, FLOOR))


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"  # clients may ask before they send much, and keep the connection
    timeout = 30  # seconds; a client that stops sending holds no thread for ever
    server_version = "melservice"
    sys_version = ""

    def do_POST(self):
        code, reply = SUCCESS, None
        try:
            reply = self.answer()
        except Refused as refusal:
            code, message = refusal.code, str(refusal)
        except OSError:
            self.close_connection = True  # the client has gone
            return
        except Exception as error:  # the client gets a reply whatever happens, and no traceback
            self.log_error("%r", error)
            code, message = 500, "the service failed"
        if reply is None:
            self.close_connection = True  # what is left of the body is no next request
            reply = {"code": code, "msg": message}
        self.send(200 if code == SUCCESS else code, reply)

    def do_GET(self):
        self.close_connection = True
        self.send(405, {"code": 405, "msg": f"POST to {PATH}"})

    def answer(self):
        if self.path != PATH:
            raise Refused(f"there is only {PATH}", 404)
        length = self.headers.get("Content-Length", "")
        if not (length.isascii() and length.isdigit()):
            raise Refused("Content-Length is missing", 411)
        if len(length) > 12 or int(length) > MOST_BODY:
            raise Refused(f"the body has more than {MOST_BODY} bytes", 413)
        try:
            request = json.loads(self.rfile.read(int(length)))
        except (ValueError, RecursionError):
            raise Refused("the body is no JSON") from None
        samples, rate = samples_of(request)
        spectrogram = mel_spectrogram(samples, rate, self.server.mels, self.server.steps)
        return {"code": SUCCESS, "msg": "", "mels": self.server.mels, "time_steps": self.server.steps,
                "mel_spec": spectrogram.round(4).tolist()}

    def send(self, status, reply):
        body = json.dumps(reply).encode()
        try:
            self.send_response(status)
            self.send_header("Content-Type", "application/json")
            self.send_header("Content-Length", str(len(body)))
            if self.close_connection:
                self.send_header("Connection", "close")
            self.end_headers()
            self.wfile.write(body)
        except OSError:
            self.close_connection = True  # the client has gone

    def log_request(self, code="-", size="-"):
        if code != 200:
            super().log_request(code, size)


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, address, mels, steps):
        self.mels, self.steps = mels, steps
        super().__init__(address, Handler)


def count(text):
    value = int(text)
    if not 1 <= value <= 4096:
        raise ValueError
    return value


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--host", default="127.0.0.1")
    parser.add_argument("--port", type=int, default=9555)
    parser.add_argument("--mels", type=count, default=128, help="mel bands, the rows (default: 128)")
    parser.add_argument("--steps", type=count, default=100, help="time steps, the columns (default: 100)")
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
