// Labels as images of text.
#pragma once

#include <memory>
#include <opencv2/core.hpp>
#include <string>

namespace vsa {

/// Draws text with FreeType if OpenCV has it and a font is found. Otherwise draws it with OpenCV's
/// stroke font, which has ASCII characters only, and "?" for other characters.
class Font {
 public:
  /// Height in pixels below which Chinese characters are illegible.
  static constexpr int kMinHeight = 12;

  /// `file` is a TrueType or OpenType font; if it is empty, the usual folders are searched for a
  /// font with Chinese characters. Throws std::runtime_error if `file` cannot be used.
  explicit Font(const std::string& file);

  /// The text on a background of that colour, 8-bit BGR. Text wider than `maxWidth` is drawn
  /// smaller, down to kMinHeight, and then truncated.
  cv::Mat label(const std::string& utf8, int height, int maxWidth, const cv::Scalar& colour) const;

 private:
  class Glyphs;
  class FreeTypeGlyphs;
  class StrokeGlyphs;

  std::shared_ptr<const Glyphs> glyphs_;
};

}  // namespace vsa
