// Annotated images and videos, and cropped images of single objects, each in a folder of its own.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <filesystem>
#include <memory>
#include <opencv2/core.hpp>
#include <set>
#include <string>
#include <vector>

#include "Draw.h"
#include "Frame.h"
#include "VideoFile.h"

namespace vsa {

/// A folder for files that are named after inputs. Inputs are never overwritten.
class OutputFolder {
 public:
  /// Creates the folder. Throws std::runtime_error if that fails.
  explicit OutputFolder(const std::string& path);

  const std::filesystem::path& path() const { return path_; }

  /// Throws std::runtime_error if the input is in the folder.
  void refuse(const std::string& input) const;

  /// The path of a new file: the name of the input, `suffix`, and a number if that name exists.
  std::filesystem::path newFile(const std::string& input, const std::string& suffix,
                                const std::string& extension);

 private:
  std::filesystem::path path_;
  std::set<std::string> used_;
};

/// Annotated copies of the inputs.
class AnnotatedOutput {
 public:
  /// Throws std::runtime_error if the folder or the font cannot be used.
  AnnotatedOutput(const std::string& folder, const std::string& fontFile)
      : painter_(fontFile), folder_(folder) {}

  const OutputFolder& folder() const { return folder_; }

  /// Draws into `*image` and writes it. Throws std::exception with a reason.
  void writeImage(const FrameInfo& info, cv::Mat* image, const std::vector<VsaObject>& objects);

  /// Appends a frame to the video of the current input, in another thread: the pixels of the image
  /// must not be used afterwards. Throws std::exception with a reason if the first frame cannot be
  /// written; finish() reports later failures.
  void writeVideo(const FrameInfo& info, double frameRate, cv::Mat image,
                  std::vector<VsaObject> objects);

  /// Completes the video of the current input, if there is one. Throws std::runtime_error if it
  /// could not be written completely; it is removed then.
  void finish();

 private:
  Painter painter_;  // first, so that no folder is created for a wrong font
  OutputFolder folder_;
  std::unique_ptr<VideoFile> video_;  // of the current input; uses the painter
};

/// The files that writeCrops() wrote.
struct Crops {
  std::vector<std::string> files;  ///< In the order of the objects, "" if there is no file.
  std::string failure;             ///< Why not all could be written; empty if they were.
};

/// Writes the objects of a frame as PNG files. They are named after the input, the frame (of a
/// video) or page and the number of the object from 1. There is no file for an object without a
/// pixel in the frame. After a failure no further files are written.
Crops writeCrops(const FrameInfo& info, const cv::Mat& frame, const std::vector<VsaObject>& objects,
                 OutputFolder* folder);

}  // namespace vsa
