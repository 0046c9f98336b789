// Outlines of unusual boxes and coefficients. ReferenceTest compares outlines on random data.

#include "Utils/MaskOutline.h"

#include <gtest/gtest.h>

#include <limits>

#include "benchmarks/Reference.h"
#include "support/TestHost.h"

namespace {

using namespace TolCompatibleLib;

TEST(MaskOutline, HandlesEveryBoxAndCoefficient) {
  std::vector<float> prototypes(kMaskCoefficients * 256, 1.0F);
  std::vector<std::uint8_t> memory;
  const auto outline = [&](float coefficient, const cv::Rect& box, cv::Size size = {16, 16}) {
    return maskOutline({prototypes.data(), size}, {coefficient}, box, {64, 64}, memory);
  };
  constexpr int kMax = std::numeric_limits<int>::max();
  constexpr int kMin = std::numeric_limits<int>::min();
  const cv::Rect image(0, 0, 64, 64);
  const cv::Rect outside[] = {{0, 0, 0, 0},    {10, 10, -5, 5},
                              {64, 0, 9, 9},   {kMax, kMax, kMax, kMax},
                              {kMin, 0, 5, 5}, {kMin, kMin, kMax, kMax}};
  for (const cv::Rect& box : outside) {
    EXPECT_TRUE(outline(5, box).empty()) << box;
  }
  EXPECT_FALSE(outline(5, {0, 0, kMax, kMax}).empty());
  EXPECT_FALSE(outline(5, {8, 8, kMax, kMax}).empty());
  EXPECT_TRUE(outline(5, image, {0, 16}).empty());
  EXPECT_TRUE(outline(-5, image).empty());
  EXPECT_FALSE(outline(kInf, {8, 8, 16, 16}).empty());
  EXPECT_EQ(outline(kNan, image),
            reference::maskOutline({prototypes.data(), {16, 16}}, {kNan}, image, {64, 64}));
}

TEST(MaskOutline, ThreePixelsGiveThreePoints) {
  std::vector<float> prototypes(kMaskCoefficients * 64, -1.0F);
  for (const std::size_t pixel : {9U, 10U, 17U}) prototypes[pixel] = 1.0F;
  std::vector<std::uint8_t> memory;
  EXPECT_EQ(maskOutline({prototypes.data(), {8, 8}}, {5.0F}, {0, 0, 8, 8}, {8, 8}, memory).size(),
            3U);
}

}  // namespace
