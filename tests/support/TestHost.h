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
  /// The call of the model's category.
  bool run(VsaFrame* frame) {
    if (config.category == "Detect") return VsaModelDetect(&context, frame);
    return config.category == "Track" ? VsaModelFeature(&context, frame) : VsaModelClassify(&context, frame);
  }
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

/// All that a run may have written, byte for byte.
inline std::string bytesOf(const VsaFrame& frame) {
  std::string bytes;
  const auto put = [&](const auto&... value) {
    (bytes.append(reinterpret_cast<const char*>(&value), sizeof value), ...);
  };
  put(frame.audioClassified, frame.audioScore);
  for (const auto* list : {&frame.objects, &frame.audioObjects}) {
    put(list->size());
    for (const VsaObject& o : *list) {
      put(o.imageWidth, o.imageHeight, o.left, o.top, o.right, o.bottom, o.cornerX2, o.cornerY2, o.cornerX3,
          o.cornerY3);
      put(o.angle, o.score, o.classId, o.classifyScore, o.classifyId, o.textId, o.textScore, o.feature.size());
      for (const auto* text : {&o.className, &o.classifyName, &o.text}) put(text->size()), bytes += *text;
      for (const VsaShape& shape : o.shapes) {
        put(shape.tag, shape.points.size());
        for (const VsaPoint& point : shape.points) put(point.x, point.y);
      }
      for (const float number : o.feature) put(number);
    }
  }
  return bytes;
}

/// An object whose box is as given, off the frame or not.
inline VsaObject boxObject(int left, int top, int right, int bottom, const std::string& name = "") {
  VsaObject object(1, 1, 0, 0, 1, 1, 0.5F, 3, name);
  object.left = left, object.top = top, object.right = right, object.bottom = bottom;
  return object;
}

/// left, top, right, bottom
inline std::vector<int> boxOf(const VsaObject& object) {
  return {object.left, object.top, object.right, object.bottom};
}
using Boxes = std::vector<std::vector<int>>;
inline Boxes boxesOf(const VsaFrame& frame) {
  Boxes boxes;
  for (const VsaObject& object : frame.objects) boxes.push_back(boxOf(object));
  return boxes;
}
