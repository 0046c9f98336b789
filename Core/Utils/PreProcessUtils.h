// From the host's frame to the input of a network.
#pragma once

#include <chrono>
#include <cstdint>
#include <opencv2/core.hpp>
#include <optional>
#include <source_location>
#include <string>

#include "TolCompatible.h"
#include "Utils/MelService.h"
#include "Utils/PlaneWriter.h"
#include "Utils/Request.h"

namespace TolCompatibleLib {

/// The pixels of an image frame, 8 bits a channel, blue-green-red, wrapped without copying. Returns
/// nullopt for a frame of another kind (silently) and, after one "[E]" line, for a null frame, a
/// frame without pixels, and a frame with more than 2^31 - 1 rows or bytes per row.
std::optional<cv::Mat> imageOf(const VsaFrame* frame,
                               std::source_location where = std::source_location::current());

/// An image scaled into the top-left corner of a black canvas.
struct Letterbox {
  cv::Mat canvas;  ///< Of the network's input size, 8 bits a channel, blue-green-red.
  float scale;     ///< Network pixels times `scale` are frame pixels, along both axes.
};

/// Scales `image` (8-bit BGR) by nearest-neighbour sampling to fit `inputSize`, aspect ratio kept.
/// The scaled sides are truncated to whole pixels; the padding is on the right or at the bottom.
/// Returns nullopt, after one "[E]" line, if the scaled image has no pixel, and for images with a
/// side longer than kMaxSampledLength.
std::optional<Letterbox> letterbox(const cv::Mat& image, cv::Size inputSize,
                                   std::source_location where = std::source_location::current());

/// Writes letterboxed images into the memory of a network's input. If the input already contains
/// the padding of an image of the same size, the padding is not written again, which saves a
/// quarter of the pre-processing time: an engine does not write to its input. After a call that
/// fails or throws, the next call writes the padding. The positions of the sampled pixels are kept
/// for images of the same size, which saves a tenth of that time.
class LetterboxWriter {
 public:
  /// Writes the canvas of letterbox() as three planes, red first, with values 0 to 1, bit-identical
  /// to the result of cv::dnn::blobFromImage. Returns the scale, or nullopt as letterbox() does.
  /// @param planes 3 * inputSize.area() floats. If they are freed, no later call may be given the
  ///   same address.
  std::optional<float> writePlanes(const cv::Mat& image, cv::Size inputSize, float* planes,
                                   std::source_location where = std::source_location::current());

  /// Writes the canvas itself, three bytes per pixel; otherwise like writePlanes().
  /// @param pixels 3 * inputSize.area() bytes.
  std::optional<float> writePixels(const cv::Mat& image, cv::Size inputSize, std::uint8_t* pixels,
                                   std::source_location where = std::source_location::current());

 private:
  /// The input that contains the padding, its size, and the size of the image inside the padding.
  struct Padding {
    const void* input = nullptr;
    cv::Size inputSize;
    cv::Size scaled;
    bool operator==(const Padding&) const = default;
  };
  /// The sampling of images of size `image` to `scaled`; made again only if one of them changes.
  const Sampling& samplingOf(cv::Size image, cv::Size scaled);

  Padding padding_;
  std::optional<Sampling> sampling_;
};

/// Size to which the text detector scales a frame: each side rounded up to a multiple of 32 after
/// shrinking the frame so that its longer side is at most `limit`. The frame is not enlarged
/// otherwise.
cv::Size textInputSize(cv::Size frame, std::uint32_t limit);

/// Scales `image` (8-bit BGR) bilinearly to `size` and writes it as three planes in its own channel
/// order, blue first, normalised with the means 0.485, 0.456, 0.406 and the deviations 0.229,
/// 0.224, 0.225 in that order. @param planes 3 * size.area() floats.
void fillTextPlanes(const cv::Mat& image, cv::Size size, float* planes);

/// Scales one line of text (8-bit BGR) bilinearly to the height of `size`, to at most its width,
/// and writes it as three planes in its own channel order, values -1 to 1, with zeros to the right
/// of it. @param planes 3 * size.area() floats.
void PrepareTextLine(const cv::Mat& region, cv::Size size, float* planes);

/// The part of `image` inside the rectangle from (left, top) to (right, bottom), the latter
/// excluded, without copying. Throws cv::Exception if the rectangle extends beyond the image or has
/// a negative side.
cv::Mat regionOf(const cv::Mat& image, int left, int top, int right, int bottom);

/// The part of `image` inside the object's box.
inline cv::Mat regionOf(const cv::Mat& image, const VsaObject& object) {
  return regionOf(image, object.left, object.top, object.right, object.bottom);
}

/// Scales `region` (8-bit BGR) bilinearly to `size` and writes it as three planes, red first,
/// normalised as the image classifier's networks expect it. @param planes 3 * size.area() floats.
void fillClassifierPlanes(const cv::Mat& region, cv::Size size, float* planes);

/// Scales `region` (8-bit BGR) by nearest-neighbour sampling so that its longer side equals the
/// width of the input, centres it on a grey (114) canvas of `size` and writes that as three planes,
/// red first, normalised. Throws cv::Exception if the scaled region is higher than the input or has
/// no pixel. @param planes 3 * size.area() floats.
void FitToInputNormalized(const cv::Mat& region, cv::Size size, float* planes);

/// Like FitToInputNormalized, on a lighter grey (128) and without the normalisation: values 0 to 1.
void FitToInput(const cv::Mat& region, cv::Size size, float* planes);

/// Scales `region` (8-bit BGR) bilinearly to `size` and writes it as three planes, red first,
/// normalised with the ImageNet statistics (ocrTables).
/// @param planes 3 * size.area() floats.
void PrepareOcrInput(const cv::Mat& region, cv::Size size, float* planes);

/// Requests the spectrogram of an audio frame from the mel-spectrogram service at `baseAddress`
/// ("http://host:port") and appends its rows, which may differ in length, to `matrix`. Returns 1 on
/// success. Otherwise returns 0 after one "[E]" line (none for a frame of another kind and for a
/// reply that is not JSON) and does not change `matrix`. No reply makes it throw.
/// @param limit for the whole transfer.
int AudioToMelSpec(const std::string& baseAddress, const VsaFrame& frame, MelSpectrogram& matrix,
                   std::chrono::milliseconds limit = kRequestLimit);

}  // namespace TolCompatibleLib
