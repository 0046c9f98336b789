// Outlines of odd boxes and numbers. ReferenceTest compares those of ordinary ones.

#include "Utils/MaskOutline.h"

#include <gtest/gtest.h>

#include <limits>

#include "benchmarks/Reference.h"
#include "support/TestHost.h"

namespace {

using namespace TolCompatibleLib;

TEST(MaskOutline, OddBoxesAndNumbersDoNoHarm) {
  std::vector<float> prototypes(kMaskCoefficients * 256, 1.0F);
  std::vector<std::uint8_t> memory;
  const auto outline = [&](float coefficient, const cv::Rect& box, cv::Size size = {16, 16}) {
    return maskOutline({prototypes.data(), size}, {coefficient}, box, {64, 64}, memory);
  };
  const int most = std::numeric_limits<int>::max();
  const int least = std::numeric_limits<int>::min();
  const cv::Rect whole(0, 0, 64, 64);
  const cv::Rect outside[] = {{0, 0, 0, 0},     {10, 10, -5, 5},
                              {64, 0, 9, 9},    {most, most, most, most},
                              {least, 0, 5, 5}, {least, least, most, most}};
  for (const cv::Rect& box : outside) {
    EXPECT_TRUE(outline(5, box).empty()) << box;
  }
  EXPECT_FALSE(outline(5, {0, 0, most, most}).empty());
  EXPECT_FALSE(outline(5, {8, 8, most, most}).empty());
  EXPECT_TRUE(outline(5, whole, {0, 16}).empty());
  EXPECT_TRUE(outline(-5, whole).empty());
  EXPECT_FALSE(outline(kInf, {8, 8, 16, 16}).empty());
  EXPECT_EQ(outline(kNan, whole),
            reference::maskOutline({prototypes.data(), {16, 16}}, {kNan}, whole, {64, 64}));
}

TEST(MaskOutline, ThreePixelsGiveThreePoints) {
  std::vector<float> prototypes(kMaskCoefficients * 64, -1.0F);
  for (const std::size_t pixel : {9U, 10U, 17U}) prototypes[pixel] = 1.0F;
  std::vector<std::uint8_t> memory;
  EXPECT_EQ(maskOutline({prototypes.data(), {8, 8}}, {5.0F}, {0, 0, 8, 8}, {8, 8}, memory).size(),
            3U);
}

}  // namespace
