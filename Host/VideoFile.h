// Annotated videos, drawn and encoded while the models work on later frames.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <cstdint>
#include <filesystem>
#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>
#include <string>
#include <thread>
#include <vector>

#include "BoundedQueue.h"
#include "Draw.h"

namespace vsa {

/// A video that is being written by a thread of its own.
class VideoFile {
 public:
  /// Creates the file. `painter` must outlive this object and must not be used elsewhere
  /// meanwhile. Throws std::runtime_error if the file cannot be written.
  VideoFile(const std::filesystem::path& path, double frameRate, const cv::Size& size,
            const Painter& painter);
  ~VideoFile();
  VideoFile(const VideoFile&) = delete;
  VideoFile& operator=(const VideoFile&) = delete;

  /// Draws the objects into the image and appends it, scaled if it has another size than the video.
  /// The pixels of the image must not be used afterwards. After a failure, frames are ignored.
  void write(cv::Mat image, std::vector<VsaObject> objects);

  /// Completes and checks the file. Must be called once, after the last frame. Throws
  /// std::runtime_error if frames are missing or the file is incomplete; it is removed then.
  void finish();

 private:
  struct Frame {
    cv::Mat image;
    std::vector<VsaObject> objects;
  };

  void writeAll();
  void stop();

  std::filesystem::path path_;
  cv::Size size_;
  const Painter& painter_;
  cv::VideoWriter video_;
  BoundedQueue<Frame> queue_;
  std::int64_t frames_ = 0;  // handed to the encoder
  std::string failure_;      // set by the thread before it ends; empty if there was none
  std::thread thread_;
};

/// Removes the file and throws std::runtime_error. `kind` is "image" or "video".
[[noreturn]] void discard(const std::filesystem::path& file, const std::string& kind,
                          const std::string& reason = "");

}  // namespace vsa
