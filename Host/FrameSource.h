// Frames of images and videos, read through OpenCV.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>
#include <string>

namespace vsa {

/// Default limit of pixels in an image or frame: more than any camera has, and 600 MB in BGR.
inline constexpr std::int64_t kMaxPixels = 200'000'000;

/// An open image, video or stream. The constructor and next() throw std::exception with a message
/// for the user.
class FrameSource {
 public:
  /// Images and frames of more than `maxPixels` pixels are refused, images before their pixels are
  /// decoded.
  explicit FrameSource(const std::string& input, std::int64_t maxPixels = kMaxPixels);

  /// Stores the next frame in `*frame`, as 8-bit BGR without gaps between its rows. Returns false
  /// at the end.
  bool next(cv::Mat* frame);

  bool isVideo() const { return video_.isOpened(); }
  /// Frames per second of a video; 25 if the file does not specify it.
  double frameRate() const;
  /// Number of frames according to the file's header; 0 if it is not specified.
  std::int64_t frameCount() const;
  /// Seconds from the beginning of the video to the frame that next() read last.
  double time() const;

 private:
  std::int64_t maxPixels_;
  cv::Mat image_;
  cv::VideoCapture video_;
  std::int64_t framesRead_ = 0;
};

}  // namespace vsa
