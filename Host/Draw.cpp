// Shapes are drawn first, then labels on top of them. Coordinates come from networks and may be
// arbitrary, so points are clamped for OpenCV, and labels are drawn as images that are clipped to
// the frame.
#include "Draw.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <opencv2/imgproc.hpp>
#include <optional>
#include <utility>

#include "Frame.h"
#include "Messages.h"
#include "Text.h"

namespace vsa {
namespace {

// Blue, green, red: the least distance in CIELAB (D65) is 41. The first colours are those that are
// farthest from each other.
const std::array<cv::Scalar, kColourCount> kColours = {{
    {0, 165, 0},     {255, 0, 0},    {0, 0, 255},   {255, 195, 120}, {180, 0, 255},
    {135, 195, 255}, {105, 120, 0},  {0, 210, 255}, {180, 255, 0},   {255, 135, 210},
    {60, 75, 165},   {105, 30, 135}, {180, 90, 0},  {255, 0, 225},   {195, 165, 240},
    {0, 255, 0},     {255, 90, 0},   {0, 135, 255}, {120, 195, 150}, {105, 0, 255},
    {0, 240, 180},   {240, 240, 0},  {0, 90, 30},   {0, 105, 135},
}};

// Parts of the body with the 17 COCO key points, and their colours.
enum Limb { kHead, kLeftArm, kRightArm, kLeftLeg, kRightLeg, kTrunk, kLimbCount };
constexpr std::array<int, kLimbCount> kLimbColours = {7, 17, 16, 8, 13, 15};
constexpr std::array<Limb, 17> kPointLimbs = {
    kHead,    kHead,     kHead,    kHead,     kHead,    kLeftArm,  kRightArm, kLeftArm, kRightArm,
    kLeftArm, kRightArm, kLeftLeg, kRightLeg, kLeftLeg, kRightLeg, kLeftLeg,  kRightLeg};
struct Bone {
  std::size_t from;
  std::size_t to;
  Limb limb;
};
constexpr std::array<Bone, 19> kSkeleton = {{
    {5, 7, kLeftArm},   {7, 9, kLeftArm},   {6, 8, kRightArm},   {8, 10, kRightArm},
    {11, 13, kLeftLeg}, {13, 15, kLeftLeg}, {12, 14, kRightLeg}, {14, 16, kRightLeg},
    {5, 6, kTrunk},     {5, 11, kTrunk},    {6, 12, kTrunk},     {11, 12, kTrunk},
    {0, 1, kHead},      {0, 2, kHead},      {1, 2, kHead},       {1, 3, kHead},
    {2, 4, kHead},      {3, 5, kHead},      {4, 6, kHead},
}};

// Maximum width of an image with a panel: that of WebP, the smallest of the usual formats.
constexpr int kMaxWidth = 16383;

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

int lineThickness(const cv::Size& image) {
  return std::clamp(std::min(image.width, image.height) / 300, 2, 8);
}

// Height of the text of labels in pixels. It depends on the image only, so that it is constant over
// a video.
int fontHeight(const cv::Size& image) {
  return std::max(Font::kMinHeight, std::min(image.width, image.height) / 40);
}

// The upright rectangle around the corners.
cv::Rect boundsOf(const std::vector<cv::Point>& corners) {
  const cv::Rect bounds = cv::boundingRect(corners);
  return {bounds.x, bounds.y, bounds.width - 1, bounds.height - 1};  // corners lie between pixels
}

bool isRead(const VsaObject& object) {
  return object.textId >= 0 && !object.text.empty();
}

// A box without an area or outside the image has no label.
bool isVisible(const VsaObject& object, const cv::Size& image) {
  if (!isTextRegion(object) && (object.right <= object.left || object.bottom <= object.top)) {
    return false;
  }
  return !(boundsOf(cornersOf(object)) & cv::Rect({0, 0}, image)).empty();
}

// Mixes the inside of an outline with 40 % of the colour.
void tint(const std::vector<cv::Point>& outline, const cv::Scalar& colour, cv::Mat* image) {
  const cv::Rect area = cv::boundingRect(outline) & cv::Rect({0, 0}, image->size());
  if (area.empty()) return;
  cv::Mat mask(area.size(), CV_8U, cv::Scalar());
  cv::fillPoly(mask, std::vector<std::vector<cv::Point>>{outline}, cv::Scalar(255), cv::LINE_8, 0,
               -area.tl());
  cv::Mat tinted(area.size(), CV_8UC3, colour);
  cv::addWeighted((*image)(area), 0.6, tinted, 0.4, 0.0, tinted);
  tinted.copyTo((*image)(area), mask);
}

void drawPose(const std::vector<cv::Point>& points, int thickness, cv::Mat* image) {
  const bool hasLimbs = points.size() == kPointLimbs.size();
  if (hasLimbs) {
    for (const Bone& bone : kSkeleton) {
      cv::line(*image, points[bone.from], points[bone.to], classColour(kLimbColours[bone.limb]),
               thickness, cv::LINE_AA);
    }
  }
  for (std::size_t i = 0; i < points.size(); ++i) {
    const int colour = hasLimbs ? kLimbColours[kPointLimbs[i]] : static_cast<int>(i % kColourCount);
    cv::circle(*image, points[i], thickness + 1, classColour(colour), cv::FILLED, cv::LINE_AA);
  }
}

std::vector<cv::Point> pointsOf(const VsaShape& shape) {
  std::vector<cv::Point> points;
  points.reserve(shape.points.size());
  for (const VsaPoint& point : shape.points) points.push_back(pointAt(point.x, point.y));
  return points;
}

void drawBox(const std::vector<cv::Point>& corners, const cv::Scalar& colour, int thickness,
             cv::Mat* image) {
  const bool isUpright = corners[0].y == corners[1].y && corners[1].x == corners[2].x &&
                         corners[2].y == corners[3].y && corners[3].x == corners[0].x;
  if (isUpright) {
    cv::rectangle(*image, corners[0], corners[2], colour, thickness);
  } else {
    cv::polylines(*image, corners, true, colour, thickness, cv::LINE_AA);
  }
}

// Class, label of the classifier and text, if there are any. The class of a text region is omitted,
// and so is its score if its text was recognised.
std::string labelOf(const VsaObject& object) {
  const bool read = isRead(object);
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

// Finds places for labels. The image is divided into square cells; a label occupies all cells that
// it touches.
class LabelPlaces {
 public:
  LabelPlaces(const cv::Size& image, int cell, const std::vector<cv::Rect>& objects)
      : image_(image),
        cell_(cell),
        taken_(cellsOf(cv::Rect({0, 0}, image)).size(), CV_8U, cv::Scalar()) {
    // The number of objects in each cell: the sums over all cells above and to the left of the
    // steps at the corners of each object.
    cv::Mat steps(taken_.size(), CV_32F, cv::Scalar());
    const auto add = [&steps](int x, int y, float step) {
      if (x < steps.cols && y < steps.rows) steps.at<float>(y, x) += step;
    };
    for (const cv::Rect& object : objects) {
      const cv::Rect cells = cellsOf(object & cv::Rect({0, 0}, image));
      if (cells.empty()) continue;
      add(cells.x, cells.y, 1.0F);
      add(cells.br().x, cells.y, -1.0F);
      add(cells.x, cells.br().y, -1.0F);
      add(cells.br().x, cells.br().y, 1.0F);
    }
    cv::Mat counts;
    cv::integral(steps, counts, CV_64F);
    cv::integral(counts(cv::Rect({1, 1}, taken_.size())), covered_, CV_64F);
  }

  // The first of the rectangles, moved into the image, that covers no label and the fewest objects.
  // Sets `*covered` to the share of it that covers objects.
  std::optional<cv::Rect> best(const std::vector<cv::Rect>& candidates, double* covered) const {
    std::optional<cv::Rect> found;
    for (const cv::Rect& candidate : candidates) {
      const cv::Rect area = (candidate + shiftInside(candidate)) & cv::Rect({0, 0}, image_);
      const cv::Rect cells = cellsOf(area);
      if (cells.empty() || cv::countNonZero(taken_(cells)) > 0) continue;
      // Only cells that are completely inside, so that a label may touch an object.
      const cv::Point first = (area.tl() + cv::Point(cell_ - 1, cell_ - 1)) / cell_;
      const cv::Point last = area.br() / cell_;
      const auto sum = [this](const cv::Point& cell) { return covered_.at<double>(cell); };
      const int inside = std::max(0, last.x - first.x) * std::max(0, last.y - first.y);
      const double share =
          inside == 0
              ? 0.0
              : (sum(last) - sum({first.x, last.y}) - sum({last.x, first.y}) + sum(first)) / inside;
      if (found && share >= *covered) continue;
      found = area;
      *covered = share;
      if (share == 0.0) break;
    }
    return found;
  }

  void occupy(const cv::Rect& label) { taken_(cellsOf(label)).setTo(255); }

 private:
  cv::Rect cellsOf(const cv::Rect& area) const {
    if (area.empty()) return {};
    const cv::Point first = area.tl() / cell_;
    return {first, (area.br() - cv::Point(1, 1)) / cell_ + cv::Point(1, 1)};
  }

  cv::Point shiftInside(const cv::Rect& area) const {
    return cv::Point(std::clamp(area.x, 0, std::max(0, image_.width - area.width)),
                     std::clamp(area.y, 0, std::max(0, image_.height - area.height))) -
           area.tl();
  }

  cv::Size image_;
  int cell_;
  cv::Mat taken_;    // not 0 where a label is
  cv::Mat covered_;  // sums of the objects in all cells above and to the left
};

// Whether an edge is so far from horizontal and vertical that the rectangle around the corners is
// much larger than they are.
bool isTilted(const std::vector<cv::Point>& corners) {
  const cv::Point edge = corners[1] - corners[0];
  return 5 * std::min(std::abs(edge.x), std::abs(edge.y)) >
         std::max(std::abs(edge.x), std::abs(edge.y));
}

// Places of a label of that size at the visible part of the object: those next to it first, then
// those inside.
std::vector<cv::Rect> placesAt(const std::vector<cv::Point>& corners, const cv::Size& image,
                               const cv::Size& size) {
  const int w = size.width;
  const int h = size.height;
  std::vector<cv::Point> places;
  if (isTilted(corners)) {
    const auto [left, right] = std::ranges::minmax(corners, {}, &cv::Point::x);
    const auto [top, bottom] = std::ranges::minmax(corners, {}, &cv::Point::y);
    const cv::Point centre = (corners[0] + corners[2]) / 2;
    const cv::Rect whole({0, 0}, image);
    for (const auto& [at, shift] : {std::pair(top, cv::Point(-w / 2, -h)),
                                    {bottom, {-w / 2, 0}},
                                    {right, {0, -h / 2}},
                                    {left, {-w, -h / 2}},
                                    {centre, {-w / 2, -h / 2}}}) {
      if (whole.contains(at)) places.push_back(at + shift);
    }
  }
  if (places.empty()) {
    const cv::Rect bounds = boundsOf(corners) & cv::Rect({0, 0}, image);
    const cv::Point first = bounds.tl();
    const cv::Point last = bounds.br();
    places = {{first.x, first.y - h}, {first.x, last.y},         {last.x, first.y},
              {first.x - w, first.y}, {last.x - w, first.y - h}, {last.x - w, last.y},
              {first.x, first.y},     {last.x - w, last.y - h}};
  }
  std::vector<cv::Rect> rectangles;
  rectangles.reserve(places.size());
  for (const cv::Point& place : places) rectangles.emplace_back(place, size);
  return rectangles;
}

// Places further away, for an object whose places are taken.
std::vector<cv::Rect> placesNear(const std::vector<cv::Rect>& places) {
  constexpr int kSteps = 6;
  std::vector<cv::Rect> further;
  further.reserve(places.size() * 2 * kSteps);
  for (int step = 1; step <= kSteps; ++step) {
    for (const cv::Rect& place : places) {
      for (const int sign : {-1, 1}) {
        further.push_back(place + cv::Point(0, sign * step * place.height));
      }
    }
  }
  return further;
}

}  // namespace

cv::Scalar classColour(int classId) {
  const int remainder = classId % kColourCount;  // negative if the ID is
  return kColours[static_cast<std::size_t>((remainder + kColourCount) % kColourCount)];
}

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

// Returns false, having drawn the labels of other objects only, if the text needs a panel.
bool Painter::drawLabels(cv::Mat* image, const std::vector<VsaObject>& objects,
                         TextPlace place) const {
  struct Placed {
    cv::Rect area;
    cv::Mat label;
    bool isText = false;
  };
  const cv::Size size = image->size();
  const int height = fontHeight(size);
  std::vector<std::vector<cv::Point>> corners;
  std::vector<cv::Rect> bounds;
  for (const VsaObject& object : objects) {
    corners.push_back(cornersOf(object));
    bounds.push_back(isVisible(object, size) ? boundsOf(corners.back()) : cv::Rect());
  }
  LabelPlaces places(size, std::max(1, height / 6), bounds);
  std::vector<Placed> labels;
  bool textFits = true;
  for (std::size_t i = 0; i < objects.size(); ++i) {
    const VsaObject& object = objects[i];
    const bool isText = isTextRegion(object) && isRead(object);
    if (bounds[i].empty() || (isText && !textFits)) continue;
    const cv::Mat label =
        font_.label(labelOf(object), height, size.width, classColour(object.classId));
    const std::vector<cv::Rect> at = placesAt(corners[i], size, label.size());
    double covered = 0.0;
    std::optional<cv::Rect> area = places.best(at, &covered);
    if (isText && place == TextPlace::kPanelIfFull && (!area || covered > 0.0)) {
      textFits = false;
      continue;
    }
    if (!area) area = places.best(placesNear(at), &covered);
    if (!area) continue;
    places.occupy(*area);
    labels.push_back({*area, label, isText});
  }
  for (const Placed& placed : labels) {
    if (placed.isText && !textFits) continue;
    placed.label(cv::Rect({0, 0}, placed.area.size())).copyTo((*image)(placed.area));
  }
  return textFits;
}

// The recognised text on white, at the positions of its regions, all in one font size: the largest
// that fits between most lines.
cv::Mat Painter::textPanel(const cv::Size& page, const std::vector<VsaObject>& objects) const {
  std::vector<const VsaObject*> texts;
  std::vector<cv::Rect> regions;
  std::vector<int> heights;
  for (const VsaObject& object : objects) {
    if (!isTextRegion(object) || !isRead(object) || !isVisible(object, page)) continue;
    const std::vector<cv::Point> corners = cornersOf(object);
    texts.push_back(&object);
    regions.push_back(boundsOf(corners) & cv::Rect({0, 0}, page));
    heights.push_back(static_cast<int>(
        std::min(cv::norm(corners[3] - corners[0]), cv::norm(corners[1] - corners[0]))));
  }
  const auto quartile = heights.begin() + std::ssize(heights) / 4;
  std::ranges::nth_element(heights, quartile);
  const int height = std::max(Font::kMinHeight, std::min(*quartile * 3 / 4, 2 * fontHeight(page)));
  // The panel is wider than the page if the text does not fit between its left edge and the next
  // region or the edge of the page.
  std::vector<cv::Mat> labels;
  double scale = 1.0;
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const cv::Rect& region = regions[i];
    labels.push_back(
        font_.label(printable(texts[i]->text), height, 2 * page.width, cv::Scalar::all(255)));
    int end = page.width;
    for (const cv::Rect& other : regions) {
      const bool isBeside = other.y < region.br().y && region.y < other.br().y;
      if (isBeside && other.x > region.x + region.width / 2) end = std::min(end, other.x);
    }
    scale = std::max(scale, labels.back().cols / static_cast<double>(std::max(1, end - region.x)));
  }
  scale = std::min({scale, 1.6, (kMaxWidth - page.width) / static_cast<double>(page.width)});
  cv::Mat panel(page.height, static_cast<int>(page.width * scale), CV_8UC3, cv::Scalar::all(255));
  LabelPlaces places(panel.size(), std::max(1, height / 12), {});
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const cv::Rect& region = regions[i];
    const cv::Point at(static_cast<int>(region.x * scale),
                       region.y + (region.height - labels[i].rows) / 2);
    std::vector<cv::Rect> candidates = {{at, labels[i].size()}};
    const int step = std::max(1, height / 4);
    for (int shift = step; shift < 4 * labels[i].rows; shift += step) {
      candidates.emplace_back(at + cv::Point(0, shift), labels[i].size());
      candidates.emplace_back(at - cv::Point(0, shift), labels[i].size());
    }
    double covered = 0.0;
    const std::optional<cv::Rect> area = places.best(candidates, &covered);
    if (!area) continue;
    places.occupy(*area);
    labels[i](cv::Rect({0, 0}, area->size())).copyTo(panel(*area));
  }
  return panel;
}

