#include "Utils/PreProcessUtils.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <opencv2/dnn.hpp>
#include <opencv2/imgproc.hpp>
#include <string>

#include "Utils/Log.h"
#include "Utils/Numbers.h"

namespace TolCompatibleLib {
namespace {

constexpr double kOneOver255 = 0.00392156862745098;
constexpr double kTwoOver255 = 0.00784313725490196;

/// The float that each byte becomes, by channel of the picture.
using ByteTables = std::array<std::array<float, 256>, 3>;

/// One row of 256 pixels whose three channels hold the byte of their column.
cv::Mat everyByte() {
  cv::Mat ramp(1, 256, CV_8UC3);
  for (int i = 0; i < 256; ++i) ramp.at<cv::Vec3b>(0, i) = cv::Vec3b::all(static_cast<uchar>(i));
  return ramp;
}

/// Tables out of a row of 256 three-channel float pixels.
ByteTables tablesOf(const cv::Mat& ramp) {
  ByteTables tables;
  for (int i = 0; i < 256; ++i) {
    const auto& pixel = ramp.at<cv::Vec3f>(0, i);
    for (int c = 0; c < 3; ++c) {
      tables[static_cast<std::size_t>(c)][static_cast<std::size_t>(i)] = pixel[c];
    }
  }
  return tables;
}

const ByteTables& unitTables() {
  static const ByteTables tables = [] {
    const cv::Mat blob = cv::dnn::blobFromImage(everyByte(), kOneOver255, cv::Size(256, 1),
                                                cv::Scalar(), /*swapRB=*/true, /*crop=*/false);
    ByteTables made;
    for (auto& table : made) std::copy_n(blob.ptr<float>(), 256, table.begin());
    return made;
  }();
  return tables;
}

const ByteTables& textDetectorTables() {
  static const ByteTables tables = [] {
    cv::Mat ramp;
    everyByte().convertTo(ramp, CV_32FC3, kOneOver255);
    cv::subtract(ramp, cv::Scalar(0.485, 0.456, 0.406), ramp);
    cv::divide(ramp, cv::Scalar(0.229, 0.224, 0.225), ramp);
    return tablesOf(ramp);
  }();
  return tables;
}

const ByteTables& textLineTables() {
  static const ByteTables tables = [] {
    cv::Mat ramp;
    everyByte().convertTo(ramp, CV_32FC3, kTwoOver255);
    cv::subtract(ramp, cv::Scalar::all(1.0), ramp);
    return tablesOf(ramp);
  }();
  return tables;
}

/// Which channel of the picture goes into planes 0, 1 and 2.
using PlaneOrder = std::array<std::size_t, 3>;
constexpr PlaneOrder kRedFirst = {2, 1, 0};
constexpr PlaneOrder kAsStored = {0, 1, 2};

/// Writes every pixel through `tables` into three planes of `rowLength` floats a row; floats right
/// of the picture are 0.
void fillPlanes(const cv::Mat& image, const ByteTables& tables, const PlaneOrder& order,
                float* planes, int rowLength) {
  const auto cols = static_cast<std::size_t>(image.cols);
  const auto stride = static_cast<std::size_t>(rowLength);
  const std::size_t plane = stride * static_cast<std::size_t>(image.rows);
  for (int y = 0; y < image.rows; ++y) {
    const uchar* pixels = image.ptr<uchar>(y);
    for (std::size_t p = 0; p < 3; ++p) {
      const std::array<float, 256>& table = tables[order[p]];
      const uchar* channel = pixels + order[p];
      float* row = planes + p * plane + static_cast<std::size_t>(y) * stride;
      for (std::size_t x = 0; x < cols; ++x) row[x] = table[channel[3 * x]];
      std::fill(row + cols, row + stride, 0.0F);
    }
  }
}

std::string sizeText(std::int64_t width, std::int64_t height) {
  return "width=" + std::to_string(width) + ",height=" + std::to_string(height);
}

}  // namespace

std::optional<cv::Mat> imageOf(const VsaFrame* frame, std::source_location where) {
  if (frame == nullptr) {
    logError("frame is null", where);
    return std::nullopt;
  }
  if (frame->kind != kVsaImageFrame) return std::nullopt;
  if (frame->data == nullptr) {
    logError("frame data is null", where);
    return std::nullopt;
  }
  // Both sides below 2^32, so the product of the first two cannot overflow 64 bits.
  constexpr std::uint64_t kMostPixels = std::numeric_limits<std::int32_t>::max() / 3;
  const std::uint64_t pixels = std::uint64_t{frame->width} * frame->height;
  if (pixels == 0 || pixels > kMostPixels) {
    logError((pixels == 0 ? "frame has no pixels," : "frame is too large,") +
                 sizeText(frame->width, frame->height),
             where);
    return std::nullopt;
  }
  return cv::Mat(static_cast<int>(frame->height), static_cast<int>(frame->width), CV_8UC3,
                 frame->data);
}

std::optional<Letterbox> letterbox(const cv::Mat& image, cv::Size inputSize, void* pixels,
                                   std::source_location where) {
  const float ratioX = static_cast<float>(inputSize.width) / static_cast<float>(image.cols);
  const float ratioY = static_cast<float>(inputSize.height) / static_cast<float>(image.rows);
  const float ratio = ratioX <= ratioY ? ratioX : ratioY;
  const cv::Size scaled(truncateToInt(static_cast<float>(image.cols) * ratio),
                        truncateToInt(static_cast<float>(image.rows) * ratio));
  if (scaled.width < 1 || scaled.height < 1) {
    logError("frame leaves no pixel in the network input," + sizeText(image.cols, image.rows),
             where);
    return std::nullopt;
  }
  cv::Mat canvas = pixels == nullptr ? cv::Mat(inputSize, image.type())
                                     : cv::Mat(inputSize, image.type(), pixels);
  canvas.setTo(cv::Scalar::all(0));
  cv::Mat corner = canvas(cv::Rect({0, 0}, scaled));
  cv::resize(image, corner, scaled, 0, 0, cv::INTER_NEAREST);
  // Deliberate: the longer side over the input's height, whichever side limited the scaling. So the
  // factor undoes the scaling for square inputs, and for others only where the height was the
  // limit.
  const float scale =
      static_cast<float>(std::max(image.cols, image.rows)) / static_cast<float>(inputSize.height);
  return Letterbox{canvas, scale};
}

void fillUnitPlanes(const cv::Mat& canvas, float* planes) {
  fillPlanes(canvas, unitTables(), kRedFirst, planes, canvas.cols);
}

cv::Size textInputSize(cv::Size frame, std::uint32_t limit) {
  const int longest = std::max(frame.width, frame.height);
  const float ratio = static_cast<std::uint32_t>(longest) > limit
                          ? static_cast<float>(limit) / static_cast<float>(longest)
                          : 1.0F;
  const auto side = [ratio](int length) {
    const int shrunk = truncateToInt(static_cast<float>(length) * ratio);
    return std::max((shrunk + 31) / 32 * 32, 32);
  };
  return {side(frame.width), side(frame.height)};
}

void fillTextPlanes(const cv::Mat& image, cv::Size size, float* planes) {
  cv::Mat resized;
  cv::resize(image, resized, size, 0, 0, cv::INTER_LINEAR);
  // Deliberate: the usual statistics of red, green and blue go to the channels as stored, blue
  // first.
  fillPlanes(resized, textDetectorTables(), kAsStored, planes, size.width);
}

void prepareTextLine(const cv::Mat& region, cv::Size size, float* planes) {
  const float width = std::ceil(static_cast<float>(size.height) * static_cast<float>(region.cols) /
                                static_cast<float>(region.rows));
  cv::Mat line;
  cv::resize(region, line, {std::min(truncateToInt(width), size.width), size.height}, 0, 0,
             cv::INTER_LINEAR);
  fillPlanes(line, textLineTables(), kAsStored, planes, size.width);
}

}  // namespace TolCompatibleLib
