// Lookup tables from the bytes of an image to the floats of a network's input.
//
// The float depends only on the byte and its channel. It is therefore computed once for each of the
// 256 byte values, with OpenCV's own calls if those define the result, and images are converted
// through the tables: bit-identical results in one pass.
#pragma once

#include <array>
#include <cstddef>
#include <optional>

namespace TolCompatibleLib {

/// A byte of channel c becomes byte * factors[c] + byte * remainder - offsets[c], from left to
/// right; each result is rounded to single precision. A remainder of 0 changes nothing.
struct LinearForm {
  std::array<float, 3> factors;
  std::array<float, 3> offsets;
  float remainder = 0;
};

/// The floats that bytes become. Channels are in the order in which the image stores them.
struct ByteTables {
  using Table = std::array<float, 256>;
  const Table& operator[](std::size_t channel) const { return tables[channel]; }

  std::array<Table, 3> tables;
  /// Set if it gives the same bits as all three tables; it is faster than looking floats up.
  std::optional<LinearForm> linear;
};

// Each table is computed on first use and kept until the library is unloaded. Computing it may
// throw cv::Exception or std::bad_alloc; the next call tries again.

/// YOLO detectors: byte / 255, as cv::dnn::blobFromImage computes it.
const ByteTables& unitTables();

/// Text detector: (byte / 255 - mean) / deviation with the means 0.485, 0.456, 0.406 and the
/// deviations 0.229, 0.224, 0.225 for channels 0, 1, 2.
const ByteTables& textDetectorTables();

/// Text recogniser PaddleOCR: byte * 2 / 255 - 1.
const ByteTables& textLineTables();

/// Image classifier: (byte / 255 - mean) / deviation in single precision.
const ByteTables& classifierTables();

/// Face embedding (FitToInput): byte / 255.
const ByteTables& fittedTables();

/// Re-identification (FitToInputNormalized): (byte / 255 - mean) / deviation with the means 0.406,
/// 0.456, 0.485 and the deviations 0.225, 0.224, 0.229 for channels 0, 1, 2.
const ByteTables& fittedNormalizedTables();

/// Text recogniser VsOCR: byte * factor - offset, which is the ImageNet normalisation with one
/// multiplication and one subtraction.
const ByteTables& ocrTables();

}  // namespace TolCompatibleLib
