// Draws results into a picture: boxes, quadrilaterals, poses and outlines, with labels that keep
// out of each other's way.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace vsa {

/// Corners of the object in its picture, limited to what OpenCV can draw: the quadrilateral of a
/// text region, else the box, turned about its centre where it has an angle (in radians).
std::vector<cv::Point> cornersOf(const VsaObject& object);

class Painter {
 public:
  /// `fontFile` is a TrueType or OpenType font; empty looks in the usual places for one with
  /// Chinese letters. Without a font, labels are in ASCII with "?" for other letters. Throws
  /// std::runtime_error for a font that was asked for and cannot be used.
  explicit Painter(const std::string& fontFile);
  ~Painter();

  /// Draws the objects into an 8-bit BGR picture.
  void paint(cv::Mat* picture, const std::vector<VsaObject>& objects) const;

 private:
  class Font;
  std::unique_ptr<Font> font_;
};

}  // namespace vsa
