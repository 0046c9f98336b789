// Reference versions of the steps before and after inference, as each step is defined: plain loops
// and one OpenCV call after the other. Tests compare results with the library's, benchmarks compare
// times.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "TolCompatible.h"
#include "Utils/MaskOutline.h"
#include "Utils/TextDecode.h"
#include "Utils/TextRegions.h"
#include "Utils/YoloDecode.h"

namespace reference {

using TolCompatibleLib::Candidates;
using TolCompatibleLib::FloatGrid;

/// An image in the top-left corner of a black canvas, and the factor from network to frame pixels.
/// The canvas is empty if scaling leaves no pixel of the image.
struct Letterboxed {
  cv::Mat canvas;
  float scale;
};
Letterboxed letterbox(const cv::Mat& image, cv::Size input);

/// [1, 3, H, W] floats of 0 to 1, red plane first.
cv::Mat unitBlob(const cv::Mat& canvas);

/// Candidates of three YOLO heads. Box values must fit an int.
Candidates decodeYolo5(FloatGrid rows, int classCount, float objThreshold, float scoreThreshold);
Candidates decodeYolo8(FloatGrid columns, int classCount, float scoreThreshold);
Candidates decodeYolo8Pose(FloatGrid columns, float scoreThreshold, float scale);

std::vector<VsaObject> decodeYolo26(FloatGrid rows, float scale, const VsaModelConfig& config,
                                    const VsaFrame& frame);

/// Non-maximum suppression, then the wanted candidates as objects of the frame.
std::vector<VsaObject> wantedObjects(const Candidates& candidates, float scale,
                                     const VsaModelConfig& config, const VsaFrame& frame);

/// The largest contour of an object's mask, in pixels of the network input; empty if there is none.
std::vector<cv::Point> maskOutline(const TolCompatibleLib::MaskPrototypes& prototypes,
                                   const TolCompatibleLib::MaskCoefficients& coefficients,
                                   const cv::Rect& box, cv::Size input);

/// Fill the inputs of the networks other than YOLO: three planes of `size` each.
void fillTextPlanes(const cv::Mat& image, cv::Size size, float* planes);
void prepareTextLine(const cv::Mat& region, cv::Size size, float* planes);
void fillClassifierPlanes(const cv::Mat& region, cv::Size size, float* planes);
void fitToInput(const cv::Mat& region, cv::Size size, float* planes);
void fitToInputNormalized(const cv::Mat& region, cv::Size size, float* planes);
void prepareOcrInput(const cv::Mat& region, cv::Size size, float* planes);

TolCompatibleLib::TextRegions extractTextBoxes(const TolCompatibleLib::TextBoxParams& params,
                                               const cv::Mat& map, cv::Size frame,
                                               cv::Size resized);

std::string ctcGreedyDecode(FloatGrid scores,
                            const TolCompatibleLib::CharacterDictionary& dictionary);

/// Scores are stored as [classes, steps] if `isClassMajor`, as [steps, classes] otherwise.
std::string decodeOcr(const float* scores, std::size_t steps, std::size_t classes,
                      bool isClassMajor, const std::vector<std::string>& alphabet);

/// Base64 character by character, padded with "=".
std::string base64(const std::uint8_t* bytes, std::size_t size);

/// The body of the request for the mel-spectrogram of an audio frame.
std::string spectrogramRequest(const VsaFrame& frame);

}  // namespace reference
