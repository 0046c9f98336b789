// From mask coefficients to the outline of an object, after YOLACT (Bolya et al., "YOLACT:
// Real-time Instance Segmentation", ICCV 2019): a mask is the weighted sum of prototypes, made a
// probability, cut to the object's box.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace TolCompatibleLib {

constexpr std::size_t kMaskCoefficients = 32;
using MaskCoefficients = std::array<float, kMaskCoefficients>;

/// 32 planes of `size` floats, one after the other; someone else's.
struct MaskPrototypes {
  const float* data;
  cv::Size size;
};

/// The outer contour of largest area of the mask inside `box`, in network pixels, as
/// cv::findContours gives it with simple chain approximation; the first one of equals. Empty where
/// the box has no mask pixel, where no pixel is above one half, and where no part has an area.
/// \param box in network pixels, as is the whole input of `inputSize`; it may reach beyond it.
/// \param memory to work in, kept by the caller from one mask to the next: fresh memory for each
/// costs as much time as the mask.
std::vector<cv::Point> maskOutline(const MaskPrototypes& prototypes,
                                   const MaskCoefficients& coefficients, const cv::Rect& box,
                                   cv::Size inputSize, std::vector<std::uint8_t>& memory);

}  // namespace TolCompatibleLib
