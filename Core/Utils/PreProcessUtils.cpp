#include "Utils/PreProcessUtils.h"

#include <json/json.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <new>
#include <opencv2/imgproc.hpp>
#include <string_view>
#include <utility>

#include "Utils/ByteTables.h"
#include "Utils/Log.h"
#include "Utils/Numbers.h"
#include "Utils/PlaneWriter.h"

namespace TolCompatibleLib {
namespace {

constexpr int kMaxInt = std::numeric_limits<int>::max();

std::string sizeText(std::int64_t width, std::int64_t height) {
  return "width=" + std::to_string(width) + ",height=" + std::to_string(height);
}

/// How an image fits into a network's input.
struct Fit {
  cv::Size scaled;  ///< Its size after scaling, aspect ratio kept.
  float scale;      ///< Network pixels times `scale` are frame pixels.
};

std::optional<Fit> fitInto(cv::Size frame, cv::Size input, const std::source_location& where) {
  const float ratioX = static_cast<float>(input.width) / static_cast<float>(frame.width);
  const float ratioY = static_cast<float>(input.height) / static_cast<float>(frame.height);
  const float ratio = ratioX <= ratioY ? ratioX : ratioY;
  // For sides of 2^23 pixels or more, rounding may make the product larger than the input.
  const cv::Size scaled(
      std::min(truncateToInt(static_cast<float>(frame.width) * ratio), input.width),
      std::min(truncateToInt(static_cast<float>(frame.height) * ratio), input.height));
  if (scaled.width < 1 || scaled.height < 1) {
    logError("frame leaves no pixel in the network input," + sizeText(frame.width, frame.height) +
                 ",input_width=" + std::to_string(input.width) +
                 ",input_height=" + std::to_string(input.height),
             where);
    return std::nullopt;
  }
  const int longerSide = std::max(frame.width, frame.height);
  if (longerSide > kMaxSampledLength) {
    logError("frame is too large," + sizeText(frame.width, frame.height), where);
    return std::nullopt;
  }
  // Deliberate: the longer side divided by the input's height, whichever side limited the scaling.
  // So the factor undoes the scaling for square inputs; for others only if the height was the limit
  // and is the longer side.
  return Fit{scaled, static_cast<float>(longerSide) / static_cast<float>(input.height)};
}

/// Writes `region`, scaled to the width of the input and centred on a background, as three planes.
void fillFittedPlanes(const cv::Mat& region, cv::Size size, const ByteTables& tables,
                      std::uint8_t background, float* planes) {
  // A region that is empty, before or after scaling, cannot be resized.
  CV_Assert(!region.empty());
  fetch(region);
  // Deliberate: the scale depends on the input's width only, so the scaled region can be higher
  // than the input; the border is negative then.
  const float scale =
      static_cast<float>(size.width) / static_cast<float>(std::max(region.cols, region.rows));
  const cv::Size scaled(truncateToInt(std::round(static_cast<float>(region.cols) * scale)),
                        truncateToInt(std::round(static_cast<float>(region.rows) * scale)));
  const cv::Size border = size - scaled;
  CV_Assert(!scaled.empty() && border.width >= 0 && border.height >= 0);
  const Sampling sampling(region.size(), scaled, {border.width / 2, border.height / 2});
  sampling.writePlanes(region, size, tables, background, planes);
}

/// Writes `region`, stretched bilinearly to `size`, as three planes.
void fillStretchedPlanes(const cv::Mat& region, cv::Size size, PlaneOrder order,
                         const ByteTables& tables, float* planes) {
  cv::Mat resized;
  cv::resize(region, resized, size, 0, 0, cv::INTER_LINEAR);
  writePlanes(resized, order, tables, planes, size.width);
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
  if (frame->width == 0 || frame->height == 0) {
    logError("frame has no pixels," + sizeText(frame->width, frame->height), where);
    return std::nullopt;
  }
  // OpenCV counts rows, and the bytes of a row, in ints.
  if (frame->width > kMaxInt / 3 || frame->height > kMaxInt) {
    logError("frame is too large," + sizeText(frame->width, frame->height), where);
    return std::nullopt;
  }
  return cv::Mat(static_cast<int>(frame->height), static_cast<int>(frame->width), CV_8UC3,
                 frame->data);
}

std::optional<Letterbox> letterbox(const cv::Mat& image, cv::Size inputSize,
                                   std::source_location where) {
  cv::Mat canvas(inputSize, CV_8UC3);
  const std::optional<float> scale =
      LetterboxWriter().writePixels(image, inputSize, canvas.data, where);
  if (!scale) return std::nullopt;
  return Letterbox{canvas, *scale};
}

std::optional<float> LetterboxWriter::writePlanes(const cv::Mat& image, cv::Size inputSize,
                                                  float* planes, std::source_location where) {
  const Padding held = std::exchange(padding_, {});
  const std::optional<Fit> fit = fitInto(image.size(), inputSize, where);
  if (!fit) return std::nullopt;
  const Padding padding{planes, inputSize, fit->scaled};
  const std::optional<std::uint8_t> background =
      held == padding ? std::nullopt : std::optional<std::uint8_t>(0);
  samplingOf(image.size(), fit->scaled)
      .writePlanes(image, inputSize, unitTables(), background, planes);
  padding_ = padding;
  return fit->scale;
}

std::optional<float> LetterboxWriter::writePixels(const cv::Mat& image, cv::Size inputSize,
                                                  std::uint8_t* pixels,
                                                  std::source_location where) {
  const Padding held = std::exchange(padding_, {});
  const std::optional<Fit> fit = fitInto(image.size(), inputSize, where);
  if (!fit) return std::nullopt;
  const Padding padding{pixels, inputSize, fit->scaled};
  samplingOf(image.size(), fit->scaled).writePixels(image, inputSize, held != padding, pixels);
  padding_ = padding;
  return fit->scale;
}

const Sampling& LetterboxWriter::samplingOf(cv::Size image, cv::Size scaled) {
  if (!sampling_ || !sampling_->isFor(image, scaled)) sampling_.emplace(image, scaled);
  return *sampling_;
}

cv::Size textInputSize(cv::Size frame, std::uint32_t limit) {
  const int longerSide = std::max(frame.width, frame.height);
  const float ratio = static_cast<std::uint32_t>(longerSide) > limit
                          ? static_cast<float>(limit) / static_cast<float>(longerSide)
                          : 1.0F;
  const auto roundedUp = [ratio](int length) {
    const int shrunk = truncateToInt(static_cast<float>(length) * ratio);
    return std::max((std::min(shrunk, kMaxInt - 31) + 31) / 32 * 32, 32);
  };
  return {roundedUp(frame.width), roundedUp(frame.height)};
}

void fillTextPlanes(const cv::Mat& image, cv::Size size, float* planes) {
  // Deliberate: the usual statistics of red, green and blue are applied to the channels as stored,
  // blue first.
  fillStretchedPlanes(image, size, PlaneOrder::kAsStored, textDetectorTables(), planes);
}

void PrepareTextLine(const cv::Mat& region, cv::Size size, float* planes) {
  fetch(region);
  const float width = std::ceil(static_cast<float>(size.height) * static_cast<float>(region.cols) /
                                static_cast<float>(region.rows));
  cv::Mat line;
  cv::resize(region, line, {std::min(truncateToInt(width), size.width), size.height}, 0, 0,
             cv::INTER_LINEAR);
  writePlanes(line, PlaneOrder::kAsStored, textLineTables(), planes, size.width);
}

cv::Mat regionOf(const cv::Mat& image, int left, int top, int right, int bottom) {
  // OpenCV rejects a region outside the image, but adds offset and length without checking for
  // overflow. A length that does not fit an int is clamped to the largest int, which is outside the
  // image as well.
  const auto length = [](int from, int to) {
    return static_cast<int>(
        std::clamp(std::int64_t{to} - from, std::int64_t{-1}, std::int64_t{kMaxInt}));
  };
  return image(cv::Rect(left, top, length(left, right), length(top, bottom)));
}

void fillClassifierPlanes(const cv::Mat& region, cv::Size size, float* planes) {
  fetch(region);
  fillStretchedPlanes(region, size, PlaneOrder::kRedFirst, classifierTables(), planes);
}

void FitToInputNormalized(const cv::Mat& region, cv::Size size, float* planes) {
  fillFittedPlanes(region, size, fittedNormalizedTables(), 114, planes);
}

void FitToInput(const cv::Mat& region, cv::Size size, float* planes) {
  fillFittedPlanes(region, size, fittedTables(), 128, planes);
}

void PrepareOcrInput(const cv::Mat& region, cv::Size size, float* planes) {
  fetch(region);
  fillStretchedPlanes(region, size, PlaneOrder::kRedFirst, ocrTables(), planes);
}

int AudioToMelSpec(const std::string& baseAddress, const VsaFrame& frame, MelSpectrogram& matrix,
                   std::chrono::milliseconds limit) {
  if (frame.kind != kVsaAudioFrame) return 0;
  if (frame.audioFrameSize < 0 || (frame.audioFrameSize > 0 && frame.audioData == nullptr)) {
    logError("audio block has no data,audio_frame_size=" + std::to_string(frame.audioFrameSize));
    return 0;
  }
  std::string reply;
  if (!PostJson(baseAddress + "/api/audioToMelSpec", spectrogramRequest(frame), reply, limit)) {
    return 0;
  }
  // A reply must not make the library throw.
  const auto logMemory = [&reply] {
    logError("reply takes too much memory,bytes=" + std::to_string(reply.size()));
  };
  try {
    std::optional<MelSpectrogram> rows = parseSpectrogram(reply);
    if (!rows) return 0;
    matrix.insert(matrix.end(), std::make_move_iterator(rows->begin()),
                  std::make_move_iterator(rows->end()));
    return 1;
  } catch (const Json::Exception& error) {
    // jsoncpp throws this if the reply is nested deeper than it reads, which counts as a reply that
    // is not JSON, and if it cannot allocate a string.
    if (!std::string_view(error.what()).starts_with("Exceeded stackLimit")) logMemory();
  } catch (const std::bad_alloc&) {
    logMemory();
  }
  return 0;
}

}  // namespace TolCompatibleLib
