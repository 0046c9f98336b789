// From a map of text probabilities to quadrilaterals of the frame, after the DB text detector:
// binarise, follow the contours, score each one's smallest rectangle, enlarge it (Liao et al.,
// "Real-time Scene Text Detection with Differentiable Binarization", AAAI 2020, with a rectangle in
// place of the polygon).
#pragma once

#include <array>
#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace TolCompatibleLib {

/// How text regions are chosen.
struct TextBoxParams {
  float binThreshold = 0.3F;           ///< A pixel is text above this probability.
  float boxThreshold = 0.6F;           ///< A region scores at least this.
  std::int32_t candidateLimit = 1000;  ///< At most so many contours are looked at.
  float unclipRatio = 2.0F;            ///< A region grows by area * ratio / perimeter on each side.
  std::int32_t minSize = 3;  ///< Points of a contour, and pixels of its rectangle's shorter side.
};

/// Top-left, top-right, bottom-right, bottom-left corner in frame pixels, whole numbers.
using TextRegion = std::array<cv::Point2f, 4>;

/// Parallel lists, in the order in which the contours were found.
struct TextRegions {
  std::vector<TextRegion> regions;
  std::vector<float> scores;  ///< Mean probability inside the rectangle before it was enlarged.
};

/// Text regions of a probability map (one float channel, not empty). Corners are clamped to 0 ..
/// frame size, both ends included. Regions may overlap. \param resized the size that the frame was
/// given for the network; it, not the size of the map, scales the corners.
TextRegions extractTextBoxes(const TextBoxParams& params, const cv::Mat& map, cv::Size frame,
                             cv::Size resized);

/// Mean of `map` inside the quadrilateral `corners` (map pixels); 0 where it lies outside the map.
float polygonScore(const std::array<cv::Point2f, 4>& corners, const cv::Mat& map);

}  // namespace TolCompatibleLib
