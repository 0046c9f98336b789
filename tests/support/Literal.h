// Every step round the engine in the plainest way: OpenCV's calls one after the other and loops over everything, as the
// step is defined. What the library's versions are measured against, for their results and for their time.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "Utils/MaskOutline.h"
#include "Utils/TextDecode.h"
#include "Utils/TextRegions.h"
#include "Utils/YoloDecode.h"

namespace literal {

using TolCompatibleLib::Candidates;
using TolCompatibleLib::FloatGrid;

/// A picture in the corner of a black canvas, and the factor from network to frame pixels. The canvas is empty where no
/// pixel of the picture would be left.
struct Boxed {
  cv::Mat canvas;
  float scale;
};
Boxed letterbox(const cv::Mat& image, cv::Size input);

/// [1, 3, H, W] floats of 0 to 1, red first.
cv::Mat unitBlob(const cv::Mat& canvas);

/// Candidates of the three heads; boxes that no integer holds are not provided for.
Candidates decodeYolo5(FloatGrid rows, int classCount, float objThreshold, float scoreThreshold);
Candidates decodeYolo8(FloatGrid columns, int classCount, float scoreThreshold);
Candidates decodeYolo8Pose(FloatGrid columns, float scoreThreshold, float scale);

std::vector<VsaObject> decodeYolo26(FloatGrid rows, float scale, const VsaModelConfig& config, const VsaFrame& frame);

/// Suppression, and the wanted candidates left as objects of the frame.
std::vector<VsaObject> objectsOf(const Candidates& found, float scale, const VsaModelConfig& config,
                                 const VsaFrame& frame);
std::vector<cv::Point> maskOutline(const TolCompatibleLib::MaskPrototypes& prototypes,
                                   const TolCompatibleLib::MaskCoefficients& coefficients, const cv::Rect& box,
                                   cv::Size input);

/// What each network but a YOLO one is shown, as three planes of `size`.
void fillTextPlanes(const cv::Mat& image, cv::Size size, float* planes);
void prepareTextLine(const cv::Mat& region, cv::Size size, float* planes);
void fillClassifierPlanes(const cv::Mat& region, cv::Size size, float* planes);
void fitToInput(const cv::Mat& region, cv::Size size, float* planes);
void fitToInputNormalized(const cv::Mat& region, cv::Size size, float* planes);
void prepareOcrInput(const cv::Mat& region, cv::Size size, float* planes);

TolCompatibleLib::TextRegions extractTextBoxes(const TolCompatibleLib::TextBoxParams& params, const cv::Mat& map,
                                               cv::Size frame, cv::Size resized);

std::string ctcGreedyDecode(FloatGrid scores, const TolCompatibleLib::CharacterDictionary& dictionary);
/// \param byClass whether the scores lie class by class or step by step.
std::string decodeOcr(const float* scores, std::size_t steps, std::size_t classes, bool byClass,
                      const std::vector<std::string>& alphabet);

}  // namespace literal
