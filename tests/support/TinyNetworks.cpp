#include "support/TinyNetworks.h"

#include <atomic>
#include <cmath>
#include <filesystem>
#include <openvino/opsets/opset8.hpp>
#include <random>

namespace {

namespace op = ov::opset8;

/// A folder of this process, removed when it ends.
class Folder {
 public:
  Folder()
      : path_(std::filesystem::temp_directory_path() /
              ("networks" + std::to_string(std::random_device()()))) {
    std::filesystem::create_directories(path_);
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string next() { return (path_ / std::to_string(count_++)).string(); }

 private:
  std::filesystem::path path_;
  std::atomic<int> count_ = 0;  // tests open networks on two threads
};

ov::Output<ov::Node> integers(const std::vector<int>& values) {
  return op::Constant::create(ov::element::i64, {values.size()}, values);
}

}  // namespace

std::string writeNetwork(const ov::PartialShape& input, const Body& body,
                         ov::element::Type inputType) {
  static Folder folder;
  const auto parameter = std::make_shared<op::Parameter>(inputType, input);
  const auto model = std::make_shared<ov::Model>(body(parameter), ov::ParameterVector{parameter});
  const std::string path = folder.next();
  ov::serialize(model, path + ".xml", path + ".bin");
  return path;
}

std::string writeConstant(const ov::PartialShape& input, const ov::Shape& output,
                          const std::vector<float>& values) {
  return writeNetwork(
      input, [&](const ov::Output<ov::Node>&) { return ov::OutputVector{floats(output, values)}; });
}

const std::vector<float>& byteNumbers() {
  static const std::vector<float> kNumbers = [] {
    std::vector<float> numbers{0.0F,          -0.0F,          NAN,           -NAN,
                               INFINITY,      -INFINITY,      3.4028235e38F, -3.4028235e38F,
                               2147483648.0F, -2147483904.0F, 1e-45F,        1e-38F,
                               1e9F,          -1e9F,          16777217.0F,   -1.0F};
    while (numbers.size() < 128) numbers.push_back(static_cast<float>(numbers.size() - 16) / 4.0F);
    while (numbers.size() < 256)
      numbers.push_back(static_cast<float>(numbers.size() - 128) / 127.0F);
    return numbers;
  }();
  return kNumbers;
}

std::string writeFamilyNetwork(const Family& family) {
  return writeNetwork(
      {1, 3, family.input.height, family.input.width}, [&](const ov::Output<ov::Node>& input) {
        const auto bytes =
            std::make_shared<op::Round>(std::make_shared<op::Multiply>(input, floats({}, {255.0F})),
                                        op::Round::RoundMode::HALF_TO_EVEN);
        const auto indices = std::make_shared<op::Convert>(
            std::make_shared<op::Clamp>(bytes, 0.0, 255.0), ov::element::i32);
        const ov::Output<ov::Node> numbers =
            std::make_shared<op::Gather>(floats({byteNumbers().size()}, byteNumbers()), indices,
                                         op::Constant::create(ov::element::i32, {}, {0}));
        if (family.outputs.empty()) return ov::OutputVector{sliced(numbers, 1, 0, 1)};
        const auto flat = reshaped(numbers, {-1});
        ov::OutputVector outputs;
        for (const std::vector<int>& shape : family.outputs) {
          int count = 1;
          for (const int length : shape) count *= length;
          outputs.push_back(reshaped(sliced(flat, 0, 0, count), shape));
        }
        return outputs;
      });
}

std::string networkOf(const Family& family, const std::string& onnxFolder) {
  return family.onnxFile.empty() ? writeFamilyNetwork(family) : onnxFolder + "/" + family.onnxFile;
}

ov::Output<ov::Node> floats(const ov::Shape& shape, const std::vector<float>& values) {
  return op::Constant::create(ov::element::f32, shape, values);
}

ov::Output<ov::Node> reshaped(const ov::Output<ov::Node>& value, const std::vector<int>& shape) {
  return std::make_shared<op::Reshape>(value, integers(shape), false);
}

ov::Output<ov::Node> transposed(const ov::Output<ov::Node>& value, const std::vector<int>& order) {
  return std::make_shared<op::Transpose>(value, integers(order));
}

ov::Output<ov::Node> sliced(const ov::Output<ov::Node>& value, int axis, int begin, int end) {
  return std::make_shared<op::Slice>(value, integers({begin}), integers({end}), integers({1}),
                                     integers({axis}));
}
