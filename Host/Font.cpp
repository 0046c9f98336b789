#include "Font.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
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

}  // namespace

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

Font::Font(const std::string& file) : glyphs_(std::make_shared<StrokeGlyphs>()) {
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

cv::Mat Font::label(const std::string& utf8, int height, int maxWidth,
                    const cv::Scalar& colour) const {
  constexpr std::size_t kMaxBytes = 600;  // more than fits into any image
  const std::string text = glyphs_->drawable(repairUtf8(utf8.substr(0, kMaxBytes)));
  const int margin = std::max(2, height / 5);
  int width = 2 * margin + glyphs_->width(text, height);
  while (width > maxWidth && height > kMinHeight) {
    --height;
    width = 2 * margin + glyphs_->width(text, height);
  }
  const bool isBright = 0.114 * colour[0] + 0.587 * colour[1] + 0.299 * colour[2] > 140.0;
  cv::Mat canvas(height * 6 / 5 + 1, width, CV_8UC3, colour);
  if (!text.empty()) {
    glyphs_->draw(text, {margin, -height / 10}, height, cv::Scalar::all(isBright ? 0 : 255),
                  &canvas);
  }
  return canvas(cv::Rect(0, 0, std::min(width, maxWidth), canvas.rows));
}

}  // namespace vsa
