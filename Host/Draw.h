// Draws results into an image: boxes, quadrilaterals, poses and masks, with labels that do not
// cover each other, or with the recognised text on a panel beside a dense page.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "Font.h"

namespace vsa {

/// Number of class colours.
inline constexpr int kColourCount = 24;

/// The colour of a class as blue, green, red. It is always the same for a class; classes whose IDs
/// differ by a multiple of kColourCount share one.
cv::Scalar classColour(int classId);

/// Corners of the object in its image, clamped to values that OpenCV can draw: the quadrilateral of
/// a text region, else the box, rotated about its centre by its angle (in radians) if it has one.
std::vector<cv::Point> cornersOf(const VsaObject& object);

/// Where recognised text is drawn.
enum class TextPlace {
  kLabels,       ///< In labels; the image keeps its size.
  kPanelIfFull,  ///< On a panel beside the image if labels would cover text regions.
};

/// Draws objects. A painter and its copies must be used by one thread at a time because they share
/// a cache of words.
class Painter {
 public:
  /// See Font for `fontFile`.
  explicit Painter(const std::string& fontFile) : font_(fontFile) {}

  /// Draws the objects into an 8-bit BGR image. All labels have the same font size, which depends
  /// on the size of the image only. A panel makes the image wider.
  void paint(cv::Mat* image, const std::vector<VsaObject>& objects,
             TextPlace place = TextPlace::kLabels) const;

 private:
  bool drawLabels(cv::Mat* image, const std::vector<VsaObject>& objects, TextPlace place) const;
  cv::Mat textPanel(const cv::Size& page, const std::vector<VsaObject>& objects) const;

  Font font_;
};

}  // namespace vsa
