// Lists of objects: recorded earlier and read again, scaled with their picture, chosen by class.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <cstdint>
#include <map>
#include <opencv2/core.hpp>
#include <string>
#include <utility>
#include <vector>

#include "Report.h"

namespace vsa {

/// Results that vsa wrote as JSON Lines, by input and frame.
class RecordedObjects {
 public:
  /// Reads the whole file. Empty lines and those that tell of an error are passed over; where a
  /// frame is there twice, the last one counts. Throws std::runtime_error with the place of what is
  /// wrong.
  explicit RecordedObjects(const std::string& path);

  /// The objects of a frame, in its pixels. Throws std::runtime_error where none were recorded, or
  /// for a frame of another size.
  const std::vector<VsaObject>& of(const FrameInfo& info) const;

 private:
  struct Frame {
    int width = 0;
    int height = 0;
    std::vector<VsaObject> objects;
  };

  std::string path_;
  std::map<std::pair<std::string, std::int64_t>, Frame> frames_;
};

/// The inverse of objectJson() for a picture of that size. Throws std::exception for what vsa does
/// not write.
VsaObject objectOf(const Json::Value& json, const cv::Size& picture);

/// The picture itself or, where its longer side has more than `maxSide` pixels, a smaller one.
cv::Mat shrunk(const cv::Mat& picture, int maxSide);

/// Moves the objects from the pixels of a picture to those of one of another size.
void rescale(const cv::Size& from, const cv::Size& to, std::vector<VsaObject>* objects);

}  // namespace vsa
