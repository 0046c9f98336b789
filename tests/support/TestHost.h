// A host in a few lines: a model with its records, and pictures as frames.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <utility>
#include <vector>

#include "TolCompatible.h"

/// A context with its configuration; released at the end.
struct TestModel {
  TestModel(const std::string& category, const std::string& modelName, const std::string& path) {
    context.version = kVsaInterfaceVersion;
    context.config = &config;
    context.modelRoot = path;
    config.engine = "OpenVINO";
    config.category = category;
    config.modelName = modelName;
    config.device = "CPU";
    config.scoreThreshold = 0.25F;
    config.nmsThreshold = 0.5F;
  }
  ~TestModel() { VsaModelRelease(&context); }
  TestModel(const TestModel&) = delete;
  TestModel& operator=(const TestModel&) = delete;

  void setInput(std::uint32_t width, std::uint32_t height) {
    config.inputWidth = width;
    config.inputHeight = height;
  }
  void setClasses(std::vector<std::string> names) {
    config.classCount = static_cast<std::uint32_t>(names.size());
    config.classNames = std::move(names);
  }
  bool init() { return VsaModelInit(&context); }
  bool detect(VsaFrame& frame) { return VsaModelDetect(&context, &frame); }
  bool feature(VsaFrame& frame) { return VsaModelFeature(&context, &frame); }

  VsaModelConfig config;
  VsaModelContext context;
};

/// A frame over `image`, which must be continuous and outlive it, that wants the classes `wanted`.
inline VsaFrame frameOf(cv::Mat& image, std::set<std::string> wanted = {}) {
  VsaFrame frame;
  frame.data = image.data;
  frame.width = static_cast<std::uint32_t>(image.cols);
  frame.height = static_cast<std::uint32_t>(image.rows);
  frame.wantedClasses = std::move(wanted);
  return frame;
}

/// A picture of random bytes, the same for the same seed.
inline cv::Mat randomImage(int width, int height, std::uint64_t seed = 1) {
  cv::Mat image(height, width, CV_8UC3);
  cv::RNG(seed).fill(image, cv::RNG::UNIFORM, 0, 256);
  return image;
}

/// left, top, right, bottom
inline std::vector<int> boxOf(const VsaObject& object) {
  return {object.left, object.top, object.right, object.bottom};
}
