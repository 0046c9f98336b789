"""What models return."""

from __future__ import annotations

import dataclasses
import functools
import json
import os
from typing import TYPE_CHECKING, Any, Iterator, Sequence, Union, overload

import numpy as np
import numpy.typing as npt

from . import _native

if TYPE_CHECKING:
    import supervision

Input = Union[str, bytes, "os.PathLike[str]"]


def _strings(items: "Sequence[str | None]") -> npt.NDArray[np.object_]:
    array = np.empty(len(items), object)
    array[:] = items
    return array


def _finite(
    name: str, values: npt.ArrayLike, limit: int, count: "int | None" = None
) -> npt.NDArray[np.float64]:
    numbers = np.asarray(values, np.float64)
    if not np.all(np.abs(numbers) < limit):
        raise ValueError(f"the {name} must be finite and fit in 32 bits")
    if count is not None and numbers.shape != (count,):
        raise ValueError(f"the {name} must have the shape ({count},), not {numbers.shape}")
    return numbers


@dataclasses.dataclass(frozen=True, eq=False)
class Object:
    """One object of a Result. Its fields are the rows of the arrays of the result; None if the
    object has no such value."""

    box: npt.NDArray[np.int32]
    score: float
    class_id: int
    class_name: str
    angle: "float | None"
    corners: npt.NDArray[np.float32]
    key_points: "npt.NDArray[np.float32] | None"
    outline: "npt.NDArray[np.int32] | None"
    label_id: "int | None"
    label_name: "str | None"
    label_score: "float | None"
    text: "str | None"
    feature: "npt.NDArray[np.float32] | None"


