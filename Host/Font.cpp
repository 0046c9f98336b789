#include "Font.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <map>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <utility>
#include <vector>
#if VSA_HAS_FREETYPE
#include <opencv2/freetype.hpp>
#endif

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

// Relative luminance of a colour (blue, green, red), 0 to 1, as the Web Content Accessibility
// Guidelines define it.
double luminance(const cv::Scalar& colour) {
  const auto linear = [](double value) {
    const double share = value / 255.0;
    return share <= 0.04045 ? share / 12.92 : std::pow((share + 0.055) / 1.055, 2.4);
  };
  return 0.0722 * linear(colour[0]) + 0.7152 * linear(colour[1]) + 0.2126 * linear(colour[2]);
}

}  // namespace

// Coverage of the words drawn so far, by text and height.
struct Font::Cache {
  std::map<std::pair<std::string, int>, cv::Mat> words;
};

// One way to draw characters.
class Font::Glyphs {
 public:
  virtual ~Glyphs() = default;
  // The text with "?" for characters that cannot be drawn.
  virtual std::string drawable(const std::string& utf8) const = 0;
  virtual int width(const std::string& text, int height) const = 0;
  virtual void draw(const std::string& text, const cv::Point& topLeft, int height,
                    const cv::Scalar& colour, cv::Mat* canvas) const = 0;
};

class Font::StrokeGlyphs : public Glyphs {
 public:
  std::string drawable(const std::string& utf8) const override {
    std::string ascii;
    for (std::size_t position = 0; position < utf8.size();) {
      const char32_t codePoint = nextCodePoint(utf8, &position);
      ascii += codePoint >= 0x20 && codePoint < 0x7F ? static_cast<char>(codePoint) : '?';
    }
    return ascii;
  }
  int width(const std::string& text, int height) const override {
    int baseline = 0;
    return cv::getTextSize(text, cv::FONT_HERSHEY_SIMPLEX, height / 30.0, 1, &baseline).width;
  }
  void draw(const std::string& text, const cv::Point& topLeft, int height, const cv::Scalar& colour,
            cv::Mat* canvas) const override {
    cv::putText(*canvas, text, {topLeft.x, topLeft.y + height * 11 / 10}, cv::FONT_HERSHEY_SIMPLEX,
                height / 30.0, colour, 1, cv::LINE_AA);
  }
};

#if VSA_HAS_FREETYPE
class Font::FreeTypeGlyphs : public Glyphs {
 public:
  // Throws cv::Exception if FreeType cannot read the file.
  explicit FreeTypeGlyphs(const std::string& file) { freetype_->loadFontData(file, 0); }

  std::string drawable(const std::string& utf8) const override { return utf8; }
  int width(const std::string& text, int height) const override {
    int baseline = 0;
    return freetype_->getTextSize(text, height, -1, &baseline).width;
  }
  void draw(const std::string& text, const cv::Point& topLeft, int height, const cv::Scalar& colour,
            cv::Mat* canvas) const override {
    freetype_->putText(*canvas, text, topLeft, height, colour, -1, cv::LINE_AA, false);
  }

 private:
  cv::Ptr<cv::freetype::FreeType2> freetype_ = cv::freetype::createFreeType2();
};
#endif

Font::Font(const std::string& file)
    : glyphs_(std::make_shared<StrokeGlyphs>()), cache_(std::make_shared<Cache>()) {
#if VSA_HAS_FREETYPE
  const auto load = [this](const std::string& path) {
    try {
      glyphs_ = std::make_shared<FreeTypeGlyphs>(path);
      return true;
    } catch (const cv::Exception&) {
      return false;
    }
  };
  if (!file.empty()) {
    if (!load(file)) throw std::runtime_error(file + ": not a font that FreeType can read");
    return;
  }
  for (const char* path : kFonts) {
    std::error_code unused;
    if (std::filesystem::exists(path, unused) && load(path)) return;
  }
#else
  if (!file.empty()) {
    throw std::runtime_error("OpenCV was built without freetype, so fonts cannot be used");
  }
#endif
}

