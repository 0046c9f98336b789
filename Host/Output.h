// Annotated pictures and videos in a folder of their own.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <filesystem>
#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>
#include <set>
#include <string>
#include <vector>

#include "Draw.h"

namespace vsa {

class Output {
 public:
  /// Makes the folder. Throws std::runtime_error where that fails, where an input lies in it, or
  /// for an unusable font.
  Output(const std::string& folder, const std::string& fontFile,
         const std::vector<std::string>& inputs);

  /// Writes the annotated frame of an input: a picture file, or the next frame of a video whose
  /// `frameRate` is not 0. Throws std::exception with a reason. `frame` is drawn into.
  void write(const std::string& input, double frameRate, cv::Mat* frame,
             const std::vector<VsaObject>& objects);

  /// Completes the video of the current input.
  void finish();

 private:
  std::filesystem::path newFile(const std::string& input, const std::string& extension);
  void openVideo(const std::string& input, double frameRate, const cv::Size& size);

  std::filesystem::path folder_;
  Painter painter_;
  std::set<std::string> used_;
  cv::VideoWriter video_;
  cv::Size videoSize_;
};

}  // namespace vsa