class Result(Sequence[Object]):
    """The objects that models found in an image.

    N is the number of objects, len(result). The arrays are made when they are first read; they are
    copies, and changes of them change neither the objects nor the other arrays. Coordinates are
    pixels of the frame, x to the right and y down.

    result[i] is an Object; result[mask], result[indices] and result[slice] are the result of these
    objects alone, which can be passed to the next model. Results can be pickled.
    """

    def __init__(self, objects: _native.Objects) -> None:
        self._objects = objects

    @classmethod
    def from_boxes(
        cls,
        frame: npt.NDArray[np.uint8],
        boxes: npt.ArrayLike,
        scores: "npt.ArrayLike | None" = None,
        class_ids: "npt.ArrayLike | None" = None,
        class_names: "Sequence[str] | None" = None,
    ) -> "Result":
        """The result of another detector, for models that work on objects.

        boxes: (N, 4), left, top, right and bottom in pixels of the frame. Fractions are cut off;
        the box is clamped to the frame. scores, class_ids, class_names: N values; default: 1, 0 and
        "".

        Raises TypeError or ValueError if frame is not an image, the numbers of values differ, or a
        number is not finite or does not fit in 32 bits.
        """
        if not isinstance(frame, np.ndarray):
            raise TypeError(f"the frame must be a numpy array, not {type(frame).__name__}")
        if frame.ndim < 2 or not all(0 < side < 1 << 31 for side in frame.shape[:2]):
            raise ValueError(f"the frame has the shape {frame.shape}")
        corners = _finite("boxes", boxes, 1 << 31).reshape(-1, 4)
        count = len(corners)
        height, width = frame.shape[:2]
        return cls(
            _native.Objects.from_boxes(
                width,
                height,
                np.ascontiguousarray(corners, np.int32),
                (
                    np.ones(count).tolist()
                    if scores is None
                    else _finite("scores", scores, 1 << 127, count).astype(np.float32).tolist()
                ),
                (
                    [0] * count
                    if class_ids is None
                    else _finite("class ids", class_ids, 1 << 31, count).astype(np.int32).tolist()
                ),
                [""] * count if class_names is None else list(map(str, class_names)),
            )
        )

    @property
    def width(self) -> int:
        """Width of the frame in pixels."""
        return self._objects.width

    @property
    def height(self) -> int:
        """Height of the frame in pixels."""
        return self._objects.height

    @functools.cached_property
    def boxes(self) -> npt.NDArray[np.int32]:
        """(N, 4) int32: left, top, right, bottom. Oriented boxes: before the rotation. Text
        regions: the smallest upright box around the corners."""
        return self._objects.boxes()

    @functools.cached_property
    def scores(self) -> npt.NDArray[np.float32]:
        """(N,) float32: confidence scores of the detector."""
        return self._objects.scores()

    @functools.cached_property
    def class_ids(self) -> npt.NDArray[np.int32]:
        """(N,) int32: indices into classNames."""
        return self._objects.class_ids()

    @functools.cached_property
    def class_names(self) -> npt.NDArray[np.object_]:
        """(N,) object: names of the classes as str."""
        return _strings(self._objects.class_names())

    @functools.cached_property
    def angles(self) -> npt.NDArray[np.float32]:
        """(N,) float32: rotation of oriented boxes about their centre in radians, clockwise as
        seen; NaN for others."""
        return self._objects.angles()

    @functools.cached_property
    def corners(self) -> npt.NDArray[np.float32]:
        """(N, 4, 2) float32: x and y of the corners: top left, top right, bottom right, bottom left
        of a text region in reading direction, of an oriented box before its rotation, or of a plain
        box."""
        return self._objects.corners()

    @functools.cached_property
    def key_points(self) -> npt.NDArray[np.float32]:
        """(N, K, 2) float32: x and y of all key points of the pose network, in its order, visible
        or not. K is 0 without such a network; NaN for objects of other detectors."""
        return self._objects.key_points()

    @functools.cached_property
    def outlines(self) -> "list[npt.NDArray[np.int32]]":
        """N arrays (P, 2) int32: x and y of the vertices of a closed polygon; P is 0 for objects
        without an outline."""
        return self._objects.outlines()

    @functools.cached_property
    def label_ids(self) -> npt.NDArray[np.int32]:
        """(N,) int32: class of the image classifier; -1 for objects that were not classified."""
        return self._objects.label_ids()

    @functools.cached_property
    def label_names(self) -> npt.NDArray[np.object_]:
        """(N,) object: name of that class as str; None for objects that were not classified."""
        return _strings(self._objects.label_names())

    @functools.cached_property
    def label_scores(self) -> npt.NDArray[np.float32]:
        """(N,) float32: score of that class, 0 to 1; NaN for objects that were not classified."""
        return self._objects.label_scores()

    @functools.cached_property
    def texts(self) -> npt.NDArray[np.object_]:
        """(N,) object: recognised text as str, decoded from the encoding of the dictionary; None
        for objects that no text recogniser has read."""
        return _strings(self._objects.texts())

    @functools.cached_property
    def features(self) -> npt.NDArray[np.float32]:
        """(N, F) float32: feature vectors, not normalised. F is 256 (DeepSort), 128 (VsFaceNet) or
        0 (none)."""
        return self._objects.features()

    def to_json(self, input: Input = "image", frame: int = 0, time: "float | None" = None) -> str:
        """The line that `vsa run --json` prints for this frame, without the line break.

        input: name of the image or video. frame: number of the frame in the input. time: seconds
        from the beginning of a video; None for an image."""
        return self._objects.image_json(os.fsencode(input), frame, time).rstrip("\n")

    def to_dict(
        self, input: Input = "image", frame: int = 0, time: "float | None" = None
    ) -> "dict[str, Any]":
        """The same as a dictionary. docs/vsa-output.schema.json describes its members."""
        value: "dict[str, Any]" = json.loads(self.to_json(input, frame, time))
        return value

    def to_supervision(self) -> "supervision.Detections":
        """The objects as supervision.Detections; needs the package supervision.

        xyxy are the boxes, mask the outlines as (N, height, width) bool if there are any. data
        holds "class_name", and "xyxyxyxy" (corners) for oriented boxes and text regions, "text",
        "label_name" and "feature" if a model has written them."""
        import supervision

        data: "dict[str, Any]" = {"class_name": self.class_names.astype(str)}
        if not np.isnan(self.angles).all() or not np.array_equal(
            self.corners[:, ::2].reshape(-1, 4), self.boxes
        ):
            data["xyxyxyxy"] = self.corners
        for key, values in (("text", self.texts), ("label_name", self.label_names)):
            if any(value is not None for value in values):
                data[key] = values
        if self.features.shape[1]:
            data["feature"] = self.features
        mask = None
        if any(map(len, self.outlines)):
            size = self.width, self.height
            mask = np.array(
                [
                    (
                        supervision.polygon_to_mask(outline, size)
                        if len(outline)
                        else np.zeros(size[::-1])
                    )
                    for outline in self.outlines
                ],
                bool,
            )
        return supervision.Detections(
            xyxy=self.boxes.astype(np.float32),
            mask=mask,
            confidence=self.scores,
            class_id=self.class_ids.astype(int),
            data=data,
        )

    def __len__(self) -> int:
        return len(self._objects)

    @overload
    def __getitem__(self, index: int) -> Object: ...

    @overload
    def __getitem__(self, index: "slice | npt.ArrayLike") -> "Result": ...

    def __getitem__(self, index: Any) -> "Object | Result":
        chosen = np.arange(len(self))[index]
        if chosen.ndim == 0:
            return self._object(int(chosen))
        return Result(self._objects.take(chosen.ravel().tolist()))

    def __iter__(self) -> Iterator[Object]:
        return map(self._object, range(len(self)))

    def _object(self, i: int) -> Object:
        angle, label = float(self.angles[i]), int(self.label_ids[i])
        points, feature = self.key_points[i], self.features[i]
        return Object(
            self.boxes[i],
            float(self.scores[i]),
            int(self.class_ids[i]),
            self.class_names[i],
            None if np.isnan(angle) else angle,
            self.corners[i],
            points if len(points) and not np.isnan(points).all() else None,
            self.outlines[i] if len(self.outlines[i]) else None,
            None if label < 0 else label,
            self.label_names[i],
            None if label < 0 else float(self.label_scores[i]),
            self.texts[i],
            feature if len(feature) and not np.isnan(feature).all() else None,
        )

    def __reduce__(self) -> Any:
        return _from_json, (self.to_json(),)

    def __repr__(self) -> str:
        return f"<Result: {len(self)} objects in {self.width} x {self.height} pixels>"


