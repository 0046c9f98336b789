#include "Padding.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "Objects.h"

namespace vsa {
namespace {

constexpr int kMaxSide = 8192;
constexpr std::int64_t kMaxPixels = std::int64_t{2} * kMaxSide * kMaxSide;

// The smallest size with the aspect ratio of `input` that contains `image`.
cv::Size canvasSize(const cv::Size& image, const cv::Size& input) {
  if (input.empty()) return image;  // the library refuses the model
  const auto scaled = [](std::int64_t side, std::int64_t to, std::int64_t from) {
    return (side * to + from / 2) / from;
  };
  const std::int64_t width =
      std::max<std::int64_t>(image.width, scaled(image.height, input.width, input.height));
  const std::int64_t height =
      std::max<std::int64_t>(image.height, scaled(image.width, input.height, input.width));
  if (width > kMaxPixels / height) {
    throw std::runtime_error("the frame is too large to be padded");
  }
  return {static_cast<int>(width), static_cast<int>(height)};
}

}  // namespace

const cv::Mat& Padder::pad(const cv::Mat& image, const cv::Size& input, std::uint8_t value) {
  const cv::Mat seen = shrunk(image, kMaxSide);
  const cv::Size size = canvasSize(seen.size(), input);
  imageSize_ = image.size();
  if (size == seen.size()) {
    seenSize_ = size;
    whole_ = seen;
    return whole_;
  }
  // The padding is kept between frames of the same size.
  if (canvas_.size() != size || filledSize_ != seen.size()) {
    canvas_ = cv::Mat(size, CV_8UC3, cv::Scalar::all(value));
    filledSize_ = seen.size();
  }
  seenSize_ = seen.size();
  seen.copyTo(canvas_(cv::Rect(cv::Point(), seenSize_)));
  return canvas_;
}

void Padder::restore(std::vector<VsaObject>* objects) const {
  const auto [width, height] = std::pair(seenSize_.width, seenSize_.height);
  std::erase_if(*objects, [=](const VsaObject& object) {
    return object.left >= width || object.top >= height || object.right <= 0 || object.bottom <= 0;
  });
  for (VsaObject& object : *objects) {
    object.imageWidth = width;
    object.imageHeight = height;
    object.right = std::min(object.right, width);
    object.bottom = std::min(object.bottom, height);
    for (VsaShape& shape : object.shapes) {
      if (shape.tag != kVsaOutlineTag) continue;
      for (VsaPoint& point : shape.points) {
        point.x = std::clamp(point.x, 0, width);
        point.y = std::clamp(point.y, 0, height);
      }
    }
  }
  rescale(seenSize_, imageSize_, objects);
}

}  // namespace vsa
