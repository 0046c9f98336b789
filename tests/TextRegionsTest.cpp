// Probability maps drawn by hand to quadrilaterals.

#include "Utils/TextRegions.h"

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

namespace {

using namespace TolCompatibleLib;

cv::Mat mapWith(cv::Size size, const std::vector<cv::Rect>& regions, float probability = 0.75F) {
  cv::Mat map = cv::Mat::zeros(size, CV_32FC1);
  for (const cv::Rect& region : regions) map(region).setTo(probability);
  return map;
}

std::vector<int> cornersOf(const TextRegion& region) {
  std::vector<int> corners;
  for (const cv::Point2f& corner : region) {
    corners.push_back(static_cast<int>(corner.x));
    corners.push_back(static_cast<int>(corner.y));
  }
  return corners;
}

TEST(TextRegions, ARegionGrowsAndIsMappedToTheFrame) {
  // Pixels 20..59 x 30..39: the rectangle through their centres is 39 x 9, which grows by
  // 39 * 9 * 2 / 96 = 7.3125 on each side: x 12.6875..66.3125, y 22.6875..46.3125; in the
  // frame twice and four times that.
  const cv::Mat map = mapWith({96, 64}, {{20, 30, 40, 10}});
  const TextRegions found = extractTextBoxes({}, map, {192, 256}, {96, 64});
  ASSERT_EQ(found.regions.size(), 1U);
  EXPECT_EQ(cornersOf(found.regions[0]), (std::vector<int>{25, 91, 133, 91, 133, 185, 25, 185}));
  EXPECT_EQ(found.scores[0], 0.75F);
}

TEST(TextRegions, CornersAreClampedToTheFrameBothEndsIncluded) {
  const cv::Mat map = mapWith({64, 32}, {{0, 0, 64, 32}});
  const TextRegions found = extractTextBoxes({}, map, {64, 32}, {64, 32});
  ASSERT_EQ(found.regions.size(), 1U);
  EXPECT_EQ(cornersOf(found.regions[0]), (std::vector<int>{0, 0, 64, 0, 64, 32, 0, 32}));
}

TEST(TextRegions, TheSizeGivenToTheFrameScalesTheCornersAndNotTheMapsOwn) {
  const cv::Mat map = mapWith({48, 32}, {{10, 10, 20, 9}});
  const TextRegions found = extractTextBoxes({}, map, {96, 64}, {96, 64});
  ASSERT_EQ(found.regions.size(), 1U);
  EXPECT_LT(found.regions[0][1].x, 48.0F);
}

TEST(TextRegions, ThresholdsAreStrictForPixelsAndInclusiveForRegions) {
  TextBoxParams params;
  const cv::Size size(64, 64);
  const cv::Rect region(10, 10, 30, 20);
  const auto count = [&](float probability, float boxThreshold) {
    params.boxThreshold = boxThreshold;
    return extractTextBoxes(params, mapWith(size, {region}, probability), size, size).regions.size();
  };
  EXPECT_EQ(count(0.3F, 0.1F), 0U);  // a pixel must be above 0.3
  EXPECT_EQ(count(std::nextafter(0.3F, 1.0F), 0.1F), 1U);
  EXPECT_EQ(count(0.5F, 0.5F), 1U);
  EXPECT_EQ(count(0.5F, std::nextafter(0.5F, 1.0F)), 0U);
}

TEST(TextRegions, SmallOnesAreDropped) {
  const cv::Size size(64, 64);
  const auto count = [&](const cv::Rect& region) {
    return extractTextBoxes({}, mapWith(size, {region}), size, size).regions.size();
  };
  EXPECT_EQ(count({10, 10, 1, 1}), 0U);
  EXPECT_EQ(count({10, 10, 30, 1}), 0U);
  EXPECT_EQ(count({10, 10, 30, 3}), 0U);  // its rectangle is 29 x 2
  EXPECT_EQ(count({10, 10, 30, 4}), 1U);
  // A square of side 3 grows by 1.5 on each side, to 6 x 6.
  EXPECT_EQ(count({10, 10, 4, 4}), 1U);
  // With a smaller ratio it would stay below 5.
  TextBoxParams params;
  params.unclipRatio = 1.0F;
  EXPECT_EQ(extractTextBoxes(params, mapWith(size, {{10, 10, 4, 4}}), size, size).regions.size(), 0U);
}

TEST(TextRegions, AtMostSoManyContoursAreLookedAt) {
  std::vector<cv::Rect> many;
  for (int y = 0; y < 30; ++y) {
    for (int x = 0; x < 40; ++x) many.emplace_back(8 + 24 * x, 8 + 24 * y, 8, 8);
  }
  const cv::Size size(1000, 740);
  EXPECT_EQ(extractTextBoxes({}, mapWith(size, many), size, size).regions.size(), 1000U);
  // The limit counts contours, not survivors: dots below it, which are found first, use it up.
  std::vector<cv::Rect> dots{{500, 2, 40, 9}};
  for (const cv::Rect& region : many) {
    dots.emplace_back(region.tl() + cv::Point(0, 12), cv::Size(1, 1));
  }
  EXPECT_EQ(extractTextBoxes({}, mapWith(size, dots), size, size).regions.size(), 0U);
  TextBoxParams all;
  all.candidateLimit = 5000;
  EXPECT_EQ(extractTextBoxes(all, mapWith(size, dots), size, size).regions.size(), 1U);
}

TEST(TextRegions, HolesCountAsContours) {
  cv::Mat map = mapWith({64, 64}, {{10, 10, 40, 40}});
  map(cv::Rect(20, 20, 20, 20)).setTo(0.0F);
  TextBoxParams params;
  params.boxThreshold = 0.05F;
  EXPECT_EQ(extractTextBoxes(params, map, {64, 64}, {64, 64}).regions.size(), 2U);
}

TEST(TextRegions, ATiltedRegionKeepsItsCornersInReadingOrder) {
  cv::Mat map = cv::Mat::zeros(200, 300, CV_32FC1);
  const cv::RotatedRect tilted({150, 100}, {160, 24}, 10);
  cv::Point2f corners[4];
  tilted.points(corners);
  std::vector<cv::Point> polygon(corners, corners + 4);
  cv::fillPoly(map, std::vector<std::vector<cv::Point>>{polygon}, cv::Scalar(1));
  const TextRegions found = extractTextBoxes({}, map, {300, 200}, {300, 200});
  ASSERT_EQ(found.regions.size(), 1U);
  const TextRegion& r = found.regions[0];
  EXPECT_LT(r[0].x, r[1].x);
  EXPECT_LT(r[3].x, r[2].x);
  EXPECT_LT(r[0].y, r[3].y);
  EXPECT_LT(r[1].y, r[2].y);
  EXPECT_GT(r[1].y, r[0].y);  // it falls to the right
}

TEST(PolygonScore, AveragesInsideAndIsZeroOutside) {
  cv::Mat map = cv::Mat::zeros(20, 20, CV_32FC1);
  map(cv::Rect(0, 0, 10, 20)).setTo(1.0F);
  EXPECT_EQ(polygonScore({{{5, 14}, {5, 5}, {14, 5}, {14, 14}}}, map), 0.5F);
  EXPECT_EQ(polygonScore({{{-9, -2}, {-9, -9}, {-2, -9}, {-2, -2}}}, map), 0.0F);
  EXPECT_EQ(polygonScore({{{30, 40}, {30, 30}, {40, 30}, {40, 40}}}, map), 0.0F);
  EXPECT_EQ(polygonScore({{{-5, 24}, {-5, -5}, {24, -5}, {24, 24}}}, map), 0.5F);
}

}  // namespace