def _from_json(line: str) -> Result:
    return Result(_native.Objects.from_json(line))


class AudioResult:
    """The classes that an audio model recognised in a block of audio. N is their number.

    Results can be pickled."""

    def __init__(self, objects: _native.Objects, time: float, duration: float, index: int) -> None:
        self._objects = objects
        self._place = index, time, duration

    @property
    def classified(self) -> bool:
        """Whether a wanted class was recognised."""
        return self._objects.classified

    @property
    def score(self) -> float:
        """Score of that class."""
        return self._objects.audio_score

    @functools.cached_property
    def scores(self) -> npt.NDArray[np.float32]:
        """(N,) float32."""
        return self._objects.scores()

    @functools.cached_property
    def class_ids(self) -> npt.NDArray[np.int32]:
        """(N,) int32: indices into classNames."""
        return self._objects.class_ids()

    @functools.cached_property
    def class_names(self) -> npt.NDArray[np.object_]:
        """(N,) object: names of the classes as str."""
        return _strings(self._objects.class_names())

    def to_json(self, input: Input = "audio") -> str:
        """The line that `vsa run --json` prints for this block, without the line break. input: name
        of the stream."""
        return self._objects.audio_json(os.fsencode(input), *self._place).rstrip("\n")

    def to_dict(self, input: Input = "audio") -> "dict[str, Any]":
        """The same as a dictionary. docs/vsa-output.schema.json describes its members."""
        value: "dict[str, Any]" = json.loads(self.to_json(input))
        return value

    def __len__(self) -> int:
        return len(self._objects)

    def __reduce__(self) -> Any:
        return _audio_from_json, (self.to_json(), *self._place)

    def __repr__(self) -> str:
        return f"<AudioResult: {', '.join(self.class_names) or 'nothing'}>"


def _audio_from_json(line: str, index: int, time: float, duration: float) -> AudioResult:
    return AudioResult(_native.Objects.from_json(line), time, duration, index)
