#include "support/Families.h"

#include <cmath>
#include <openvino/opsets/opset8.hpp>

#include "support/TinyNetworks.h"

const std::vector<float>& numberTable() {
  static const std::vector<float> table = [] {
    std::vector<float> made{0.0F,          -0.0F,          NAN,           -NAN,           INFINITY, -INFINITY,
                            3.4028235e38F, -3.4028235e38F, 2147483648.0F, -2147483904.0F, 1e-45F,   1e-38F,
                            1e9F,          -1e9F,          16777217.0F,   -1.0F};
    while (made.size() < 128) made.push_back(static_cast<float>(made.size() - 16) / 4.0F);
    while (made.size() < 256) made.push_back(static_cast<float>(made.size() - 128) / 127.0F);
    return made;
  }();
  return table;
}

const std::vector<Family> kFamilies{{"Detect", "YOLO8-OBB", {8, 7}, {1, 7, 24}},
                                    {"Detect", "YOLO8-POSE", {4, 11}, {1, 11, 12}},
                                    {"Detect", "YOLO8-Seg", {16, 16}, {1, 38, 20}, {1, 32, 4, 4}},
                                    {"Detect", "YOLO8", {8, 6}, {1, 6, 24}},
                                    {"Detect", "YOLO5", {8, 7}, {1, 24, 7}},
                                    {"Detect", "YOLO26", {8, 6}, {1, 24, 6}},
                                    {"Detect", "PaddleOCR", {-1, -1}, {}},
                                    {"Classify", "ResNet", {6, 6}, {1, 108}},
                                    {"Classify", "AudioNet", {2, 2}, {1, 12}},
                                    {"Track", "DeepSort", {10, 10}, {1, 300}},
                                    {"Track", "VsFaceNet", {8, 8}, {1, 192}},
                                    {"Track", "PaddleOCR", {8, 8}, {1, 12, 16}},
                                    {"Track", "VsOCR", {8, 8}, {1, 16, 12}}};

std::string writeFamily(const Family& family) {
  namespace op = ov::opset8;
  return writeNetwork({1, 3, family.input.height, family.input.width}, [&](const ov::Output<ov::Node>& input) {
    const auto bytes = std::make_shared<op::Round>(std::make_shared<op::Multiply>(input, floats({}, {255.0F})),
                                                   op::Round::RoundMode::HALF_TO_EVEN);
    const auto places = std::make_shared<op::Convert>(std::make_shared<op::Clamp>(bytes, 0.0, 255.0), ov::element::i32);
    const ov::Output<ov::Node> numbers = std::make_shared<op::Gather>(
        floats({numberTable().size()}, numberTable()), places, op::Constant::create(ov::element::i32, {}, {0}));
    if (family.output.empty()) return ov::OutputVector{sliced(numbers, 1, 0, 1)};
    const auto flat = reshaped(numbers, {-1});
    const auto first = [&](const std::vector<int>& shape) {
      int count = 1;
      for (const int length : shape) count *= length;
      return reshaped(sliced(flat, 0, 0, count), shape);
    };
    ov::OutputVector outputs{first(family.output)};
    if (!family.second.empty()) outputs.push_back(first(family.second));
    return outputs;
  });
}
