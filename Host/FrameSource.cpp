#include "FrameSource.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio/registry.hpp>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "Inputs.h"

namespace vsa {
namespace {

namespace fs = std::filesystem;

// Converts to 8-bit BGR. Transparent pixels are blended with white, the usual background.
cv::Mat toBgr8(const cv::Mat& source) {
  cv::Mat image;
  const double scale = source.depth() == CV_16U                               ? 1.0 / 257.0
                       : source.depth() == CV_32F || source.depth() == CV_64F ? 255.0
                                                                              : 1.0;
  if (source.depth() == CV_8U) {
    image = source;
  } else {
    source.convertTo(image, CV_8U, scale);
  }
  if (image.channels() == 1) {
    cv::cvtColor(image, image, cv::COLOR_GRAY2BGR);
  } else if (image.channels() == 4) {
    cv::Mat opaque(image.size(), CV_8UC3);
    image.forEach<cv::Vec4b>([&opaque](const cv::Vec4b& pixel, const int* position) {
      cv::Vec3b& target = opaque.at<cv::Vec3b>(position[0], position[1]);
      const int alpha = pixel[3];
      for (int i = 0; i < 3; ++i) {
        target[i] = static_cast<std::uint8_t>((pixel[i] * alpha + 255 * (255 - alpha) + 127) / 255);
      }
    });
    image = opaque;
  }
  if (image.type() != CV_8UC3) throw std::runtime_error("the pixel format is not supported");
  return image;
}

void checkSize(std::int64_t width, std::int64_t height, std::int64_t maxPixels) {
  if (width <= 0 || height <= 0 || height <= maxPixels / width) return;
  throw std::runtime_error("its " + std::to_string(width) + " x " + std::to_string(height) +
                           " pixels are more than the limit of " + std::to_string(maxPixels) +
                           " (run --max-pixels)");
}

// While it exists, OpenCV cannot allocate memory for more than `maxPixels` pixels at once. Decoders
// read the header, allocate and only then decode, so this one check covers all file formats.
class PixelLimit : public cv::MatAllocator {
 public:
  explicit PixelLimit(std::int64_t maxPixels) : maxPixels_(maxPixels) {
    cv::Mat::setDefaultAllocator(this);
  }
  ~PixelLimit() override { cv::Mat::setDefaultAllocator(&inner_); }
  PixelLimit(const PixelLimit&) = delete;
  PixelLimit& operator=(const PixelLimit&) = delete;

  cv::UMatData* allocate(int dimensions, const int* sizes, int type, void* data, std::size_t* step,
                         cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
    if (dimensions == 2) checkSize(sizes[1], sizes[0], maxPixels_);
    return inner_.allocate(dimensions, sizes, type, data, step, flags, usage);
  }
  bool allocate(cv::UMatData* data, cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
    return inner_.allocate(data, flags, usage);
  }
  void deallocate(cv::UMatData* data) const override { inner_.deallocate(data); }

