// Outlines against the literal way: the whole mask, the whole resize, for every object.

#include "Utils/MaskOutline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <opencv2/imgproc.hpp>

namespace {

using namespace TolCompatibleLib;

std::vector<cv::Point> literalOutline(const std::vector<float>& prototypes, cv::Size size,
                                      const MaskCoefficients& coefficients, const cv::Rect& box, cv::Size input) {
  cv::Mat mask = cv::Mat::zeros(size, CV_32FC1);
  for (std::size_t k = 0; k < kMaskCoefficients; ++k) {
    for (int i = 0; i < size.area(); ++i) {
      mask.ptr<float>()[i] +=
          coefficients[k] * prototypes[k * static_cast<std::size_t>(size.area()) + static_cast<std::size_t>(i)];
    }
  }
  cv::Mat power;
  cv::exp(-mask, power);
  mask = 1.0 / (1.0 + power);
  const float ratioX = static_cast<float>(size.width) / static_cast<float>(input.width);
  const float ratioY = static_cast<float>(size.height) / static_cast<float>(input.height);
  const int x0 = std::max(static_cast<int>(std::floor(static_cast<float>(box.x) * ratioX)), 0);
  const int y0 = std::max(static_cast<int>(std::floor(static_cast<float>(box.y) * ratioY)), 0);
  const int x1 = std::min(static_cast<int>(std::ceil(static_cast<float>(box.x + box.width) * ratioX)), size.width);
  const int y1 = std::min(static_cast<int>(std::ceil(static_cast<float>(box.y + box.height) * ratioY)), size.height);
  if (x1 <= x0 || y1 <= y0) return {};
  const cv::Rect crop(x0, y0, x1 - x0, y1 - y0);
  cv::Mat cropped = cv::Mat::zeros(size, CV_32FC1);
  mask(crop).copyTo(cropped(crop));
  cv::Mat resized;
  cv::resize(cropped, resized, input, 0, 0, cv::INTER_LINEAR);
  cv::Mat binary;
  cv::threshold(resized, binary, 0.5, 255, cv::THRESH_BINARY);
  binary.convertTo(binary, CV_8U);
  std::vector<std::vector<cv::Point>> contours;
  cv::findContours(binary, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);
  std::vector<cv::Point> best;
  double bestArea = 0;
  for (const auto& contour : contours) {
    if (contour.size() < 3) continue;
    const double area = cv::contourArea(contour);
    if (area > bestArea) {
      bestArea = area;
      best = contour;
    }
  }
  return best;
}

struct Sizes {
  cv::Size mask, input;
};

TEST(MaskOutline, EqualsTheLiteralWayToThePixel) {
  // Ratios of a power of two take the short way; three, one and a half, a shrunk one and unequal
  // ones the plain way.
  const Sizes cases[] = {{{40, 40}, {160, 160}}, {{40, 24}, {160, 96}}, {{24, 40}, {48, 320}},
                         {{30, 30}, {30, 30}},   {{20, 20}, {60, 60}},  {{32, 32}, {48, 48}},
                         {{64, 64}, {32, 32}},   {{1, 1}, {32, 32}},    {{3, 50}, {12, 200}}};
  cv::RNG random(11);
  int withOutline = 0;
  for (const Sizes& sizes : cases) {
    for (int round = 0; round < 150; ++round) {
      // Smooth blobs: a coarse random field, enlarged.
      std::vector<float> prototypes(kMaskCoefficients * static_cast<std::size_t>(sizes.mask.area()));
      for (std::size_t k = 0; k < kMaskCoefficients; ++k) {
        cv::Mat coarse(6, 6, CV_32FC1);
        random.fill(coarse, cv::RNG::UNIFORM, -1.0F, 1.0F);
        cv::Mat plane(sizes.mask, CV_32FC1, prototypes.data() + k * static_cast<std::size_t>(sizes.mask.area()));
        cv::resize(coarse, plane, sizes.mask, 0, 0, cv::INTER_CUBIC);
      }
      MaskCoefficients coefficients;
      for (float& c : coefficients) c = random.uniform(-2.0F, 2.0F);
      const cv::Rect box(random.uniform(-20, sizes.input.width), random.uniform(-20, sizes.input.height),
                         random.uniform(0, sizes.input.width), random.uniform(0, sizes.input.height));
      const auto literal = literalOutline(prototypes, sizes.mask, coefficients, box, sizes.input);
      const auto outline = maskOutline({prototypes.data(), sizes.mask}, coefficients, box, sizes.input);
      ASSERT_EQ(outline, literal) << sizes.mask << sizes.input << box;
      withOutline += literal.empty() ? 0 : 1;
    }
  }
  EXPECT_GT(withOutline, 500);
}

TEST(MaskOutline, OddBoxesAndNumbersDoNoHarm) {
  const cv::Size size(16, 16);
  std::vector<float> prototypes(kMaskCoefficients * 256, 1.0F);
  MaskCoefficients coefficients{};
  const int most = std::numeric_limits<int>::max();
  const int least = std::numeric_limits<int>::min();
  const cv::Rect boxes[] = {{0, 0, 0, 0}, {10, 10, -5, 5}, {64, 0, 9, 9}, {most, most, most, most}, {least, 0, 5, 5}};
  coefficients[0] = 5.0F;
  for (const cv::Rect& box : boxes) {
    EXPECT_TRUE(maskOutline({prototypes.data(), size}, coefficients, box, {64, 64}).empty()) << box;
  }
  EXPECT_TRUE(maskOutline({prototypes.data(), size}, coefficients, {least, least, most, most}, {64, 64}).empty());
  EXPECT_FALSE(maskOutline({prototypes.data(), size}, coefficients, {0, 0, most, most}, {64, 64}).empty());
  EXPECT_TRUE(maskOutline({prototypes.data(), {0, 16}}, coefficients, {0, 0, 64, 64}, {64, 64}).empty());
  coefficients[0] = -5.0F;
  EXPECT_TRUE(maskOutline({prototypes.data(), size}, coefficients, {0, 0, 64, 64}, {64, 64}).empty());
  coefficients[0] = std::numeric_limits<float>::quiet_NaN();
  const cv::Rect whole(0, 0, 64, 64);
  EXPECT_EQ(maskOutline({prototypes.data(), size}, coefficients, whole, {64, 64}),
            literalOutline(prototypes, size, coefficients, whole, {64, 64}));
  coefficients[0] = std::numeric_limits<float>::infinity();
  EXPECT_FALSE(maskOutline({prototypes.data(), size}, coefficients, {8, 8, 16, 16}, {64, 64}).empty());
}

}  // namespace
