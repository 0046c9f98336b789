// Networks, outputs of networks and clocks that the benchmark programs share. The same on every
// run.
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

/// YOLOv8n at kSide x kSide with random weights (make_yolo.py), with its [1, 4 + kClasses,
/// kCandidates] output and nothing above a threshold of 0.25: files with ".xml" and ".onnx" after
/// this.
constexpr const char* kYolo = TOL_YOLO_NETWORK;

/// A plain convolutional network: a stem, four stages of 3 x 3 convolutions that halve the picture
/// and double the channels, a mean over the picture and a full layer.
struct PlainNetwork {
  cv::Size input;
  std::size_t channels;  ///< Of the first stage.
  int depth;             ///< Convolutions of a stage.
  std::vector<int> output;
};
std::string writePlainNetwork(const PlainNetwork& network);

/// [1, 4 + classes + further, candidates] of a YOLOv8 head with about `count` candidates above
/// 0.25, anywhere in it.
std::vector<float> yolo8Output(int classes, int further, int candidates, int count);
/// [1, 25200, 85] of a YOLOv5 head.
constexpr int kYolo5Rows = 25200;
std::vector<float> yolo5Output(int count);
/// [1, 56, 8400] of a pose head of 17 key points.
std::vector<float> poseOutput(int count);
/// [1, 300, 6] of a YOLO26 head.
std::vector<float> yolo26Output(int count);

/// Mask prototypes of 160 x 160 and so many objects with boxes of `least` to `most` pixels.
constexpr int kMaskSide = 160;
struct Masks {
  std::vector<float> prototypes;
  std::vector<cv::Rect> boxes;
  std::vector<TolCompatibleLib::MaskCoefficients> coefficients;

  TolCompatibleLib::MaskPrototypes planes() const {
    return {prototypes.data(), {kMaskSide, kMaskSide}};
  }
};
Masks randomMasks(int count, int least, int most);

/// A 960 x 544 map of text probabilities with so many lines of text, at most 50.
cv::Mat textMap(int count);

/// How long `work` takes.
double milliseconds(const std::function<void()>& work);
double medianOf(std::vector<double> values);