 private:
  cv::MatAllocator& inner_ = *cv::Mat::getDefaultAllocator();
  std::int64_t maxPixels_;
};

// Decodes the page of that index.
cv::Mat readImage(const std::string& path, std::int64_t page, std::int64_t maxPixels) {
  // IMREAD_COLOR applies the orientation of a photograph, IMREAD_UNCHANGED keeps transparency. No
  // format needs both.
  constexpr std::array<std::string_view, 4> kTransparent = {".png", ".tif", ".tiff", ".webp"};
  const bool mayBeTransparent =
      std::ranges::find(kTransparent, lowerCaseExtension(path)) != kTransparent.end();
  cv::Mat image;
  try {
    const PixelLimit limit(maxPixels);
    const int mode = mayBeTransparent ? cv::IMREAD_UNCHANGED : cv::IMREAD_COLOR;
    if (page == 0) {
      image = cv::imread(path, mode);
    } else {
      std::vector<cv::Mat> pages;
      cv::imreadmulti(path, pages, static_cast<int>(page), 1, mode);
      if (!pages.empty()) image = pages[0];
    }
  } catch (const cv::Exception& error) {
    if (error.func != "validateInputImageSize") throw;
    throw std::runtime_error("its header claims more pixels than OpenCV reads");
  }
  if (image.empty()) {
    throw std::runtime_error(page == 0 ? "the image is damaged"
                                       : "page " + std::to_string(page + 1) + " is damaged");
  }
  return toBgr8(image);
}

// The number of images in a TIFF file; 1 for any other file. If the file was cut off, the first
// page whose directory is missing counts, so that reading it fails.
std::int64_t countPages(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  char order[2] = {};
  file.read(order, sizeof order);
  const std::string_view name(order, sizeof order);
  if (name != "II" && name != "MM") return 1;
  const auto number = [&](int bytes) {
    std::uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) {
      const std::uint64_t byte = static_cast<std::uint8_t>(file.get());
      value = name == "MM" ? value << 8 | byte : value | byte << 8 * i;
    }
    return value;
  };
  const std::uint64_t version = number(2);
  if (version != 42 && version != 43) return 1;
  const bool isBig = version == 43;  // BigTIFF
  if (isBig) number(4);              // the size of an offset and zeros
  const int offsetBytes = isBig ? 8 : 4;
  std::set<std::uint64_t> directories;
  for (std::uint64_t offset = number(offsetBytes);
       file && offset != 0 && directories.insert(offset).second; offset = number(offsetBytes)) {
    file.seekg(static_cast<std::streamoff>(offset));
    const std::uint64_t entries = number(isBig ? 8 : 2);
    file.seekg(static_cast<std::streamoff>(entries * (isBig ? 20 : 12)), std::ios::cur);
  }
  return std::max<std::int64_t>(1, std::ssize(directories));
}

// FFmpeg if OpenCV has it: other backends may interpret a file name as a camera or as the first of
// a sequence of numbered images.
int videoBackend() {
  for (const cv::VideoCaptureAPIs backend : cv::videoio_registry::getStreamBackends()) {
    if (backend == cv::CAP_FFMPEG) return backend;
  }
  return cv::CAP_ANY;
}

}  // namespace

FrameSource::FrameSource(const std::string& input, std::int64_t maxPixels)
    : path_(pathForDecoder(input)), maxPixels_(maxPixels) {
  if (!isAddress(input)) {
    std::error_code unused;
    // A pipe or device may be endless, and OpenCV opens its inputs more than once.
    if (fs::is_other(input, unused)) throw std::runtime_error("not a regular file");
    const std::string reason = whyUnreadable(input);
    if (!reason.empty()) throw std::runtime_error(reason);
    if (cv::haveImageReader(path_)) {
      image_ = readImage(path_, 0, maxPixels);
      frameCount_ = countPages(path_);
      return;
    }
    if (hasImageExtension(input)) {
      throw std::runtime_error("not an image that OpenCV can read");
    }
  }
  if (!video_.open(path_, videoBackend())) {
    throw std::runtime_error(isAddress(input)
                                 ? "the stream cannot be opened"
                                 : "neither an image nor a video that OpenCV can read");
  }
  checkSize(static_cast<std::int64_t>(video_.get(cv::CAP_PROP_FRAME_WIDTH)),
            static_cast<std::int64_t>(video_.get(cv::CAP_PROP_FRAME_HEIGHT)), maxPixels);
  const double rate = video_.get(cv::CAP_PROP_FPS);
  if (std::isfinite(rate) && rate > 0.0 && rate <= 1000.0) frameRate_ = rate;
  const double count = video_.get(cv::CAP_PROP_FRAME_COUNT);
  if (count >= 1.0 && count < 1e12) frameCount_ = static_cast<std::int64_t>(count);
}

bool FrameSource::next(cv::Mat* frame) {
  if (isVideo()) {
    cv::Mat decoded;
    if (!video_.read(decoded) || decoded.empty()) return false;
    checkSize(decoded.cols, decoded.rows, maxPixels_);  // a stream may change its size
    *frame = toBgr8(decoded);
  } else if (framesRead_ < frameCount_) {
    *frame =
        framesRead_ == 0 ? std::exchange(image_, {}) : readImage(path_, framesRead_, maxPixels_);
  } else {
    return false;
  }
  if (!frame->isContinuous()) *frame = frame->clone();
  ++framesRead_;
  return true;
}

double FrameSource::time() const {
  const double milliseconds = video_.get(cv::CAP_PROP_POS_MSEC);
  if (std::isfinite(milliseconds) && milliseconds > 0.0) return milliseconds / 1000.0;
  return static_cast<double>(framesRead_ - 1) / frameRate_;
}

}  // namespace vsa
