"""Models and pipelines."""

from __future__ import annotations

import json
import operator
import os
from typing import Any, Iterable, Union

import numpy as np
import numpy.typing as npt

from . import _native
from ._result import AudioResult, Result

StrPath = Union[str, "os.PathLike[str]"]


def devices() -> "list[str]":
    """The engines and their devices, sorted, for example ["ONNXRuntime-CPU", "OpenVINO-CPU"].

    Raises Error if an engine fails."""
    return sorted(_native.devices())


def _image(frame: npt.NDArray[np.uint8]) -> npt.NDArray[np.uint8]:
    if not isinstance(frame, np.ndarray):
        raise TypeError(f"the frame must be a numpy array, not {type(frame).__name__}")
    if frame.dtype != np.uint8:
        raise TypeError(f"the frame must have the dtype uint8, not {frame.dtype}")
    if frame.ndim != 3 or frame.shape[2] != 3:
        raise ValueError(f"the frame must have the shape (height, width, 3), not {frame.shape}")
    if frame.size == 0 or max(frame.shape) >= 1 << 31:
        raise ValueError(f"the frame has the size {frame.shape[1]} x {frame.shape[0]}")
    return np.ascontiguousarray(frame)


def _previous(frame: npt.NDArray[np.uint8], objects: "Result | None") -> "_native.Objects | None":
    if objects is None:
        return None
    if not isinstance(objects, Result):
        raise TypeError(f"objects must be a Result, not {type(objects).__name__}")
    if (objects.height, objects.width) != frame.shape[:2]:
        raise ValueError(
            f"the objects belong to a frame of {objects.width} x {objects.height}, not "
            f"{frame.shape[1]} x {frame.shape[0]}"
        )
    return objects._objects


def _run_on_image(
    models: "Iterable[_native.Model]", frame: npt.NDArray[np.uint8], objects: "Result | None"
) -> Result:
    image = _image(frame)
    found = _previous(image, objects)
    for model in models:
        if model.takes_audio:
            raise TypeError(f"{model.name} takes audio: call classify_audio")
        found = model.run_on_image(image, found)
    assert found is not None  # there is at least one model
    return Result(found)


def _run_on_audio(
    models: "Iterable[_native.Model]", samples: npt.NDArray[Any], rate: int, time: float, index: int
) -> AudioResult:
    if not isinstance(samples, np.ndarray):
        raise TypeError(f"the samples must be a numpy array, not {type(samples).__name__}")
    if samples.dtype == np.float64:
        samples = samples.astype(np.float32)
    if samples.dtype != np.int16 and samples.dtype != np.float32:
        raise TypeError(
            f"the samples must have the dtype int16, float32 or float64, not {samples.dtype}"
        )
    if samples.ndim == 1:
        samples = samples[:, None]
    if samples.ndim != 2 or samples.size == 0:
        raise ValueError(
            f"the samples must have the shape (n,) or (n, channels), not {samples.shape}"
        )
    rate, index = operator.index(rate), operator.index(index)
    if not 0 < rate < 1 << 31:
        raise ValueError(f"the rate must be a number of samples per second, not {rate}")
    if not 0 <= time < 1e15:
        raise ValueError(f"the time must be a number of seconds, not {time}")
    if not -(1 << 63) <= index < 1 << 63:
        raise ValueError(f"the index must fit in 64 bits, not {index}")
    samples = np.ascontiguousarray(samples)
    found = None
    for model in models:
        if not model.takes_audio:
            raise TypeError(f"{model.name} takes images: call it with the frame")
        found = model.run_on_audio(samples, rate, float(time), index, found)
    assert found is not None
    return AudioResult(found, float(time), len(samples) / rate, index)


