// The float that each byte of an image becomes on its way into a network.
//
// A byte becomes a float by a few arithmetic steps that depend on nothing but the byte and its
// channel. So the steps are done once for the 256 possible bytes, by OpenCV's own calls if those
// define the result, and images are written through the tables: the same bits in one pass.
#pragma once

#include <array>

namespace TolCompatibleLib {

/// 256 floats for each channel of the image, in the order in which the image stores its channels.
using ByteTables = std::array<std::array<float, 256>, 3>;

// Each table is built on first use and kept until the library is unloaded. Building it may throw
// cv::Exception or std::bad_alloc; the next call tries again.

/// YOLO detectors: byte / 255, as cv::dnn::blobFromImage computes it.
const ByteTables& unitTables();

/// Text detector: (byte / 255 - mean) / deviation with the means 0.485, 0.456, 0.406 and the
/// deviations 0.229, 0.224, 0.225 for channels 0, 1, 2.
const ByteTables& textDetectorTables();

/// Text recogniser: byte * 2 / 255 - 1.
const ByteTables& textLineTables();

/// Image classifier: (byte / 255 - mean) / deviation in single precision.
const ByteTables& classifierTables();

/// Embeddings: byte / 255.
const ByteTables& fittedTables();

/// Embeddings: (byte / 255 - mean) / deviation with the means 0.406, 0.456, 0.485 and the
/// deviations 0.225, 0.224, 0.229 for channels 0, 1, 2.
const ByteTables& fittedNormalizedTables();

/// Second text recogniser: byte * factor - offset, the ImageNet statistics folded into one product
/// and one difference.
const ByteTables& ocrTables();

}  // namespace TolCompatibleLib
