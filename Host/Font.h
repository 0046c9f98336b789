// Labels as images of text.
#pragma once

#include <memory>
#include <opencv2/core.hpp>
#include <string>

namespace vsa {

/// Draws text with FreeType if OpenCV has it and a font is found. Otherwise draws it with OpenCV's
/// stroke font, which has ASCII characters only, and "?" for other characters. Words that were
/// drawn before are taken from a cache, so a font and its copies must be used by one thread at a
/// time.
class Font {
 public:
  /// Height in pixels below which Chinese characters are illegible.
  static constexpr int kMinHeight = 12;

  /// `file` is a TrueType or OpenType font; if it is empty, the usual folders are searched for a
  /// font with Chinese characters. Throws std::runtime_error if `file` cannot be used.
  explicit Font(const std::string& file);

  /// The text, in black or white, on a background of that colour, 8-bit BGR. Text wider than
  /// `maxWidth` is cut off and ends with "...".
  cv::Mat label(const std::string& utf8, int height, int maxWidth, const cv::Scalar& colour) const;

  /// Height of a label with text of that height.
  static int labelHeight(int height) { return height * 6 / 5 + 1; }

 private:
  class Glyphs;
  class FreeTypeGlyphs;
  class StrokeGlyphs;
  struct Cache;

  cv::Mat word(const std::string& text, int height) const;
  cv::Mat line(const std::string& text, int height, int maxWidth) const;

  std::shared_ptr<const Glyphs> glyphs_;
  std::shared_ptr<Cache> cache_;
};

}  // namespace vsa
