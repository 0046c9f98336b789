// A minimal host: a model with its records, images as frames, and objects as text.
#pragma once

#include <algorithm>
#include <bit>
#include <limits>
#include <opencv2/core.hpp>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "TolCompatible.h"

inline constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
inline constexpr float kInf = std::numeric_limits<float>::infinity();

/// A context with its configuration. The destructor releases the model.
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
  /// Calls the entry point of the model's category.
  bool run(VsaFrame* frame) {
    if (config.category == "Detect") return VsaModelDetect(&context, frame);
    return config.category == "Track" ? VsaModelFeature(&context, frame)
                                      : VsaModelClassify(&context, frame);
  }
  bool detect(VsaFrame& frame) { return VsaModelDetect(&context, &frame); }
  bool feature(VsaFrame& frame) { return VsaModelFeature(&context, &frame); }

  VsaModelConfig config;
  VsaModelContext context;
};

/// A frame with the pixels of `image`, which must be continuous and outlive the frame. `wanted`
/// becomes its wantedClasses.
inline VsaFrame frameOf(cv::Mat& image, std::set<std::string> wanted = {}) {
  VsaFrame frame;
  frame.data = image.data;
  frame.width = static_cast<std::uint32_t>(image.cols);
  frame.height = static_cast<std::uint32_t>(image.rows);
  frame.wantedClasses = std::move(wanted);
  return frame;
}

/// An image of random bytes that depend on the size and the seed only.
inline cv::Mat randomImage(int width, int height, std::uint64_t seed = 1) {
  cv::Mat image(height, width, CV_8UC3);
  cv::RNG(seed).fill(image, cv::RNG::UNIFORM, 0, 256);
  return image;
}

/// The bytes of every field that a run can set.
inline std::string bytesOf(const std::vector<VsaObject>& objects) {
  std::string bytes = std::to_string(objects.size());
  const auto put = [&](const auto&... value) {
    (bytes.append(reinterpret_cast<const char*>(&value), sizeof value), ...);
  };
  for (const VsaObject& o : objects) {
    put(o.imageWidth, o.imageHeight, o.left, o.top, o.right, o.bottom, o.cornerX2, o.cornerY2,
        o.cornerX3, o.cornerY3);
    put(o.angle, o.score, o.classId, o.classifyScore, o.classifyId, o.textId, o.textScore,
        o.feature.size());
    for (const auto* text : {&o.className, &o.classifyName, &o.text}) {
      put(text->size());
      bytes += *text;
    }
    for (const VsaShape& shape : o.shapes) {
      put(shape.tag, shape.points.size());
      for (const VsaPoint& point : shape.points) put(point.x, point.y);
    }
    for (const float number : o.feature) put(number);
  }
  return bytes;
}
/// The bytes of everything that a run can write.
inline std::string bytesOf(const VsaFrame& frame) {
  return std::to_string(frame.audioClassified) + " " +
         std::to_string(std::bit_cast<std::uint32_t>(frame.audioScore)) + " " +
         bytesOf(frame.objects) + bytesOf(frame.audioObjects);
}

/// Whether both hold the same floats, bit for bit: a NaN equals itself, and 0 is not -0.
inline bool haveSameBits(const std::vector<float>& a, const std::vector<float>& b) {
  const auto bits = std::bit_cast<std::uint32_t, float>;
  return std::ranges::equal(a, b, {}, bits, bits);
}

/// An object with the given box, even if it is outside the frame.
inline VsaObject boxObject(int left, int top, int right, int bottom, const std::string& name = "") {
  VsaObject object(1, 1, 0, 0, 1, 1, 0.5F, 3, name);
  object.left = left;
  object.top = top;
  object.right = right;
  object.bottom = bottom;
  return object;
}

/// "car 0 0.5: 1,2 3,4 of 640x480", followed by the other fields that are set.
inline std::string describe(const VsaObject& o) {
  std::ostringstream text;
  text << o.className << ' ' << o.classId << ' ' << o.score << ": " << o.left << ',' << o.top << ' '
       << o.right << ',' << o.bottom << " of " << o.imageWidth << 'x' << o.imageHeight;
  if (o.cornerX2 != -1 || o.cornerY2 != -1 || o.cornerX3 != -1 || o.cornerY3 != -1) {
    text << " corners " << o.cornerX2 << ',' << o.cornerY2 << ' ' << o.cornerX3 << ','
         << o.cornerY3;
  }
  if (o.angle != -1.0F) text << " angle " << o.angle;
  if (o.classifyId != -1)
    text << " classified " << o.classifyName << ' ' << o.classifyId << ' ' << o.classifyScore;
  if (o.textId != -1) text << " text " << o.text << ' ' << o.textId << ' ' << o.textScore;
  for (const VsaShape& shape : o.shapes) {
    text << " shape " << shape.tag << ':';
    for (const VsaPoint& point : shape.points) text << ' ' << point.x << ',' << point.y;
  }
  return text.str();
}
inline std::vector<std::string> describe(const std::vector<VsaObject>& objects) {
  std::vector<std::string> texts;
  texts.reserve(objects.size());
  for (const VsaObject& object : objects) texts.push_back(describe(object));
  return texts;
}