// The coverage (0 to 255) of each pixel by a word, without empty columns at its ends.
cv::Mat Font::word(const std::string& text, int height) const {
  constexpr std::size_t kMaxWords = 1000;
  if (cache_->words.size() >= kMaxWords) cache_->words.clear();
  cv::Mat& found = cache_->words[{text, height}];
  if (!found.empty()) return found;
  cv::Mat canvas(labelHeight(height), glyphs_->width(text, height) + 2 * height, CV_8UC3,
                 cv::Scalar());
  glyphs_->draw(text, {height / 2, -height / 10}, height, cv::Scalar::all(255), &canvas);
  cv::Mat coverage;
  cv::extractChannel(canvas, coverage, 0);
  const cv::Rect ink = cv::boundingRect(coverage);
  found = ink.empty() ? coverage.colRange(0, height / 2).clone()
                      : coverage.colRange(ink.x, ink.br().x).clone();
  return found;
}

// The coverage by the words of a text, cut off between characters if it is wider than `maxWidth`.
cv::Mat Font::line(const std::string& text, int height, int maxWidth) const {
  const int space = (2 * height + 4) / 5;  // words have no margins
  std::vector<cv::Mat> words;
  int width = 0;
  for (std::size_t start = 0; start < text.size() && width <= maxWidth;) {
    const std::size_t end = std::min(text.find(' ', start), text.size());
    if (end > start) {
      words.push_back(word(text.substr(start, end - start), height));
      width += words.back().cols + (words.size() > 1 ? space : 0);
    }
    start = end + 1;
  }
  cv::Mat line(labelHeight(height), std::max(width, 1), CV_8U, cv::Scalar());
  int x = 0;
  for (const cv::Mat& drawn : words) {
    drawn.copyTo(line.colRange(x, x + drawn.cols));
    x += drawn.cols + space;
  }
  if (width <= maxWidth) return line;
  const cv::Mat dots = word("...", height);
  int end = std::max(0, maxWidth - dots.cols - 1);
  for (int back = 0; back < height && end > back; ++back) {
    if (cv::countNonZero(line.col(end - back)) == 0) {
      end -= back;
      break;
    }
  }
  cv::Mat cut(line.rows, maxWidth, CV_8U, cv::Scalar());
  if (end > 0) line.colRange(0, end).copyTo(cut.colRange(0, end));
  const int shown = std::min(dots.cols, maxWidth - end);
  dots.colRange(0, shown).copyTo(cut.colRange(end, end + shown));
  return cut;
}

cv::Mat Font::label(const std::string& utf8, int height, int maxWidth,
                    const cv::Scalar& colour) const {
  constexpr std::size_t kMaxBytes = 600;  // more than fits into any image
  const std::string text = glyphs_->drawable(repairUtf8(utf8.substr(0, kMaxBytes)));
  const int margin = std::max(2, height / 5);
  const cv::Mat coverage = line(text, height, std::max(1, maxWidth - 2 * margin));
  // One of black and white always has a contrast of at least 4.5 to the background: it is
  // (0.05 + luminance) / 0.05 for black and 1.05 / (0.05 + luminance) for white.
  const double background = 0.05 + luminance(colour);
  const double foreground = background * background > 1.05 * 0.05 ? 0.0 : 255.0;
  // Colour of a pixel by its coverage.
  cv::Mat colours(1, 256, CV_8UC3);
  for (int i = 0; i < 256; ++i) {
    for (int channel = 0; channel < 3; ++channel) {
      const double mixed = colour[channel] + (foreground - colour[channel]) * i / 255.0;
      colours.at<cv::Vec3b>(i)[channel] = cv::saturate_cast<uchar>(mixed);
    }
  }
  cv::Mat canvas(coverage.rows, coverage.cols + 2 * margin, CV_8UC3, colour);
  cv::Mat threeChannels;
  cv::cvtColor(coverage, threeChannels, cv::COLOR_GRAY2BGR);
  cv::LUT(threeChannels, colours, canvas.colRange(margin, margin + coverage.cols));
  return canvas.colRange(0, std::min(canvas.cols, maxWidth));
}

}  // namespace vsa
