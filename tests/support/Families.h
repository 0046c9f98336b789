// The rows of the library's model table, each with the shapes of a tiny network. Tests, fuzzing,
// long checks and the measurement of memory take their rows from here.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

/// What a model runs on.
enum class Takes { kFrame, kObjects, kAudio };

struct Family {
  std::string engine, category, name;  ///< As in VsaModelConfig.
  Takes takes;
  cv::Size input;  ///< Input size of the tiny network; -1 x -1 if it takes any size.
  /// Output shapes of the tiny network. If there are none, its output is a map of the size of its
  /// input.
  std::vector<std::vector<int>> outputs;
  std::string onnxFile = "";  ///< Written by make_onnx.py; only for rows on ONNX Runtime.
  std::vector<std::string> classNames = {"a", "b"};
};

/// All rows; those on OpenVINO come first. Stored fuzz inputs choose a row on OpenVINO by its
/// index.
const std::vector<Family>& families();

/// The rows of one engine, in the same order.
std::vector<Family> familiesOn(const std::string& engine);

/// The row with these three names. Throws std::out_of_range if there is none.
const Family& findFamily(const std::string& engine, const std::string& category,
                         const std::string& name);

/// "OpenVINO Detect YOLO8".
std::string titleOf(const Family& family);
