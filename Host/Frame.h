// A frame in the host: its origin, its failures, and its record for the library.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <cstdint>
#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

namespace vsa {

/// A frame of an image or video, or a block of audio.
struct FrameInfo {
  std::string input;  ///< Its path, or its address without passwords.
  std::int64_t index = 0;
  std::optional<double> time;  ///< Seconds from the beginning; videos and audio only.
  int width = 0;               ///< Pixels; 0 for audio.
  int height = 0;
  std::vector<int> failedModels;  ///< Indices of models that failed or were skipped.
  double duration = 0.0;          ///< Seconds of audio in a block.
  std::vector<std::string> crops =
      {};                  ///< File of each object, "" for none; empty without --crops.
  std::int64_t pages = 1;  ///< Number of images in the file.

  /// The number of the image in its file, from 1.
  std::int64_t page() const { return index + 1; }
};

/// The record of an 8-bit BGR image without gaps between its rows. It refers to the image's pixels.
VsaFrame frameOf(const cv::Mat& image);

/// Whether all four corners are set, which makes the object a text region.
bool isTextRegion(const VsaObject& object);

}  // namespace vsa
