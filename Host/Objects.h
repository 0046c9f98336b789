// Lists of objects: read from recorded results, and scaled with their image.
#pragma once

#include <TolCompatible/TolCompatible.h>
#include <json/json.h>

#include <cstdint>
#include <map>
#include <opencv2/core.hpp>
#include <string>
#include <utility>
#include <vector>

#include "Frame.h"

namespace vsa {

/// Results that vsa wrote as JSON Lines, indexed by input and frame.
class RecordedObjects {
 public:
  /// Reads the whole file. Empty lines and error lines are skipped; if a frame occurs more than
  /// once, the last one is used. Throws std::runtime_error with the line number of an invalid line.
  explicit RecordedObjects(const std::string& path);

  /// The objects of a frame, in its pixels. Throws std::runtime_error if the frame was not recorded
  /// or had another size.
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

/// The inverse of objectJson() for an image of that size. Throws std::exception if the value is not
/// an object as objectJson() writes it.
VsaObject objectFromJson(const Json::Value& json, const cv::Size& imageSize);

/// The image itself or, if its longer side has more than `maxSide` pixels, a copy scaled so that
/// this side has `maxSide` pixels. 0 means no limit.
cv::Mat shrunk(const cv::Mat& image, int maxSide);

/// Scales the objects from an image of one size to the same image in another size.
void rescale(const cv::Size& from, const cv::Size& to, std::vector<VsaObject>* objects);

/// rescale() for results of models that were given `scaled`, which rescale() made of `given`:
/// objects that the models did not move get their coordinates in `given`, without rounding errors.
void rescaleBack(const cv::Size& from, const cv::Size& to, const std::vector<VsaObject>& given,
                 const std::vector<VsaObject>& scaled, std::vector<VsaObject>* objects);

}  // namespace vsa
