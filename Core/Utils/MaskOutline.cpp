#include "Utils/MaskOutline.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "Utils/Numbers.h"

namespace TolCompatibleLib {
namespace {

/// The rows and columns of the mask that a box covers, rounded outwards.
cv::Rect cropOf(const cv::Rect& box, cv::Size mask, cv::Size input) {
  const float ratioX = static_cast<float>(mask.width) / static_cast<float>(input.width);
  const float ratioY = static_cast<float>(mask.height) / static_cast<float>(input.height);
  const auto low = [](int edge, float ratio) {
    return std::max(truncateToInt(std::floor(static_cast<float>(edge) * ratio)), 0);
  };
  const auto high = [](int edge, float ratio, int end) {
    return std::min(truncateToInt(std::ceil(static_cast<float>(edge) * ratio)), end);
  };
  const int x0 = low(box.x, ratioX);
  const int y0 = low(box.y, ratioY);
  const int x1 = high(saturatedSum(box.x, box.width), ratioX, mask.width);
  const int y1 = high(saturatedSum(box.y, box.height), ratioY, mask.height);
  if (x1 <= x0 || y1 <= y0) return {};
  return {x0, y0, x1 - x0, y1 - y0};
}

/// Probability of every mask pixel of `crop`, row by row.
cv::Mat probabilitiesIn(const cv::Rect& crop, const MaskPrototypes& prototypes,
                        const MaskCoefficients& coefficients) {
  const auto width = static_cast<std::size_t>(crop.width);
  const auto stride = static_cast<std::size_t>(prototypes.size.width);
  const std::size_t plane = stride * static_cast<std::size_t>(prototypes.size.height);
  cv::Mat logits = cv::Mat::zeros(crop.size(), CV_32FC1);
  for (std::size_t k = 0; k < kMaskCoefficients; ++k) {
    for (int y = 0; y < crop.height; ++y) {
      const float* prototype = prototypes.data + k * plane +
                               static_cast<std::size_t>(crop.y + y) * stride +
                               static_cast<std::size_t>(crop.x);
      float* row = logits.ptr<float>(y);
      for (std::size_t x = 0; x < width; ++x) row[x] += coefficients[k] * prototype[x];
    }
  }
  // OpenCV computes short rows by another formula than long ones. So that a mask does not depend on
  // the size of its box, short ones are lengthened.
  constexpr int kLongEnough = 64;
  const int count = static_cast<int>(logits.total());
  cv::Mat negated = cv::Mat::zeros(1, std::max(count, kLongEnough), CV_32FC1);
  const cv::Mat flat = logits.reshape(1, 1);
  cv::Mat sameLength = negated.colRange(0, count);
  flat.convertTo(sameLength, CV_32FC1, -1.0);
  cv::Mat exponential;
  cv::exp(negated, exponential);
  cv::Mat probabilities;
  cv::divide(1.0, exponential + 1.0, probabilities);
  return probabilities.colRange(0, count).clone().reshape(1, crop.height);
}

/// The part of the mask that has to be resized for `crop`. Where the input is the mask's size times
/// a power of two, sample positions are exact, so a border of one pixel round the crop gives the
/// same numbers as the whole mask.
cv::Rect areaFor(const cv::Rect& crop, cv::Size mask, cv::Size input) {
  const cv::Rect whole({0, 0}, mask);
  const auto isPowerOfTwo = [](int size, int of) {
    const int ratio = size / of;
    return ratio * of == size && (ratio & (ratio - 1)) == 0;
  };
  if (!isPowerOfTwo(input.width, mask.width) || !isPowerOfTwo(input.height, mask.height)) {
    return whole;
  }
  return cv::Rect(crop.x - 1, crop.y - 1, crop.width + 2, crop.height + 2) & whole;
}

}  // namespace

std::vector<cv::Point> maskOutline(const MaskPrototypes& prototypes,
                                   const MaskCoefficients& coefficients, const cv::Rect& box,
                                   cv::Size inputSize) {
  const cv::Rect crop = cropOf(box, prototypes.size, inputSize);
  if (crop.empty()) return {};
  const cv::Rect area = areaFor(crop, prototypes.size, inputSize);
  cv::Mat mask = cv::Mat::zeros(area.size(), CV_32FC1);
  probabilitiesIn(crop, prototypes, coefficients).copyTo(mask(crop - area.tl()));

  const bool isWhole = area.size() == prototypes.size;
  const cv::Size resizedSize =
      isWhole ? inputSize
              : cv::Size(area.width * (inputSize.width / prototypes.size.width),
                         area.height * (inputSize.height / prototypes.size.height));
  const cv::Point offset = isWhole
                               ? cv::Point()
                               : cv::Point(area.x * (inputSize.width / prototypes.size.width),
                                           area.y * (inputSize.height / prototypes.size.height));
  cv::Mat resized;
  cv::resize(mask, resized, resizedSize, 0, 0, cv::INTER_LINEAR);
  cv::Mat object;
  cv::compare(resized, 0.5, object, cv::CMP_GT);

  std::vector<std::vector<cv::Point>> contours;
  cv::findContours(object, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE, offset);
  std::vector<cv::Point> largest;
  double largestArea = 0.0;
  for (std::vector<cv::Point>& contour : contours) {
    if (contour.size() < 3) continue;
    const double contourArea = cv::contourArea(contour);
    if (contourArea > largestArea) {
      largestArea = contourArea;
      largest = std::move(contour);
    }
  }
  return largest;
}

}  // namespace TolCompatibleLib
