// From the host's frame to the floats that a network takes.
//
// A byte of a picture becomes a float by a few arithmetic steps that depend on nothing but the byte
// and its channel. So the steps are done once for the 256 possible bytes, with OpenCV's own calls
// where those define the result, and the picture goes through the table straight into the planes of
// the network's input: same bits, one pass.
#pragma once

#include <chrono>
#include <cstdint>
#include <opencv2/core.hpp>
#include <optional>
#include <source_location>
#include <string>
#include <vector>

#include "TolCompatible.h"
#include "Utils/Request.h"

namespace TolCompatibleLib {

/// The pixels of an image frame, 8 bits a channel, blue-green-red, wrapped without copying. Nothing
/// for a frame of another kind (silently) and, after one "[E]" line, for a null frame, a frame
/// without pixels or one of more than 2^31 - 1 bytes.
std::optional<cv::Mat> imageOf(const VsaFrame* frame,
                               std::source_location where = std::source_location::current());

/// A picture scaled into the top-left corner of a black canvas.
struct Letterbox {
  cv::Mat canvas;  ///< Of the network's input size and the picture's type.
  float scale;     ///< Takes network pixels to frame pixels, along both axes.
};

/// The padding that an input holds since the last picture. An engine does not write to its input,
/// so for the next picture of the same size it is there already.
struct Padding {
  const void* input = nullptr;  ///< Whose. It must not have been given back since.
  cv::Size inputSize;
  cv::Size scaled;  ///< Of the picture that lies in it.
  bool operator==(const Padding&) const = default;
};

/// Scales `image` by nearest-neighbour sampling to fit `inputSize`, aspect ratio kept. The new
/// sides are truncated, the padding lies right or below. Nothing, after one "[E]" line, where no
/// pixel of the picture would be left. \param pixels memory for the canvas, or null for memory of
/// its own. \param held spares writing the padding that it tells, and is brought up to date.
std::optional<Letterbox> letterbox(const cv::Mat& image, cv::Size inputSize, void* pixels = nullptr,
                                   Padding* held = nullptr,
                                   std::source_location where = std::source_location::current());

/// letterbox, with the canvas written as three planes, red first, of values 0 to 1 and without
/// being made: the same bits as cv::dnn::blobFromImage gives of it. Returns the scale. \param
/// planes room for 3 * inputSize.area() floats. \param held as for letterbox.
std::optional<float> letterboxPlanes(const cv::Mat& image, cv::Size inputSize, float* planes,
                                     Padding* held = nullptr,
                                     std::source_location where = std::source_location::current());

/// Size that the text detector scales a frame to: each side rounded up to a multiple of 32 after
/// shrinking the frame so that its longer side is at most `limit`. Small frames are not enlarged.
cv::Size textInputSize(cv::Size frame, std::uint32_t limit);

/// Scales `image` (8-bit BGR) to `size` bilinearly and writes it as three planes in its own channel
/// order, blue first, normalised with the means 0.485, 0.456, 0.406 and the deviations 0.229,
/// 0.224, 0.225 in that order. \param planes room for 3 * size.area() floats.
void fillTextPlanes(const cv::Mat& image, cv::Size size, float* planes);

/// Scales one line of text (8-bit BGR) bilinearly to the height of `size`, to at most its width,
/// and writes it as three planes in its own channel order, values -1 to 1, with zeros to the right
/// of it. \param planes room for 3 * size.area() floats.
void PrepareTextLine(const cv::Mat& region, cv::Size size, float* planes);

/// The part of `image` inside the object's box, without copying. Throws cv::Exception where the box
/// leaves the picture.
cv::Mat regionOf(const cv::Mat& image, const VsaObject& object);

/// Scales `region` (8-bit BGR) bilinearly to `size` and writes it as three planes, red first,
/// normalised as the image classifier's networks expect it. \param planes room for 3 * size.area()
/// floats.
void fillClassifierPlanes(const cv::Mat& region, cv::Size size, float* planes);

/// Scales `region` (8-bit BGR) by nearest-neighbour sampling so that its longer side is as long as
/// the input is wide, puts it into the middle of a grey (114) input of `size` and writes that as
/// three planes, red first, normalised. Throws cv::Exception where the scaled region is higher than
/// the input or has no pixel. \param planes room for 3 * size.area() floats.
void FitToInputNormalized(const cv::Mat& region, cv::Size size, float* planes);

/// The same on a lighter grey (128) and without the normalisation: values 0 to 1.
void FitToInput(const cv::Mat& region, cv::Size size, float* planes);

/// Scales `region` (8-bit BGR) bilinearly to `size` and writes it as three planes, red first,
/// normalised with the ImageNet statistics folded into one product and one difference. \param
/// planes room for 3 * size.area() floats.
void PrepareOcrInput(const cv::Mat& region, cv::Size size, float* planes);

/// Appends the standard Base64 text (RFC 4648, with padding, without line breaks) of `count` bytes.
void Base64Encode(const std::uint8_t* bytes, std::size_t count, std::string& text);

/// The JSON text that asks the mel-spectrogram service about an audio frame. Its size must not be
/// negative, and its data not null where the size is not 0.
std::string spectrogramRequest(const VsaFrame& frame);

/// Rows of a spectrogram, one per mel band.
using MelSpectrogram = std::vector<std::vector<float>>;

/// The spectrogram in the service's reply; nothing where there is none, after one "[E]" line unless
/// the reply is no JSON. Throws Json::Exception for a reply nested deeper than jsoncpp reads.
std::optional<MelSpectrogram> spectrogramIn(const std::string& text);

/// Asks the mel-spectrogram service at `baseAddress` ("http://host:port") for the spectrogram of an
/// audio frame and appends its rows to `matrix`, whose rows need not be of one length. Returns 1,
/// or 0 with `matrix` as it was, after one "[E]" line (none for a frame of another kind and for a
/// reply that is no JSON). Throws nothing of the reply's making. \param limit for the whole
/// transfer.
int AudioToMelSpec(const std::string& baseAddress, const VsaFrame& frame, MelSpectrogram& matrix,
                   std::chrono::milliseconds limit = kRequestLimit);

}  // namespace TolCompatibleLib
