// Which regions of a probability map are reported. ReferenceTest compares their corners.

#include "Utils/TextRegions.h"

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

namespace {

using namespace TolCompatibleLib;

cv::Mat mapWith(cv::Size size, const std::vector<cv::Rect>& regions, float probability = 0.75F) {
  cv::Mat map = cv::Mat::zeros(size, CV_32FC1);
  for (const cv::Rect& region : regions) map(region).setTo(probability);
  return map;
}

std::size_t count(const cv::Mat& map, const TextBoxParams& params = {}) {
  return extractTextBoxes(params, map, map.size(), map.size()).regions.size();
}

TEST(TextRegions, ThresholdIsExclusiveForPixelsAndInclusiveForRegions) {
  const std::tuple<float, float, std::size_t> cases[] = {
      {0.3F, 0.1F, 0U},  // a pixel must be above 0.3
      {std::nextafter(0.3F, 1.0F), 0.1F, 1U},
      {0.5F, 0.5F, 1U},
      {0.5F, std::nextafter(0.5F, 1.0F), 0U}};
  for (const auto& [probability, boxThreshold, expected] : cases) {
    TextBoxParams params;
    params.boxThreshold = boxThreshold;
    EXPECT_EQ(count(mapWith({64, 64}, {{10, 10, 30, 20}}, probability), params), expected)
        << probability;
  }
}

TEST(TextRegions, DropsSmallRegions) {
  const std::pair<cv::Size, std::size_t> cases[] = {
      {{1, 1}, 0U},
      {{30, 1}, 0U},
      {{30, 3}, 0U},  // its rectangle is 29 x 2
      {{30, 4}, 1U},
      {{4, 4}, 1U}};  // side 3 grows by 1.5 on each side, to 6 x 6
  for (const auto& [size, expected] : cases) {
    EXPECT_EQ(count(mapWith({64, 64}, {cv::Rect({10, 10}, size)})), expected) << size;
  }
  TextBoxParams params;
  params.unclipRatio = 1.0F;  // the square stays below 5
  EXPECT_EQ(count(mapWith({64, 64}, {{10, 10, 4, 4}}), params), 0U);
  params.unclipRatio = 0.5F;  // side 4 grows to 5, which is enough
  EXPECT_EQ(count(mapWith({64, 64}, {{10, 10, 5, 5}}), params), 1U);
  params.minSize = 0;  // a region without area does not grow
  EXPECT_EQ(count(mapWith({64, 64}, {{10, 10, 1, 1}}), params), 0U);
}

TEST(TextRegions, ExaminesAtMost1000Contours) {
  // Dots count, too; they are found first and dropped.
  cv::Mat map = mapWith({1000, 740}, {{500, 2, 40, 9}});
  const auto dot = [&map](int i) -> float& {
    return map.at<float>(20 + 24 * (i / 40), 8 + 24 * (i % 40));
  };
  for (int i = 0; i < 999; ++i) dot(i) = 0.75F;
  EXPECT_EQ(count(map), 1U);
  dot(999) = 0.75F;
  EXPECT_EQ(count(map), 0U);
}

TEST(TextRegions, HolesCountAsContours) {
  cv::Mat map = mapWith({64, 64}, {{10, 10, 40, 40}});
  map(cv::Rect(20, 20, 20, 20)).setTo(0.0F);
  TextBoxParams params;
  params.boxThreshold = 0.05F;
  EXPECT_EQ(count(map, params), 2U);
}

TEST(PolygonScore, IsZeroOutsideTheMap) {
  const cv::Mat map(20, 20, CV_32FC1, cv::Scalar(1.0));
  EXPECT_EQ(polygonScore({{{5, 14}, {5, 5}, {14, 5}, {14, 14}}}, map), 1.0F);
  EXPECT_EQ(polygonScore({{{30, 14}, {30, 5}, {40, 5}, {40, 14}}}, map), 0.0F);
  EXPECT_EQ(polygonScore({{{5, 40}, {5, 30}, {14, 30}, {14, 40}}}, map), 0.0F);
}

}  // namespace