class Model:
    """A neural network.

    The arguments are the fields of a model in a pipeline file: category ("Detect", "Classify" or
    "Track"), modelName and engine ("OpenVINO" or "ONNXRuntime"), device, modelRoot, modelDir and
    modelFile, classNames (a list, or the path of a file with one name per line), classCount,
    inputWidth, inputHeight, scoreThreshold, nmsThreshold, objThreshold, padding, wantedClasses and
    wantedLabels. docs/pipeline.md describes each; defaults are the same. Relative paths are
    relative to the current folder. Paths may be pathlib.Path, numbers those of numpy.

    Raises PipelineError if an argument is wrong or the model file does not exist, and Error with
    the message of the engine or the library if the network cannot be opened.

        with Model(category="Detect", modelName="YOLO8", engine="OpenVINO", modelRoot="models",
                   modelFile="yolov8n", classNames=names, inputWidth=640, inputHeight=640,
                   scoreThreshold=0.25, nmsThreshold=0.45) as model:
            result = model(frame)
    """

    def __init__(self, **fields: Any) -> None:
        try:
            content = json.dumps(
                {"models": [fields]}, ensure_ascii=False, allow_nan=False, default=_plain
            ).encode("utf-8", "surrogateescape")
        except ValueError as error:  # a number that is not finite, for example
            raise _native.PipelineError(f"Model: {error}") from None
        try:
            models, _, _ = _native.open_pipeline(b"Model", content)
        except _native.Error as error:
            raise type(error)(str(error).replace(": models[0]", "", 1)) from None
        self._models: "list[_native.Model]" = models

    def __call__(self, frame: npt.NDArray[np.uint8], objects: "Result | None" = None) -> Result:
        """Runs the model on an image.

        frame: array of shape (height, width, 3) and dtype uint8: blue, green, red, as cv2.imread
        returns it. A contiguous array is not copied, any other is copied once. It must not be
        changed by other threads during the call.
        objects: the result of another model for the same frame. Detectors append to its objects;
        ResNet and the models of category "Track" work on them; those that cut boxes out of the
        image drop boxes without an area. It is not changed: the new result holds copies.

        Text regions of the result are in reading order, as vsa reports them. The GIL is released
        while the model runs. Raises TypeError or ValueError for other frames, and Error with the
        error line of the library or the message of the engine if the model cannot process the
        frame or is closed.
        """
        return _run_on_image(self._models, frame, objects)

    def classify_audio(
        self, samples: npt.NDArray[Any], rate: int, *, time: float = 0.0, index: int = 0
    ) -> AudioResult:
        """Runs an audio model (AudioNet) on a block of audio. The mel-spectrogram service must be
        running.

        samples: array of shape (n,) or (n, channels) and dtype int16, or float32 with full scale 1;
        float64 is converted, and an array that is not contiguous is copied. At most 256 MiB.
        rate: samples per second of each channel.
        time: seconds from the beginning of the stream to the block. index: number of the block in
        its stream. Both are sent to the service.

        Raises as __call__.
        """
        return _run_on_audio(self._models, samples, rate, time, index)

    @property
    def class_names(self) -> "list[str]":
        """The names of the classes by class id."""
        return self._models[0].class_names

    @property
    def closed(self) -> bool:
        """Whether the model is closed."""
        return self._models[0].closed

    def close(self) -> None:
        """Frees the network, after the call of another thread has returned. Later calls of close()
        do nothing."""
        self._models[0].close()

    def __enter__(self) -> "Model":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


class Pipeline:
    """The models of a pipeline file, which run one after the other on a frame.

    path: a file as vsa reads it (docs/pipeline.md). Relative paths in it are relative to its
    folder.

    Raises PipelineError with the place in the file if something in it is wrong, and Error if a
    network cannot be opened.
    """

    def __init__(self, path: StrPath) -> None:
        name = os.fsencode(path)
        if b"\0" in name:
            raise _native.PipelineError(f"{path!r} is not a path")
        models, self._takes_audio, self._block_seconds = _native.open_pipeline(name)
        self._models: "list[_native.Model]" = models

    def __call__(self, frame: npt.NDArray[np.uint8], objects: "Result | None" = None) -> Result:
        """Runs all models on an image; arguments, result and exceptions are those of
        Model.__call__. The first model that fails ends the call."""
        return _run_on_image(self._models, frame, objects)

    def classify_audio(
        self, samples: npt.NDArray[Any], rate: int, *, time: float = 0.0, index: int = 0
    ) -> AudioResult:
        """Runs the models on a block of audio; arguments, result and exceptions are those of
        Model.classify_audio."""
        return _run_on_audio(self._models, samples, rate, time, index)

    @property
    def takes_audio(self) -> bool:
        """Whether the models take audio instead of images."""
        return self._takes_audio

    @property
    def block_seconds(self) -> float:
        """The length of a block of audio, which vsa passes to the models at once."""
        return self._block_seconds

    @property
    def class_names(self) -> "list[list[str]]":
        """The names of the classes of each model."""
        return [model.class_names for model in self._models]

    @property
    def closed(self) -> bool:
        """Whether the models are closed."""
        return all(model.closed for model in self._models)

    def close(self) -> None:
        """Closes all models."""
        for model in self._models:
            model.close()

    def __enter__(self) -> "Pipeline":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


def _plain(value: Any) -> Any:
    """A value that JSON lacks: a path, a number or an array of numpy, any other iterable."""
    if isinstance(value, os.PathLike):
        return os.fspath(value)
    if isinstance(value, (np.generic, np.ndarray)):
        return value.tolist()
    if isinstance(value, Iterable):
        return list(value)
    raise TypeError(f"{value!r} cannot be an argument of Model")
