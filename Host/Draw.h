// Draws results into an image: boxes, quadrilaterals, poses and outlines, with labels that avoid
// each other.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "Font.h"

namespace vsa {

/// Corners of the object in its image, clamped to values that OpenCV can draw: the quadrilateral of
/// a text region, else the box, rotated about its centre by its angle (in radians) if it has one.
std::vector<cv::Point> cornersOf(const VsaObject& object);

class Painter {
 public:
  /// See Font for `fontFile`.
  explicit Painter(const std::string& fontFile) : font_(fontFile) {}

  /// Draws the objects into an 8-bit BGR image.
  void paint(cv::Mat* image, const std::vector<VsaObject>& objects) const;

 private:
  Font font_;
};

}  // namespace vsa
