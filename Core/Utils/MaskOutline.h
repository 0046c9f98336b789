// From mask coefficients to the outline of an object, as in YOLACT (Bolya et al., "YOLACT:
// Real-time Instance Segmentation", ICCV 2019): a mask is the sigmoid of a weighted sum of
// prototypes, cropped to the object's box.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace TolCompatibleLib {

constexpr std::size_t kMaskCoefficients = 32;
using MaskCoefficients = std::array<float, kMaskCoefficients>;

/// 32 planes of `size` floats, one after the other; not owned.
struct MaskPrototypes {
  const float* data;
  cv::Size size;
};

/// The outer contour with the largest area of the mask inside `box`, in network pixels, as
/// cv::findContours returns it with simple chain approximation; the first one of equal areas. Empty
/// if the box has no mask pixel, if no pixel is above one half, or if no contour has an area.
/// @param box in network pixels; it may extend beyond the input of `inputSize`.
/// @param memory working memory that the caller keeps between masks, because allocating it for each
///   mask takes as long as computing the mask.
std::vector<cv::Point> maskOutline(const MaskPrototypes& prototypes,
                                   const MaskCoefficients& coefficients, const cv::Rect& box,
                                   cv::Size inputSize, std::vector<std::uint8_t>& memory);

}  // namespace TolCompatibleLib
