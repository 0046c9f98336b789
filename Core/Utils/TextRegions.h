// From a map of text probabilities to quadrilaterals in the frame, as in the DB text detector (Liao
// et al., "Real-time Scene Text Detection with Differentiable Binarization", AAAI 2020), but with
// rectangles instead of polygons: binarise the map, find contours, compute the score of the
// minimum-area rectangle of each contour, enlarge the rectangle.
#pragma once

#include <array>
#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace TolCompatibleLib {

/// Parameters of extractTextBoxes().
struct TextBoxParams {
  float binThreshold = 0.3F;           ///< A pixel is text above this probability.
  float boxThreshold = 0.6F;           ///< Minimum score of a region.
  std::int32_t candidateLimit = 1000;  ///< Maximum number of contours examined.
  float unclipRatio = 2.0F;            ///< Each side moves outwards by area * ratio / perimeter.
  /// Minimum number of points of a contour, and of pixels of its rectangle's shorter side.
  std::int32_t minSize = 3;
};

/// Top-left, top-right, bottom-right, bottom-left corner in frame pixels, whole numbers.
using TextRegion = std::array<cv::Point2f, 4>;

/// Parallel lists, in the order in which the contours were found.
struct TextRegions {
  std::vector<TextRegion> regions;
  std::vector<float> scores;  ///< Mean probability inside the rectangle before it was enlarged.
};

/// Text regions of a probability map (one float channel, not empty). Corners are clamped to 0 to
/// the frame's width or height, inclusive. Regions may overlap.
/// @param resized the size to which the frame was scaled for the network. Corners are scaled from
///   this size to that of the frame, even if the map has another size.
TextRegions extractTextBoxes(const TextBoxParams& params, const cv::Mat& map, cv::Size frame,
                             cv::Size resized);

/// Mean of `map` inside the quadrilateral `corners` (map pixels); 0 if it is outside the map.
float polygonScore(const std::array<cv::Point2f, 4>& corners, const cv::Mat& map);

}  // namespace TolCompatibleLib