void Painter::paint(cv::Mat* image, const std::vector<VsaObject>& objects, TextPlace place) const {
  const cv::Size size = image->size();
  const int thickness = lineThickness(size);
  // Masks first, so that they change no line.
  for (const VsaObject& object : objects) {
    for (const VsaShape& shape : object.shapes) {
      if (shape.tag != kVsaOutlineTag || shape.points.empty()) continue;
      tint(pointsOf(shape), classColour(object.classId), image);
    }
  }
  for (const VsaObject& object : objects) {
    const cv::Scalar colour = classColour(object.classId);
    if (isVisible(object, size)) {
      // Lines of text are small.
      const int boxThickness = isTextRegion(object) ? (thickness + 1) / 2 : thickness;
      drawBox(cornersOf(object), colour, boxThickness, image);
    }
    for (const VsaShape& shape : object.shapes) {
      const std::vector<cv::Point> points = pointsOf(shape);
      if (points.empty()) continue;
      if (shape.tag == kVsaOutlineTag) {
        cv::polylines(*image, points, true, colour, thickness, cv::LINE_AA);
      } else if (shape.tag == kVsaKeyPointsTag) {
        drawPose(points, thickness, image);
      }
    }
  }
  if (size.width > kMaxWidth / 2) place = TextPlace::kLabels;
  if (drawLabels(image, objects, place)) return;
  const cv::Mat parts[] = {*image, textPanel(size, objects)};
  cv::Mat both;
  cv::hconcat(parts, 2, both);
  *image = both;
}

}  // namespace vsa
