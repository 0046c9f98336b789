#include "Utils/TextRegions.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <opencv2/imgproc.hpp>

#include "Utils/Numbers.h"

namespace TolCompatibleLib {
namespace {

std::array<cv::Point2f, 4> cornersOf(const cv::RotatedRect& rectangle) {
  std::array<cv::Point2f, 4> corners;
  rectangle.points(corners.data());
  return corners;
}

float shorterSide(const cv::RotatedRect& rectangle) {
  return std::min(rectangle.size.width, rectangle.size.height);
}

/// The points in the order top left, top right, bottom right, bottom left. If the two left or the
/// two right points have the same y, the one with the larger x (or the later one) counts as the top
/// one.
TextRegion clockwiseFromTopLeft(std::array<cv::Point2f, 4> points) {
  std::stable_sort(points.begin(), points.end(),
                   [](const cv::Point2f& a, const cv::Point2f& b) { return a.x < b.x; });
  if (!(points[1].y > points[0].y)) std::swap(points[0], points[1]);
  if (!(points[3].y > points[2].y)) std::swap(points[2], points[3]);
  return {points[0], points[2], points[3], points[1]};
}

}  // namespace

float polygonScore(const std::array<cv::Point2f, 4>& corners, const cv::Mat& map) {
  float minX = std::numeric_limits<float>::max();
  float minY = minX;
  // Deliberate: the smallest positive float, not the lowest one, so a maximum is always positive.
  float maxX = std::numeric_limits<float>::min();
  float maxY = maxX;
  for (const cv::Point2f& corner : corners) {
    minX = std::min(minX, corner.x);
    minY = std::min(minY, corner.y);
    maxX = std::max(maxX, corner.x);
    maxY = std::max(maxY, corner.y);
  }
  const int left = std::max(truncateToInt(std::floor(minX)), 0);
  const int top = std::max(truncateToInt(std::floor(minY)), 0);
  const int right = std::min(truncateToInt(std::ceil(maxX)), map.cols - 1);
  const int bottom = std::min(truncateToInt(std::ceil(maxY)), map.rows - 1);
  if (left > right || top > bottom) return 0.0F;

  const cv::Rect box(left, top, right - left + 1, bottom - top + 1);
  std::array<cv::Point, 4> inBox;
  std::transform(corners.begin(), corners.end(), inBox.begin(), [&](const cv::Point2f& corner) {
    return cv::Point(truncateToInt(corner.x - static_cast<float>(left)),
                     truncateToInt(corner.y - static_cast<float>(top)));
  });
  cv::Mat mask = cv::Mat::zeros(box.size(), CV_8UC1);
  const cv::Point* polygon = inBox.data();
  const int count = static_cast<int>(inBox.size());
  cv::fillPoly(mask, &polygon, &count, /*ncontours=*/1, cv::Scalar(1));
  return static_cast<float>(cv::mean(map(box), mask)[0]);
}

TextRegions extractTextBoxes(const TextBoxParams& params, const cv::Mat& map, cv::Size frame,
                             cv::Size resized) {
  cv::Mat text;
  cv::compare(map, params.binThreshold, text, cv::CMP_GT);
  std::vector<std::vector<cv::Point>> contours;
  cv::findContours(text, contours, cv::RETR_LIST, cv::CHAIN_APPROX_SIMPLE);

  // Deliberate: by the size to which the frame was scaled, even if the network's map has another.
  const float scaleX = static_cast<float>(frame.width) / static_cast<float>(resized.width);
  const float scaleY = static_cast<float>(frame.height) / static_cast<float>(resized.height);
  const auto minSide = static_cast<float>(params.minSize);

  TextRegions found;
  const std::size_t count =
      std::min(contours.size(), static_cast<std::size_t>(params.candidateLimit));
  for (std::size_t i = 0; i < count; ++i) {
    if (contours[i].size() < static_cast<std::size_t>(params.minSize)) continue;
    cv::RotatedRect rectangle = cv::minAreaRect(contours[i]);
    if (minSide > shorterSide(rectangle)) continue;
    const float score = polygonScore(cornersOf(rectangle), map);
    if (params.boxThreshold > score) continue;

    const float area = rectangle.size.width * rectangle.size.height;
    const float perimeter = 2.0F * (rectangle.size.width + rectangle.size.height);
    if (perimeter < 1e-6F) continue;
    const float distance = area * params.unclipRatio / perimeter;
    rectangle.size.width += 2.0F * distance;
    rectangle.size.height += 2.0F * distance;
    if (minSide + 2.0F > shorterSide(rectangle)) continue;

    std::array<cv::Point2f, 4> corners = cornersOf(rectangle);
    for (cv::Point2f& corner : corners) {
      corner.x = std::clamp(std::round(corner.x * scaleX), 0.0F, static_cast<float>(frame.width));
      corner.y = std::clamp(std::round(corner.y * scaleY), 0.0F, static_cast<float>(frame.height));
    }
    found.regions.push_back(clockwiseFromTopLeft(corners));
    found.scores.push_back(score);
  }
  return found;
}

}  // namespace TolCompatibleLib
