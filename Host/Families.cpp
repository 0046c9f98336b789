#include "Families.h"

#include <algorithm>

namespace vsa {
namespace {

const std::vector<std::string> kOpenVino = {"OpenVINO"};
const std::vector<std::string> kBoth = {"OpenVINO", "ONNXRuntime"};

}  // namespace

bool Family::isOn(const std::string& engine) const {
  return std::ranges::find(engines, engine) != engines.end();
}

bool Family::isYolo() const {
  return layout == OutputLayout::kColumns || layout == OutputLayout::kRows ||
         layout == OutputLayout::kEndToEnd;
}

const std::vector<Family>& families() {
  static const std::vector<Family> rows = {
      {.category = "Detect",
       .modelName = "YOLO8",
       .engines = kBoth,
       .layout = OutputLayout::kColumns,
       .outputText = "[1, 4 + classes, N]",
       .gives = Gives::kBoxes,
       .task = "detect",
       .fixedValues = 4,
       .preference = 1,
       .score = 0.25F,
       .nms = 0.45F},
      {.category = "Detect",
       .modelName = "YOLO5",
       .engines = kBoth,
       .layout = OutputLayout::kRows,
       .outputText = "[1, N, 5 + classes]",
       .gives = Gives::kBoxes,
       .task = "detect",
       .fixedValues = 5,
       .engineNote = "takes blue first on OpenVINO and red first on ONNX Runtime, so the scores of "
                     "coloured images differ",
       .score = 0.25F,
       .object = 0.25F,
       .nms = 0.45F},
      {.category = "Detect",
       .modelName = "YOLO26",
       .engines = kBoth,
       .layout = OutputLayout::kEndToEnd,
       .outputText = "[1, N, 6]",
       .gives = Gives::kBoxes,
       .task = "detect",
       .fixedValues = 6,
       .score = 0.25F},
      {.category = "Detect",
       .modelName = "YOLO8-OBB",
       .engines = kOpenVino,
       .layout = OutputLayout::kColumns,
       .outputText = "[1, 4 + classes + 1, N]",
       .gives = Gives::kBoxes,
       .task = "obb",
       .fixedValues = 5,
       .score = 0.25F,
       .nms = 0.45F},
      {.category = "Detect",
       .modelName = "YOLO8-POSE",
       .engines = kOpenVino,
       .layout = OutputLayout::kColumns,
       .outputText = "[1, 5 + 3 K, N] for K key points",
       .gives = Gives::kBoxes,
       .task = "pose",
       .fixedValues = 5,
       .valuesPerClass = 3,
       .keyPoints = 17,
       .onlyName = "person",
       .score = 0.25F,
       .nms = 0.45F},
      {.category = "Detect",
       .modelName = "YOLO8-Seg",
       .engines = kOpenVino,
       .layout = OutputLayout::kColumns,
       .outputText = "[1, 4 + classes + 32, N] with [1, 32, H, W]",
       .gives = Gives::kBoxes,
       .task = "segment",
       .fixedValues = 4 + 32,
       .hasMasks = true,
       .score = 0.25F,
       .nms = 0.45F},
      {.category = "Detect",
       .modelName = "PaddleOCR",
       .engines = kOpenVino,
       .layout = OutputLayout::kTextMap,
       .outputText = "[1, 1, H, W]",
       .gives = Gives::kTextRegions,
       .width = 960,
       .unsetWidth = 960,
       .onlyName = "text",
       .score = 0.6F},
      {.category = "Track",
       .modelName = "PaddleOCR",
       .engines = kOpenVino,
       .layout = OutputLayout::kTextLine,
       .outputText = "[1, T, classes]",
       .gives = Gives::kText,
       .needs = Needs::kTextRegions,
       .width = 640,
       .height = 48,
       .unsetWidth = 320,
       .unsetHeight = 48,
       .builtInNames = "paddleocr",
       .builtInClasses = 6625},
      {.category = "Track",
       .modelName = "VsOCR",
       .engines = kOpenVino,
       .layout = OutputLayout::kTextTable,
       .outputText = "a table of steps and classes",
       .gives = Gives::kText,
       .needs = Needs::kBoxes,
       .width = 128,
       .height = 32},
      {.category = "Track",
       .modelName = "DeepSort",
       .engines = kOpenVino,
       .layout = OutputLayout::kVector,
       .outputText = "a row of 256 numbers",
       .gives = Gives::kFeatures,
       .needs = Needs::kBoxes,
       .task = "classify",
       .width = 128,
       .height = 256,
       .featureLength = 256,
       .onlyName = "object"},
      {.category = "Track",
       .modelName = "VsFaceNet",
       .engines = kOpenVino,
       .layout = OutputLayout::kVector,
       .outputText = "a row of 128 numbers",
       .gives = Gives::kFeatures,
       .needs = Needs::kBoxes,
       .task = "classify",
       .width = 160,
       .height = 160,
       .featureLength = 128,
       .onlyName = "object"},
      {.category = "Classify",
       .modelName = "ResNet",
       .engines = kOpenVino,
       .layout = OutputLayout::kVector,
       .outputText = "a row of scores",
       .gives = Gives::kLabels,
       .needs = Needs::kBoxes,
       .task = "classify",
       .width = 224,
       .height = 224,
       .score = 0.5F},
      {.category = "Classify",
       .modelName = "AudioNet",
       .engines = kOpenVino,
       .layout = OutputLayout::kVector,
       .outputText = "a row of scores",
       .gives = Gives::kAudioClasses,
       .takes = Media::kAudio,
       .task = "classify",
       .width = 100,
       .height = 128,
       .score = 0.5F},
  };
  return rows;
}

const Family* findFamily(const std::string& category, const std::string& modelName) {
  const auto family = std::ranges::find_if(families(), [&](const Family& row) {
    return row.category == category && row.modelName == modelName;
  });
  return family == families().end() ? nullptr : &*family;
}

}  // namespace vsa
