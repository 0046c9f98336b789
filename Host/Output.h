// Annotated pictures and videos, and pictures of single objects, each kind in a folder of its own.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <filesystem>
#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>
#include <set>
#include <string>
#include <vector>

#include "Draw.h"
#include "Report.h"

namespace vsa {

/// A folder that takes files named after inputs and never harms an input.
class OutputFolder {
 public:
  /// Makes the folder. Throws std::runtime_error where that fails.
  explicit OutputFolder(const std::string& path);

  const std::filesystem::path& path() const { return path_; }

  /// Throws std::runtime_error where the input lies in the folder.
  void refuse(const std::string& input) const;

  /// The path of a new file: the name of the input, `suffix`, a number where that is taken.
  std::filesystem::path newFile(const std::string& input, const std::string& suffix,
                                const std::string& extension);

 private:
  std::filesystem::path path_;
  std::set<std::string> used_;
};

class Output {
 public:
  /// Throws std::runtime_error for an unusable folder or font.
  Output(const std::string& folder, const std::string& fontFile)
      : folder_(folder), painter_(fontFile) {}

  const OutputFolder& folder() const { return folder_; }

  /// Writes the annotated frame of an input: a picture file, or the next frame of a video whose
  /// `frameRate` is not 0. Throws std::exception with a reason. `frame` is drawn into.
  void write(const std::string& input, double frameRate, cv::Mat* frame,
             const std::vector<VsaObject>& objects);

  /// Completes the video of the current input.
  void finish();

 private:
  void openVideo(const std::string& input, double frameRate, const cv::Size& size);

  OutputFolder folder_;
  Painter painter_;
  cv::VideoWriter video_;
  cv::Size videoSize_;
};

/// Writes the objects of a frame as PNG files named after input, frame (of a video) and number of
/// the object from 1. Gives their paths in the order of the objects, "" for one that has no pixel
/// in the frame. Throws std::runtime_error where one cannot be written.
std::vector<std::string> writeCrops(const FrameInfo& info, const cv::Mat& frame,
                                    const std::vector<VsaObject>& objects, OutputFolder* folder);

}  // namespace vsa
