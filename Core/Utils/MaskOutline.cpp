#include "Utils/MaskOutline.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>
#include <optional>

#include "Utils/Numbers.h"

namespace TolCompatibleLib {
namespace {

/// The part of the mask that a box covers, rounded outwards.
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

/// Writes the probability of every pixel of `crop` to `probabilities`, which has the size of
/// `crop`.
void fillProbabilities(const cv::Rect& crop, const MaskPrototypes& prototypes,
                       const MaskCoefficients& coefficients, cv::Mat probabilities) {
  const auto width = static_cast<std::size_t>(crop.width);
  const auto stride = static_cast<std::size_t>(prototypes.size.width);
  const std::size_t plane = stride * static_cast<std::size_t>(prototypes.size.height);
  // OpenCV computes the exponentials of short rows with another formula than those of long rows.
  // Short rows are padded, so that a mask does not depend on the size of its box.
  constexpr int kMinLength = 64;
  cv::Mat sums = cv::Mat::zeros(1, std::max(crop.area(), kMinLength), CV_32FC1);
  // Four prototypes at a time, which saves three of four loads and stores of the sums.
  static_assert(kMaskCoefficients % 4 == 0);
  for (std::size_t k = 0; k < kMaskCoefficients; k += 4) {
    const float* const c = coefficients.data() + k;
    for (int y = 0; y < crop.height; ++y) {
      const float* const first = prototypes.data + k * plane +
                                 static_cast<std::size_t>(crop.y + y) * stride +
                                 static_cast<std::size_t>(crop.x);
      const float* const second = first + plane;
      const float* const third = second + plane;
      const float* const fourth = third + plane;
      float* const row = sums.ptr<float>() + static_cast<std::size_t>(y) * width;
      // Subtracted, because the sigmoid needs the exponential of the negative sum.
      for (std::size_t x = 0; x < width; ++x) {
        row[x] =
            (((row[x] - c[0] * first[x]) - c[1] * second[x]) - c[2] * third[x]) - c[3] * fourth[x];
      }
    }
  }
  cv::exp(sums, sums);
  const float* exponential = sums.ptr<float>();
  for (int y = 0; y < crop.height; ++y, exponential += width) {
    float* const row = probabilities.ptr<float>(y);
    for (std::size_t x = 0; x < width; ++x) row[x] = 1.0F / (1.0F + exponential[x]);
  }
}

/// Input pixels per mask pixel, if this is a power of two from 2 to 64 in both directions; nullopt
/// otherwise. With such a ratio the sample positions of bilinear interpolation are exact, so a part
/// of the mask with a border of one pixel gives the same numbers as the whole mask.
std::optional<cv::Size> exactRatio(cv::Size mask, cv::Size input) {
  const auto isExact = [](int size, int of) {
    const int ratio = size / of;
    return ratio * of == size && ratio >= 2 && ratio <= 64 && (ratio & (ratio - 1)) == 0;
  };
  if (!isExact(input.width, mask.width) || !isExact(input.height, mask.height)) return std::nullopt;
  return cv::Size(input.width / mask.width, input.height / mask.height);
}

/// Interpolation between numbers from 0 to 1 has an error of at most 1.3e-7, here and in OpenCV. A
/// probability that differs from one half by more than this tolerance is on the same side of one
/// half in both.
constexpr float kTolerance = 5e-7F;

/// `mask`, resized to `size`, as a binary image: 255 for pixels above one half, 0 for others.
cv::Mat aboveHalf(const cv::Mat& mask, cv::Size size) {
  cv::Mat resized;
  cv::resize(mask, resized, size, 0, 0, cv::INTER_LINEAR);
  cv::Mat above;
  cv::compare(resized, 0.5, above, cv::CMP_GT);
  return above;
}

/// Fills the cell of `above` with the top-left pixel `at` and the size `ratio`, by interpolation
/// between its four corners: two values each at `upper` and `lower`.
inline void fillCell(const float* upper, const float* lower, cv::Point at, cv::Size ratio,
                     cv::Mat& above) {
  const float stepX = 1.0F / static_cast<float>(ratio.width);
  const float stepY = 1.0F / static_cast<float>(ratio.height);
  float closest = 1.0F;
  for (int y = 0; y < ratio.height; ++y) {
    const float down = (static_cast<float>(y) + 0.5F) * stepY;
    const float left = upper[0] * (1.0F - down) + lower[0] * down;
    const float right = upper[1] * (1.0F - down) + lower[1] * down;
    uchar* const row = above.ptr<uchar>(at.y + y) + at.x;
    for (int x = 0; x < ratio.width; ++x) {
      const float along = (static_cast<float>(x) + 0.5F) * stepX;
      const float over = left * (1.0F - along) + right * along - 0.5F;
      row[x] = over > 0.0F ? 255 : 0;
      closest = std::min(closest, std::abs(over));
    }
  }
  if (closest > kTolerance) return;
  // A pixel is too close to one half: the result depends on the order in which OpenCV rounds.
  const cv::Mat corners = (cv::Mat_<float>(2, 2) << upper[0], upper[1], lower[0], lower[1]);
  const cv::Rect inner({ratio.width / 2, ratio.height / 2}, ratio);
  aboveHalf(corners, ratio * 2)(inner).copyTo(above(cv::Rect(at, ratio)));
}

/// The result of aboveHalf() for a mask enlarged by an exact ratio. Interpolates only at the edges
/// of the object: a pixel between four values on one side of one half is on that side, too. The
/// returned matrix refers to `memory`.
cv::Mat aboveHalfByEdges(const cv::Mat& mask, cv::Size ratio, std::vector<std::uint8_t>& memory) {
  // Each cell of `ratio` pixels has four mask pixels as its corners. The replicated border adds
  // half a cell on each side.
  cv::Mat corners;
  cv::copyMakeBorder(mask, corners, 1, 1, 1, 1, cv::BORDER_REPLICATE);
  cv::Mat highs;
  cv::Mat lows;
  cv::compare(corners, 0.5 + kTolerance, highs, cv::CMP_GT);
  cv::compare(corners, 0.5 - kTolerance, lows, cv::CMP_LT);
  const cv::Size cells = corners.size() - cv::Size(1, 1);
  const cv::Size size(cells.width * ratio.width, cells.height * ratio.height);
  memory.assign(static_cast<std::size_t>(size.width) * static_cast<std::size_t>(size.height), 0);
  cv::Mat above(size, CV_8UC1, memory.data());
  // With a constant ratio, the compiler vectorises fillCell.
  const cv::Size kUsualRatio(4, 4);
  enum : uchar { kBelow = 0, kMixed = 1, kAbove = 255 };
  std::vector<uchar> kinds(static_cast<std::size_t>(cells.width));
  for (int y = 0; y < cells.height; ++y) {
    const uchar* const high = highs.ptr<uchar>(y);
    const uchar* const highBelow = highs.ptr<uchar>(y + 1);
    const uchar* const low = lows.ptr<uchar>(y);
    const uchar* const lowBelow = lows.ptr<uchar>(y + 1);
    for (std::size_t x = 0; x < kinds.size(); ++x) {
      const uchar allHigh = high[x] & high[x + 1] & highBelow[x] & highBelow[x + 1];
      const uchar allLow = low[x] & low[x + 1] & lowBelow[x] & lowBelow[x + 1];
      kinds[x] = allHigh | (kMixed & ~allLow);
    }
    const float* const upper = corners.ptr<float>(y);
    const float* const lower = corners.ptr<float>(y + 1);
    for (auto cell = kinds.begin(); cell != kinds.end();) {
      const auto kind = *cell;
      const auto end = kind == kMixed ? cell + 1
                                      : std::find_if(cell, kinds.end(),
                                                     [&](uchar other) { return other != kind; });
      const auto x = static_cast<int>(cell - kinds.begin());
      const cv::Point at(x * ratio.width, y * ratio.height);
      if (kind == kMixed && ratio == kUsualRatio) {
        fillCell(upper + x, lower + x, at, kUsualRatio, above);
      } else if (kind == kMixed) {
        fillCell(upper + x, lower + x, at, ratio, above);
      }
      for (int row = 0; kind == kAbove && row < ratio.height; ++row) {
        std::fill_n(above.ptr<uchar>(at.y + row) + at.x, (end - cell) * ratio.width, kAbove);
      }
      cell = end;
    }
  }
  return above(cv::Rect({ratio.width / 2, ratio.height / 2},
                        cv::Size(mask.cols * ratio.width, mask.rows * ratio.height)));
}

}  // namespace

std::vector<cv::Point> maskOutline(const MaskPrototypes& prototypes,
                                   const MaskCoefficients& coefficients, const cv::Rect& box,
                                   cv::Size inputSize, std::vector<std::uint8_t>& memory) {
  const cv::Rect crop = cropOf(box, prototypes.size, inputSize);
  if (crop.empty()) return {};
  const std::optional<cv::Size> ratio = exactRatio(prototypes.size, inputSize);
  const cv::Rect whole({0, 0}, prototypes.size);
  const cv::Rect area =
      ratio ? cv::Rect(crop.x - 1, crop.y - 1, crop.width + 2, crop.height + 2) & whole : whole;
  cv::Mat mask = cv::Mat::zeros(area.size(), CV_32FC1);
  fillProbabilities(crop, prototypes, coefficients, mask(crop - area.tl()));

  cv::Mat object;
  cv::Point offset;
  if (ratio) {
    object = aboveHalfByEdges(mask, *ratio, memory);
    offset = {area.x * ratio->width, area.y * ratio->height};
  } else {
    object = aboveHalf(mask, inputSize);
  }

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
