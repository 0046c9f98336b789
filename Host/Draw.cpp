// Shapes are drawn first, then labels on top of them. Coordinates come from networks and may be
// arbitrary, so points are clamped for OpenCV, and labels are drawn as images that are clipped to
// the frame.
#include "Draw.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>
#include <opencv2/imgproc.hpp>

#include "Frame.h"
#include "Messages.h"
#include "Text.h"

namespace vsa {
namespace {

// Blue, green, red; most people can distinguish them.
const std::array<cv::Scalar, 10> kColours = {cv::Scalar(75, 180, 60),  cv::Scalar(48, 130, 245),
                                             cv::Scalar(200, 130, 0),  cv::Scalar(230, 50, 240),
                                             cv::Scalar(0, 200, 230),  cv::Scalar(75, 25, 230),
                                             cv::Scalar(180, 30, 145), cv::Scalar(128, 128, 0),
                                             cv::Scalar(36, 84, 154),  cv::Scalar(212, 190, 250)};

// Pairs of the 17 COCO key points that are joined by a line: arms, legs, trunk, head.
constexpr std::array<std::array<std::size_t, 2>, 19> kSkeleton = {{
    {5, 7},  {7, 9},   {6, 8}, {8, 10}, {11, 13}, {13, 15}, {12, 14}, {14, 16}, {5, 6}, {5, 11},
    {6, 12}, {11, 12}, {0, 1}, {0, 2},  {1, 2},   {1, 3},   {2, 4},   {3, 5},   {4, 6},
}};

const cv::Scalar& colourOf(const VsaObject& object) {
  const auto index = static_cast<unsigned>(object.classId) % kColours.size();
  return kColours[index];
}

// Clamps to values far outside every image that OpenCV's fixed-point line drawing can handle.
int limited(double coordinate) {
  constexpr double kLimit = 100000.0;
  return std::isfinite(coordinate)
             ? static_cast<int>(std::lround(std::clamp(coordinate, -kLimit, kLimit)))
             : 0;
}

cv::Point pointAt(double x, double y) {
  return {limited(x), limited(y)};
}

void drawShape(const VsaShape& shape, const cv::Scalar& colour, int thickness, cv::Mat* image) {
  std::vector<cv::Point> points;
  points.reserve(shape.points.size());
  for (const VsaPoint& point : shape.points) points.push_back(pointAt(point.x, point.y));
  if (shape.tag == kVsaOutlineTag) {
    if (!points.empty()) cv::polylines(*image, points, true, colour, thickness, cv::LINE_AA);
  } else if (shape.tag == kVsaKeyPointsTag) {
    if (points.size() == 17) {
      for (const auto& [from, to] : kSkeleton) {
        cv::line(*image, points[from], points[to], colour, thickness, cv::LINE_AA);
      }
    }
    for (const cv::Point& point : points) {
      cv::circle(*image, point, thickness + 1, colour, cv::FILLED, cv::LINE_AA);
    }
  }
}

// Class, label of the classifier and text, if there are any. The class of a text region is omitted,
// and so is its score if its text was recognised.
std::string labelOf(const VsaObject& object) {
  const bool read = object.textId >= 0 && !object.text.empty();
  std::string label;
  const auto add = [&label](const std::string& part) {
    label += (label.empty() ? "" : " | ") + part;
  };
  const auto scored = [](const std::string& name, float score) {
    return (name.empty() ? "" : printable(name) + " ") + fixed(score, 2);
  };
  if (!isTextRegion(object)) {
    add(scored(object.className, object.score));
  } else if (!read) {
    add(scored("", object.score));
  }
  if (object.classifyId >= 0) add(scored(object.classifyName, object.classifyScore));
  if (read) add(printable(object.text));
  return label;
}

// Height of the label's text in pixels: a little smaller than a text region, or in proportion to
// the image.
int labelHeight(const VsaObject& object, const std::vector<cv::Point>& corners,
                const cv::Size& image) {
  if (!isTextRegion(object)) {
    return std::clamp(std::min(image.width, image.height) / 36, Font::kMinHeight, 60);
  }
  const double side =
      std::min(cv::norm(corners[3] - corners[0]), cv::norm(corners[1] - corners[0]));
  return std::clamp(static_cast<int>(side * 0.55), Font::kMinHeight, 60);
}

// A position of a label, and how many pixels of others it covers.
struct Candidate {
  cv::Rect area;
  double covered = std::numeric_limits<double>::infinity();
};

// Of four positions above, below or next to the object, moved into the image, the one at which a
// label of that size covers the fewest pixels. Pixels of other labels have four times the weight of
// those of objects.
Candidate bestPosition(const cv::Size& size, const cv::Rect& object, const cv::Size& image,
                       const std::vector<cv::Rect>& labels, const std::vector<cv::Rect>& objects) {
  // With more neighbours than this the image is full anyway, and the search would take long.
  constexpr std::size_t kNeighbours = 400;
  const cv::Point corners[] = {{object.x, object.y - size.height},
                               {object.x, object.br().y},
                               {object.br().x, object.y},
                               {object.br().x - size.width, object.y - size.height}};
  Candidate best;
  for (const cv::Point& corner : corners) {
    Candidate candidate;
    candidate.area = {std::clamp(corner.x, 0, std::max(0, image.width - size.width)),
                      std::clamp(corner.y, 0, std::max(0, image.height - size.height)), size.width,
                      size.height};
    candidate.covered = 0.0;
    for (std::size_t i = labels.size() - std::min(labels.size(), kNeighbours); i < labels.size();
         ++i) {
      candidate.covered += 4.0 * (labels[i] & candidate.area).area();
    }
    for (std::size_t i = 0; i < std::min(objects.size(), kNeighbours); ++i) {
      candidate.covered += (objects[i] & candidate.area).area();
    }
    if (candidate.covered < best.covered) best = candidate;
  }
  return best;
}

}  // namespace

std::vector<cv::Point> cornersOf(const VsaObject& object) {
  if (isTextRegion(object)) {
    return {pointAt(object.left, object.top), pointAt(object.right, object.bottom),
            pointAt(object.cornerX2, object.cornerY2), pointAt(object.cornerX3, object.cornerY3)};
  }
  const double centreX = (0.0 + object.left + object.right) / 2;
  const double centreY = (0.0 + object.top + object.bottom) / 2;
  const double angle = object.angle == -1.0F || !std::isfinite(object.angle) ? 0.0 : object.angle;
  std::vector<cv::Point> corners;
  for (const auto& [x, y] :
       {cv::Point2d(object.left, object.top), cv::Point2d(object.right, object.top),
        cv::Point2d(object.right, object.bottom), cv::Point2d(object.left, object.bottom)}) {
    corners.push_back(
        pointAt(centreX + (x - centreX) * std::cos(angle) - (y - centreY) * std::sin(angle),
                centreY + (x - centreX) * std::sin(angle) + (y - centreY) * std::cos(angle)));
  }
  return corners;
}

void Painter::paint(cv::Mat* image, const std::vector<VsaObject>& objects) const {
  const cv::Size size = image->size();
  const cv::Rect whole(cv::Point(0, 0), size);
  const int thickness = std::clamp(std::min(size.width, size.height) / 400, 1, 8);
  std::vector<std::vector<cv::Point>> corners;
  std::vector<cv::Rect> areas;
  for (const VsaObject& object : objects) {
    corners.push_back(cornersOf(object));
    areas.push_back(cv::boundingRect(corners.back()) & whole);
    cv::polylines(*image, corners.back(), true, colourOf(object), thickness, cv::LINE_AA);
    for (const VsaShape& shape : object.shapes) {
      drawShape(shape, colourOf(object), thickness, image);
    }
  }
  std::vector<cv::Rect> labels;
  for (std::size_t i = 0; i < objects.size(); ++i) {
    const std::string text = labelOf(objects[i]);
    const cv::Scalar& colour = colourOf(objects[i]);
    cv::Mat label =
        font_.label(text, labelHeight(objects[i], corners[i], size), size.width, colour);
    Candidate candidate = bestPosition(label.size(), areas[i], size, labels, areas);
    if (candidate.covered > 0.0) {
      // On a dense page the smallest text fits between the lines.
      const cv::Mat smaller = font_.label(text, Font::kMinHeight, size.width, colour);
      const Candidate other = bestPosition(smaller.size(), areas[i], size, labels, areas);
      if (other.covered < candidate.covered) {
        label = smaller;
        candidate = other;
      }
    }
    const cv::Rect visible = candidate.area & whole;
    if (visible.empty()) continue;
    label(cv::Rect(cv::Point(0, 0), visible.size())).copyTo((*image)(visible));
    labels.push_back(visible);
  }
}

}  // namespace vsa
