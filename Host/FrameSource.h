// Frames of images and videos, read through OpenCV.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>
#include <string>

namespace vsa {

/// Default limit of pixels in an image or frame: more than any camera has, and 600 MB in BGR.
inline constexpr std::int64_t kMaxPixels = 200'000'000;

/// An open image file, video or stream. The constructor and next() throw std::exception with a
/// message for the user.
class FrameSource {
 public:
  /// Images and frames of more than `maxPixels` pixels are refused, images before their pixels are
  /// decoded.
  explicit FrameSource(const std::string& input, std::int64_t maxPixels = kMaxPixels);

  /// Stores the next frame in `*frame`, as 8-bit BGR without gaps between its rows. Returns false
  /// at the end. The pages of a TIFF file are its frames.
  bool next(cv::Mat* frame);

  bool isVideo() const { return video_.isOpened(); }
  /// Frames per second of a video; 25 if the file does not specify it.
  double frameRate() const { return frameRate_; }
  /// Number of frames of a video according to its header, 0 if it is not specified; number of pages
  /// of an image file.
  std::int64_t frameCount() const { return frameCount_; }
  /// Seconds from the beginning of the video to the frame that next() read last.
  double time() const;

 private:
  std::string path_;
  std::int64_t maxPixels_;
  cv::Mat image_;  // the first page, until next() returns it
  cv::VideoCapture video_;
  double frameRate_ = 25.0;
  std::int64_t frameCount_ = 0;
  std::int64_t framesRead_ = 0;
};

}  // namespace vsa
