// Pads frames to the aspect ratio of a detector's input with the value that its network was trained
// with. The library itself pads with black.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace vsa {

class Padder {
 public:
  /// Returns a canvas of that value with the aspect ratio of `input` and the image in its top left
  /// corner. An image with a side of more than 8192 pixels is shrunk first. The result is valid
  /// until the next call and as long as the image is. Throws std::runtime_error if the canvas would
  /// be too large.
  const cv::Mat& pad(const cv::Mat& image, const cv::Size& input, std::uint8_t value);

  /// Maps objects found on the last canvas to its image: boxes and outlines are clamped to the
  /// image, objects outside it are removed. Key points are not clamped.
  void restore(std::vector<VsaObject>* objects) const;

 private:
  cv::Size imageSize_;  ///< Of the image.
  cv::Size seenSize_;   ///< Of its part of the canvas.
  cv::Mat canvas_;
  cv::Size filledSize_;  ///< Of the last image that was copied to `canvas_`.
  cv::Mat whole_;        ///< The image itself if it needs no padding.
};

}  // namespace vsa
