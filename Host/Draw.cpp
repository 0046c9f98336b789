// Shapes first, labels on top of all of them. Coordinates come from networks and may lie anywhere,
// so points are limited before OpenCV sees them and labels are copied in as clipped pictures.
#include "Draw.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <numbers>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#if VSA_HAS_FREETYPE
#include <opencv2/freetype.hpp>
#endif

#include "Report.h"
#include "Text.h"

namespace vsa {
namespace {

constexpr std::array<const char*, 13> kFonts = {
    "/usr/share/fonts/opentype/noto/NotoSansCJK-Regular.ttc",
    "/usr/share/fonts/noto-cjk/NotoSansCJK-Regular.ttc",
    "/usr/share/fonts/google-noto-cjk/NotoSansCJK-Regular.ttc",
    "/usr/share/fonts/google-noto-sans-cjk-fonts/NotoSansCJK-Regular.ttc",
    "/usr/share/fonts/truetype/wqy/wqy-microhei.ttc",
    "/usr/share/fonts/truetype/wqy/wqy-zenhei.ttc",
    "/usr/share/fonts/truetype/arphic/uming.ttc",
    "/System/Library/Fonts/PingFang.ttc",
    "C:/Windows/Fonts/msyh.ttc",
    "C:/Windows/Fonts/simhei.ttf",
    "C:/Windows/Fonts/simsun.ttc",
    "C:/Windows/Fonts/arial.ttf",
    "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf",
};

// Blue, green, red; told apart by most eyes.
const std::array<cv::Scalar, 10> kColours = {cv::Scalar(75, 180, 60),  cv::Scalar(48, 130, 245),
                                             cv::Scalar(200, 130, 0),  cv::Scalar(230, 50, 240),
                                             cv::Scalar(0, 200, 230),  cv::Scalar(75, 25, 230),
                                             cv::Scalar(180, 30, 145), cv::Scalar(128, 128, 0),
                                             cv::Scalar(36, 84, 154),  cv::Scalar(212, 190, 250)};

// Height in pixels below which Chinese letters can no longer be told apart.
constexpr int kLegible = 12;

// Joints of the 17 COCO key points: arms, legs, trunk, head.
constexpr std::array<std::array<std::size_t, 2>, 19> kSkeleton = {{
    {5, 7},  {7, 9},   {6, 8}, {8, 10}, {11, 13}, {13, 15}, {12, 14}, {14, 16}, {5, 6}, {5, 11},
    {6, 12}, {11, 12}, {0, 1}, {0, 2},  {1, 2},   {1, 3},   {2, 4},   {3, 5},   {4, 6},
}};

const cv::Scalar& colourOf(const VsaObject& object) {
  const auto index = static_cast<unsigned>(object.classId) % kColours.size();
  return kColours[index];
}

// Far outside every picture, yet small enough for OpenCV's fixed-point line drawing.
int limited(double coordinate) {
  constexpr double kLimit = 100000.0;
  return std::isfinite(coordinate)
             ? static_cast<int>(std::lround(std::clamp(coordinate, -kLimit, kLimit)))
             : 0;
}

cv::Point pointAt(double x, double y) {
  return {limited(x), limited(y)};
}

void drawShape(const VsaShape& shape, const cv::Scalar& colour, int thickness, cv::Mat* picture) {
  std::vector<cv::Point> points;
  points.reserve(shape.points.size());
  for (const VsaPoint& point : shape.points) points.push_back(pointAt(point.x, point.y));
  if (shape.tag == kVsaOutlineTag) {
    if (!points.empty()) cv::polylines(*picture, points, true, colour, thickness, cv::LINE_AA);
  } else if (shape.tag == kVsaKeyPointsTag) {
    if (points.size() == 17) {
      for (const auto& [from, to] : kSkeleton) {
        cv::line(*picture, points[from], points[to], colour, thickness, cv::LINE_AA);
      }
    }
    for (const cv::Point& point : points) {
      cv::circle(*picture, point, thickness + 1, colour, cv::FILLED, cv::LINE_AA);
    }
  }
}

// Class, label of the classifier and text, as far as there are any. The class of a text region says
// nothing, and its score nothing once the text is read.
std::string labelOf(const VsaObject& object) {
  const bool read = object.textId >= 0 && !object.text.empty();
  std::string label;
  const auto add = [&label](const std::string& part) {
    label += (label.empty() ? "" : " | ") + part;
  };
  const auto scored = [](const std::string& name, float score) {
    char digits[48];
    std::snprintf(digits, sizeof digits, "%.2f", static_cast<double>(score));
    return (name.empty() ? "" : printable(name) + " ") + digits;
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

// Height of the letters in pixels: of a text region somewhat smaller than its own, of a box in
// proportion to the picture.
int letterHeight(const VsaObject& object, const std::vector<cv::Point>& corners,
                 const cv::Size& picture) {
  if (!isTextRegion(object)) {
    return std::clamp(std::min(picture.width, picture.height) / 36, kLegible, 60);
  }
  const double side =
      std::min(cv::norm(corners[3] - corners[0]), cv::norm(corners[1] - corners[0]));
  return std::clamp(static_cast<int>(side * 0.55), kLegible, 60);
}

// Where a label goes and how much it covers there.
struct Place {
  cv::Rect label;
  double covered = std::numeric_limits<double>::infinity();
};

// The place for a label of the given size: above, below or beside the object, where it covers
// least, other labels counting more than other objects. Places lie inside the picture.
Place placeLabel(const cv::Size& size, const cv::Rect& object, const cv::Size& picture,
                 const std::vector<cv::Rect>& labels, const std::vector<cv::Rect>& objects) {
  // Beyond this many neighbours the picture is full anyway and the search would take long.
  constexpr std::size_t kNeighbours = 400;
  const cv::Point corners[] = {{object.x, object.y - size.height},
                               {object.x, object.br().y},
                               {object.br().x, object.y},
                               {object.br().x - size.width, object.y - size.height}};
  Place best;
  for (const cv::Point& corner : corners) {
    Place place;
    place.label = {std::clamp(corner.x, 0, std::max(0, picture.width - size.width)),
                   std::clamp(corner.y, 0, std::max(0, picture.height - size.height)), size.width,
                   size.height};
    place.covered = 0.0;
    for (std::size_t i = labels.size() - std::min(labels.size(), kNeighbours); i < labels.size();
         ++i) {
      place.covered += 4.0 * (labels[i] & place.label).area();
    }
    for (std::size_t i = 0; i < std::min(objects.size(), kNeighbours); ++i) {
      place.covered += (objects[i] & place.label).area();
    }
    if (place.covered < best.covered) best = place;
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

// Letters through FreeType where OpenCV has it and a font is found, else OpenCV's own strokes.
class Painter::Font {
 public:
  explicit Font(const std::string& file) {
#if VSA_HAS_FREETYPE
    if (!file.empty()) {
      if (!load(file)) throw std::runtime_error(file + ": this is no font that FreeType can read");
      return;
    }
    for (const char* candidate : kFonts) {
      std::error_code unused;
      if (std::filesystem::exists(candidate, unused) && load(candidate)) return;
    }
#else
    if (!file.empty()) throw std::runtime_error("this OpenCV draws no fonts (it lacks freetype)");
#endif
  }

  // A label on its own background, cut to the width of the picture it is for.
  cv::Mat label(const std::string& utf8, int height, int mostWidth,
                const cv::Scalar& colour) const {
    constexpr std::size_t kMostBytes = 600;  // more than any picture has room for
    const std::string text = drawable(repairUtf8(utf8.substr(0, kMostBytes)));
    const int margin = std::max(2, height / 5);
    int width = 2 * margin + textWidth(text, height);
    // Long text is made smaller, as far as it stays legible.
    while (width > mostWidth && height > kLegible) {
      --height;
      width = 2 * margin + textWidth(text, height);
    }
    const bool bright = 0.114 * colour[0] + 0.587 * colour[1] + 0.299 * colour[2] > 140.0;
    cv::Mat canvas(height * 6 / 5 + 1, width, CV_8UC3, colour);
    draw(text, {margin, -height / 10}, height, bright ? cv::Scalar::all(0) : cv::Scalar::all(255),
         &canvas);
    return canvas(cv::Rect(0, 0, std::min(width, mostWidth), canvas.rows));
  }

 private:
  std::string drawable(const std::string& utf8) const {
#if VSA_HAS_FREETYPE
    if (loaded_) return utf8;
#endif
    std::string ascii;
    for (std::size_t position = 0; position < utf8.size();) {
      const char32_t codePoint = nextCodePoint(utf8, &position);
      ascii += codePoint >= 0x20 && codePoint < 0x7F ? static_cast<char>(codePoint) : '?';
    }
    return ascii;
  }

#if VSA_HAS_FREETYPE
  bool load(const std::string& file) {
    try {
      freetype_ = cv::freetype::createFreeType2();
      freetype_->loadFontData(file, 0);
      loaded_ = true;
    } catch (const cv::Exception&) {
      loaded_ = false;
    }
    return loaded_;
  }
#endif

  int textWidth(const std::string& text, int height) const {
    int baseline = 0;
#if VSA_HAS_FREETYPE
    if (loaded_) return freetype_->getTextSize(text, height, -1, &baseline).width;
#endif
    return cv::getTextSize(text, cv::FONT_HERSHEY_SIMPLEX, height / 30.0, 1, &baseline).width;
  }

  void draw(const std::string& text, const cv::Point& topLeft, int height, const cv::Scalar& colour,
            cv::Mat* canvas) const {
    if (text.empty()) return;
#if VSA_HAS_FREETYPE
    if (loaded_) {
      freetype_->putText(*canvas, text, topLeft, height, colour, -1, cv::LINE_AA, false);
      return;
    }
#endif
    cv::putText(*canvas, text, {topLeft.x, topLeft.y + height * 11 / 10}, cv::FONT_HERSHEY_SIMPLEX,
                height / 30.0, colour, 1, cv::LINE_AA);
  }

#if VSA_HAS_FREETYPE
  cv::Ptr<cv::freetype::FreeType2> freetype_;
  bool loaded_ = false;
#endif
};

Painter::Painter(const std::string& fontFile) : font_(std::make_unique<Font>(fontFile)) {}
Painter::~Painter() = default;

void Painter::paint(cv::Mat* picture, const std::vector<VsaObject>& objects) const {
  const cv::Size size = picture->size();
  const cv::Rect whole(cv::Point(0, 0), size);
  const int thickness = std::clamp(std::min(size.width, size.height) / 400, 1, 8);
  std::vector<std::vector<cv::Point>> corners;
  std::vector<cv::Rect> places;
  for (const VsaObject& object : objects) {
    corners.push_back(cornersOf(object));
    places.push_back(cv::boundingRect(corners.back()) & whole);
    cv::polylines(*picture, corners.back(), true, colourOf(object), thickness, cv::LINE_AA);
    for (const VsaShape& shape : object.shapes)
      drawShape(shape, colourOf(object), thickness, picture);
  }
  std::vector<cv::Rect> labels;
  for (std::size_t i = 0; i < objects.size(); ++i) {
    const std::string text = labelOf(objects[i]);
    const cv::Scalar& colour = colourOf(objects[i]);
    cv::Mat label =
        font_->label(text, letterHeight(objects[i], corners[i], size), size.width, colour);
    Place place = placeLabel(label.size(), places[i], size, labels, places);
    if (place.covered > 0.0) {
      // On a dense page the smallest letters fit between the lines.
      const cv::Mat smaller = font_->label(text, kLegible, size.width, colour);
      const Place other = placeLabel(smaller.size(), places[i], size, labels, places);
      if (other.covered < place.covered) {
        label = smaller;
        place = other;
      }
    }
    const cv::Rect visible = place.label & whole;
    if (visible.empty()) continue;
    label(cv::Rect(cv::Point(0, 0), visible.size())).copyTo((*picture)(visible));
    labels.push_back(visible);
  }
}

}  // namespace vsa
