// Sizes and refusals of the pre-processing. ReferenceTest compares the values.

#include "Utils/PreProcessUtils.h"

#include <gtest/gtest.h>

#include <limits>

#include "support/LogCapture.h"
#include "support/TestHost.h"

namespace {

using namespace TolCompatibleLib;

TEST(Letterbox, RefusesImageThatLeavesNoPixel) {
  LogCapture log;
  EXPECT_FALSE(letterbox(randomImage(641, 1), {640, 640}));
  EXPECT_FALSE(letterbox(randomImage(1, 641), {640, 640}));
  EXPECT_FALSE(letterbox(randomImage(8, 8), {0, 640}));
  EXPECT_EQ(log.takeTexts().size(), 3U);
  EXPECT_TRUE(letterbox(randomImage(640, 1), {640, 640}));
  // In single precision, this scaled width is one pixel larger than the input.
  std::vector<float> planes(std::size_t{3} * 10000001 + 1, 7.0F);
  EXPECT_TRUE(LetterboxWriter().writePlanes(randomImage(1148, 1), {10000001, 1}, planes.data()));
  EXPECT_EQ(planes.back(), 7.0F);
}

TEST(FitToInput, ThrowsIfRegionDoesNotFit) {
  // A scaled tall region is higher than the input; a scaled thin one has no pixel.
  std::vector<float> planes(3 * 64 * 32);
  EXPECT_THROW(FitToInput(randomImage(50, 100), {64, 32}, planes.data()), cv::Exception);
  EXPECT_THROW(FitToInput(randomImage(1000, 1), {64, 32}, planes.data()), cv::Exception);
}

TEST(Regions, OutsideTheImageThrow) {
  const cv::Mat image = randomImage(40, 30);
  constexpr int kMax = std::numeric_limits<int>::max();
  constexpr int kMin = std::numeric_limits<int>::min();
  const auto sizeOf = [&image](int left, int top, int right, int bottom) {
    return regionOf(image, boxObject(left, top, right, bottom)).size();
  };
  EXPECT_EQ(sizeOf(39, 29, 40, 30), cv::Size(1, 1));
  EXPECT_THROW(sizeOf(-1, 0, 10, 10), cv::Exception);
  EXPECT_THROW(sizeOf(5, 5, kMax, 10), cv::Exception);
  EXPECT_THROW(sizeOf(kMin, kMin, kMax, kMax), cv::Exception);
}

TEST(TextInputSize, ShrinksToLimitAndRoundsUpTo32) {
  struct Case {
    cv::Size frame;
    std::uint32_t limit;
    cv::Size expected;
  };
  const Case cases[] = {{{100, 50}, 960, {128, 64}}, {{1920, 1089}, 960, {960, 544}},
                        {{10, 10}, 960, {32, 32}},   {{960, 960}, 960, {960, 960}},
                        {{961, 1}, 960, {960, 32}},  {{64, 33}, 0xFFFFFFFFU, {64, 64}},
                        {{1000, 500}, 7, {32, 32}},  {{4000, 3000}, 640, {640, 480}}};
  for (const Case& c : cases) EXPECT_EQ(textInputSize(c.frame, c.limit), c.expected) << c.frame;
}

}  // namespace
