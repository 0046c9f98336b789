// Networks and network outputs for the measurements, with random numbers that are the same in every
// run, and functions that measure time.
#pragma once

#include <functional>
#include <opencv2/core.hpp>
#include <openvino/openvino.hpp>
#include <string>
#include <vector>

#include "Utils/MaskOutline.h"

constexpr int kSide = 640;
constexpr int kCandidates = 8400;
constexpr int kClasses = 80;

/// Path, without ".xml" or ".onnx", of YOLOv8n at kSide x kSide with random weights (make_yolo.py).
/// Its output is [1, 4 + kClasses, kCandidates], with no score above 0.25.
constexpr const char* kYolo = TOL_YOLO_NETWORK;

/// A plain convolutional network: a stem, four stages of 3 x 3 convolutions, each of which halves
/// the size and doubles the channels of the one before, global average pooling and a fully
/// connected layer.
struct PlainNetwork {
  cv::Size input;
  std::size_t channels;  ///< Channels of the first stage.
  int depth;             ///< Convolutions per stage.
  std::vector<int> output;
};
std::string writePlainNetwork(const PlainNetwork& network);

/// Outputs of YOLO heads in which about `count` candidates, at random positions, score above 0.25.
/// YOLOv8: [1, 4 + classes + extraRows, candidates].
std::vector<float> makeYolo8Output(int classes, int extraRows, int candidates, int count);
/// YOLOv5: [1, kYolo5Rows, 85].
constexpr int kYolo5Rows = 25200;
std::vector<float> makeYolo5Output(int count);
/// YOLOv8 pose with 17 key points: [1, 56, 8400].
std::vector<float> makePoseOutput(int count);
/// YOLO26: [1, 300, 6].
std::vector<float> makeYolo26Output(int count);

/// Mask prototypes of kMaskSide x kMaskSide, and the boxes and coefficients of objects.
constexpr int kMaskSide = 160;
struct Masks {
  std::vector<float> prototypes;
  std::vector<cv::Rect> boxes;
  std::vector<TolCompatibleLib::MaskCoefficients> coefficients;

  TolCompatibleLib::MaskPrototypes planes() const {
    return {prototypes.data(), {kMaskSide, kMaskSide}};
  }
};
/// The sides of the boxes are `minSide` to `maxSide` pixels.
Masks randomMasks(int count, int minSide, int maxSide);

/// A 960 x 544 map of text probabilities with `count` lines of text, at most 50.
cv::Mat makeTextMap(int count);

/// Fills the input of a request with random numbers. Memory that was never written is mapped to a
/// single page of zeros, which is read faster than any image.
void fillInput(ov::InferRequest& request);

/// The time that `work` takes.
double milliseconds(const std::function<void()>& work);
