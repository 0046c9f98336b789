// The results of a frame, and their fields as numpy arrays.
#pragma once

#include <TolCompatible/TolCompatible.h>
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

#include <cstdint>
#include <string>
#include <vector>

namespace python {

/// Arrays are copies that own their memory.
using FloatArray = nanobind::ndarray<nanobind::numpy, float>;
using IntArray = nanobind::ndarray<nanobind::numpy, std::int32_t>;

/// The objects of an image, or the classes of a block of audio.
struct Objects {
  std::vector<VsaObject> list;
  std::uint32_t width = 0;    ///< Of the image in pixels; 0 for audio.
  std::uint32_t height = 0;   ///< Likewise.
  bool isClassified = false;  ///< Audio: whether a wanted class was recognised.
  float audioScore = 0.0F;    ///< Audio: score of that class.
};

/// The text as a string of Python, with U+FFFD for bytes that are not UTF-8, as in vsa's output.
nanobind::object toString(const std::string& text);

/// [N, 4]: left, top, right, bottom. Text regions: the bounding box of the corners.
IntArray boxes(const Objects& objects);
/// [N]
FloatArray scores(const Objects& objects);
/// [N]
IntArray classIds(const Objects& objects);
/// N strings.
nanobind::list classNames(const Objects& objects);
/// [N]: radians, NaN for boxes that are not oriented.
FloatArray angles(const Objects& objects);
/// [N, 4, 2]: corners in the order top left, top right, bottom right, bottom left of the object
/// before its rotation; rotated for oriented boxes.
FloatArray corners(const Objects& objects);
/// [N, K, 2]: x and y; NaN for objects with fewer than K key points.
FloatArray keyPoints(const Objects& objects);
/// N arrays [P, 2]: x and y of a polygon; P is 0 for objects without an outline.
nanobind::list outlines(const Objects& objects);
/// [N]: -1 for objects that were not classified.
IntArray labelIds(const Objects& objects);
/// [N]: 0 to 1; NaN for objects that were not classified.
FloatArray labelScores(const Objects& objects);
/// N strings; None for objects that were not classified.
nanobind::list labelNames(const Objects& objects);
/// N strings; None for objects whose text was not read.
nanobind::list texts(const Objects& objects);
/// [N, F]: F is the length of the longest feature vector, others end with NaN.
FloatArray features(const Objects& objects);

/// The objects at these indices. Throws std::out_of_range.
Objects take(const Objects& objects, const std::vector<std::int64_t>& indices);

}  // namespace python
