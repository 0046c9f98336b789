#include "Frame.h"

namespace vsa {

VsaFrame frameOf(const cv::Mat& image) {
  VsaFrame frame;
  frame.kind = kVsaImageFrame;
  frame.data = image.data;
  frame.width = static_cast<std::uint32_t>(image.cols);
  frame.height = static_cast<std::uint32_t>(image.rows);
  return frame;
}

bool isTextRegion(const VsaObject& object) {
  return object.cornerX2 >= 0 && object.cornerY2 >= 0 && object.cornerX3 >= 0 &&
         object.cornerY3 >= 0;
}

}  // namespace vsa
