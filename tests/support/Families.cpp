#include "support/Families.h"

#include <stdexcept>

const std::vector<Family>& families() {
  static const std::vector<Family> kFamilies = [] {
    const std::string ov = "OpenVINO";
    const std::string ort = "ONNXRuntime";
    return std::vector<Family>{
        {ov, "Detect", "YOLO8-OBB", Takes::kFrame, {8, 7}, {{1, 7, 24}}},
        {ov, "Detect", "YOLO8-POSE", Takes::kFrame, {4, 11}, {{1, 11, 12}}},
        {ov, "Detect", "YOLO8-Seg", Takes::kFrame, {16, 16}, {{1, 38, 20}, {1, 32, 4, 4}}},
        {ov, "Detect", "YOLO8", Takes::kFrame, {8, 6}, {{1, 6, 24}}},
        {ov, "Detect", "YOLO5", Takes::kFrame, {8, 7}, {{1, 24, 7}}},
        {ov, "Detect", "YOLO26", Takes::kFrame, {8, 6}, {{1, 24, 6}}},
        {ov, "Detect", "PaddleOCR", Takes::kFrame, {-1, -1}, {}},
        {ov, "Classify", "ResNet", Takes::kObjects, {6, 6}, {{1, 108}}},
        {ov, "Classify", "AudioNet", Takes::kAudio, {2, 2}, {{1, 12}}},
        {ov, "Track", "DeepSort", Takes::kObjects, {10, 10}, {{1, 300}}},
        {ov, "Track", "VsFaceNet", Takes::kObjects, {8, 8}, {{1, 192}}},
        {ov, "Track", "PaddleOCR", Takes::kObjects, {8, 8}, {{1, 12, 16}}},
        {ov, "Track", "VsOCR", Takes::kObjects, {8, 8}, {{1, 16, 12}}},
        {ort, "Detect", "YOLO5", Takes::kFrame, {64, 64}, {{1, 3, 7}}, "yolo5.onnx"},
        {ort, "Detect", "YOLO8", Takes::kFrame, {64, 64}, {{1, 6, 3}}, "yolo8.onnx"},
        {ort, "Detect", "YOLO26", Takes::kFrame, {64, 64}, {{1, 4, 6}}, "yolo26.onnx"},
    };
  }();
  return kFamilies;
}

std::vector<Family> familiesOn(const std::string& engine) {
  std::vector<Family> found;
  for (const Family& family : families()) {
    if (family.engine == engine) found.push_back(family);
  }
  return found;
}

const Family& findFamily(const std::string& engine, const std::string& category,
                         const std::string& name) {
  for (const Family& family : families()) {
    if (family.engine == engine && family.category == category && family.name == name)
      return family;
  }
  throw std::out_of_range("no family " + engine + " " + category + " " + name);
}

std::string titleOf(const Family& family) {
  return family.engine + " " + family.category + " " + family.name;
}
