// Outlines of odd boxes and numbers. LiteralTest compares those of ordinary ones.

#include "Utils/MaskOutline.h"

#include <gtest/gtest.h>

#include <limits>

#include "support/Literal.h"

namespace {

using namespace TolCompatibleLib;

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
            literal::maskOutline({prototypes.data(), size}, coefficients, whole, {64, 64}));
  coefficients[0] = std::numeric_limits<float>::infinity();
  EXPECT_FALSE(maskOutline({prototypes.data(), size}, coefficients, {8, 8, 16, 16}, {64, 64}).empty());
}

}  // namespace
