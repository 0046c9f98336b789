"""Blocks of audio, with a stand-in for the mel-spectrogram service on the port that the library
calls."""

import base64
import http.server
import json
import pickle
import threading
import wave

import jsonschema
import numpy as np
import pytest

import tolcompatible
from conftest import NETWORKS, ROOT, run_vsa
from tolcompatible import Model, Pipeline

AUDIO = {
    "category": "Classify",
    "modelName": "AudioNet",
    "engine": "OpenVINO",
    "modelRoot": NETWORKS,
    "modelFile": "pitch",
    "classNames": ["low", "high"],
    "inputWidth": 20,
    "inputHeight": 16,
    "scoreThreshold": 0.6,
}


@pytest.fixture
def requests():
    """The requests that the service gets. It answers each with a spectrum of low bands."""
    received = []
    spectrum = {
        "code": 1000,
        "msg": "",
        "mels": 16,
        "time_steps": 20,
        "mel_spec": [[-10.0] * 20] * 8 + [[-90.0] * 20] * 8,
    }

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_POST(self):
            received.append(json.loads(self.rfile.read(int(self.headers["Content-Length"]))))
            body = json.dumps(spectrum).encode()
            self.send_response(200)
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        log_message = lambda *_: None  # noqa: E731

    http.server.HTTPServer.allow_reuse_address = True
    with http.server.HTTPServer(("127.0.0.1", 9555), Handler) as server:
        thread = threading.Thread(target=server.serve_forever, args=[0.01])
        thread.start()
        yield received
        server.shutdown()
        thread.join()


@pytest.mark.parametrize(
    "kind, code, size", [(np.int16, 1, 2), (np.float32, 3, 4), (np.float64, 3, 4)]
)
def test_samples_reach_the_service(kind, code, size, requests):
    samples = np.arange(-100, 100).reshape(100, 2).astype(kind)
    with Model(**AUDIO) as model:
        for given in (samples, np.asfortranarray(samples), samples[:, 0]):
            result = model.classify_audio(given, 16000, time=1.5, index=3)
            assert result.classified and result.class_names.tolist() == ["low"]
            assert result.class_ids.tolist() == [0] and result.scores[0] == pytest.approx(
                result.score
            )
            sent = requests[-1]
            expected = (
                np.ascontiguousarray(given).astype(np.float32 if code == 3 else np.int16).tobytes()
            )
            assert base64.b64decode(sent["audio_pcm_base64"]) == expected
            assert (sent["audio_sample_fmt"], sent["audio_sample_fmt_byte_num"]) == (code, size)
            assert (sent["audio_sample_rate"], sent["audio_nb_samples"], sent["pts"]) == (
                16000,
                100,
                1500,
            )


def test_results_and_requests_are_those_of_vsa(requests, write_pipeline, tmp_path):
    path = write_pipeline(AUDIO, blockSeconds=0.1)
    samples = np.random.default_rng(1).integers(-9000, 9000, 3200).astype(np.int16)
    with wave.open(str(tmp_path / "audio.wav"), "wb") as file:
        file.setparams((1, 2, 16000, 0, "NONE", ""))
        file.writeframes(samples.tobytes())
    lines = run_vsa(path, tmp_path / "audio.wav")
    with Pipeline(path) as pipeline:
        assert pipeline.takes_audio and pipeline.block_seconds == 0.1
        results = [
            pipeline.classify_audio(block, 16000, time=0.1 * i, index=i)
            for i, block in enumerate(samples.reshape(2, 1600))
        ]
        with pytest.raises(TypeError, match="audio"):
            pipeline(np.zeros((9, 9, 3), np.uint8))
    assert [result.to_json(tmp_path / "audio.wav") for result in results] == lines
    assert requests[:2] == requests[2:]
    for result in results:
        assert pickle.loads(pickle.dumps(result)).to_dict() == result.to_dict()
    schema = json.loads((ROOT / "docs/vsa-output.schema.json").read_text("utf-8"))
    jsonschema.Draft202012Validator(schema).validate(results[1].to_dict())


def test_wrong_samples_and_no_service():
    block = np.zeros(1600, np.int16)
    with Model(**AUDIO) as model:
        for wrong, kind in (
            (block.astype(np.uint8), TypeError),
            ([1, 2], TypeError),
            (block[:0], ValueError),
            (block.reshape(10, 10, 16), ValueError),
        ):
            with pytest.raises(kind, match="samples"):
                model.classify_audio(wrong, 16000)
        for rate in (0, -1, 1 << 31):
            with pytest.raises(ValueError, match="rate"):
                model.classify_audio(block, rate)
        with pytest.raises(ValueError, match="index"):
            model.classify_audio(block, 16000, index=1 << 63)
        for time in (-1, float("nan")):
            with pytest.raises(ValueError, match="time"):
                model.classify_audio(block, 16000, time=time)
        with pytest.raises(tolcompatible.Error, match=r"\[E\]"):
            model.classify_audio(block, 16000)
