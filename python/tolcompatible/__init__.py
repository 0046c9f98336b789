"""Neural networks for video and audio analysis: detectors, text recognition, classification and
embeddings on OpenVINO and ONNX Runtime.

    import cv2, tolcompatible

    with tolcompatible.Pipeline("text.json") as pipeline:
        result = pipeline(cv2.imread("page.png"))
    print(result.boxes, result.texts)

A Model is one network, a Pipeline several that run one after the other; both return a Result, whose
fields are numpy arrays. Log lines of the library go to the logger "tolcompatible" of the module
logging; nothing is written to standard error.

Threads: frames may be passed to several models from several threads at the same time. Calls of one
model are made one after the other. Processes: start them before the first model, or with the method
"spawn" or "forkserver".
"""

import atexit as _atexit
import logging as _logging

from . import _native
from ._model import Model, Pipeline, devices
from ._native import Error, PipelineError
from ._result import AudioResult, Object, Result

__all__ = [
    "AudioResult",
    "Error",
    "Model",
    "Object",
    "Pipeline",
    "PipelineError",
    "Result",
    "devices",
]

_logger = _logging.getLogger(__name__)
_logger.addHandler(_logging.NullHandler())


def _log(is_error: bool, file: str, line: int, text: str) -> None:
    level = _logging.ERROR if is_error else _logging.INFO
    if _logger.isEnabledFor(level):
        _logger.handle(_logger.makeRecord(__name__, level, file, line, text, (), None))


_native.set_logger(_log)
_atexit.register(_native.finish_calls)
