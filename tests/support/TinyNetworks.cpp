#include "support/TinyNetworks.h"

#include <atomic>
#include <cmath>
#include <filesystem>
#include <random>
#if !TOL_FAKE_OPENVINO
#include <openvino/opsets/opset8.hpp>
#endif

namespace {

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

/// A new path in that folder.
std::string nextPath() {
  static Folder folder;
  return folder.next();
}

}  // namespace

#if TOL_FAKE_OPENVINO

std::string writeNetwork(const ov::PartialShape& input, const Body& body,
                         ov::element::Type inputType) {
  FakeNetwork network;
  for (const ov::Dimension& dimension : input) {
    network.input.push_back(dimension.is_static() ? dimension.get_interval().get_min_val()
                                                  : std::int64_t{-1});
  }
  network.takesBytes = inputType == ov::element::u8;
  const Values outputs = body([](const FakeTensor& tensor) { return tensor; });
  network.compute = [outputs](const FakeTensor& tensor) {
    std::vector<FakeTensor> results;
    for (const Value& output : outputs) results.push_back(output(tensor));
    return results;
  };
  const std::string path = nextPath();
  addFakeNetwork(path + ".xml", network);
  return path;
}

Value constant(ov::element::Type type, const ov::Shape& shape, const std::vector<float>& values) {
  return fakeConstant({{shape.begin(), shape.end()}, values, type == ov::element::i32});
}
Value reshaped(const Value& value, const std::vector<int>& shape) {
  return fakeReshape(value, shape);
}
Value transposed(const Value& value, const std::vector<int>& order) {
  return fakeTranspose(value, order);
}
Value sliced(const Value& value, int axis, int begin, int end) {
  return fakeSlice(value, axis, begin, end);
}
Value concatenated(const Values& values, int axis) {
  return fakeConcat(values, axis);
}
Value lookedUp(const Value& value, const std::vector<float>& numbers) {
  return fakeLookup(value, numbers);
}

#else

namespace op = ov::opset8;

static Value integers(const std::vector<int>& values) {
  return op::Constant::create(ov::element::i64, {values.size()}, values);
}

std::string writeNetwork(const ov::PartialShape& input, const Body& body,
                         ov::element::Type inputType) {
  const auto parameter = std::make_shared<op::Parameter>(inputType, input);
  const auto model = std::make_shared<ov::Model>(body(parameter), ov::ParameterVector{parameter});
  const std::string path = nextPath();
  ov::serialize(model, path + ".xml", path + ".bin");
  return path;
}

Value constant(ov::element::Type type, const ov::Shape& shape, const std::vector<float>& values) {
  return op::Constant::create(type, shape, values);
}

Value reshaped(const Value& value, const std::vector<int>& shape) {
  return std::make_shared<op::Reshape>(value, integers(shape), false);
}

Value transposed(const Value& value, const std::vector<int>& order) {
  return std::make_shared<op::Transpose>(value, integers(order));
}

Value sliced(const Value& value, int axis, int begin, int end) {
  return std::make_shared<op::Slice>(value, integers({begin}), integers({end}), integers({1}),
                                     integers({axis}));
}

Value concatenated(const Values& values, int axis) {
  return std::make_shared<op::Concat>(values, axis);
}

Value lookedUp(const Value& value, const std::vector<float>& numbers) {
  const auto bytes =
      std::make_shared<op::Round>(std::make_shared<op::Multiply>(value, floats({}, {255.0F})),
                                  op::Round::RoundMode::HALF_TO_EVEN);
  const auto indices = std::make_shared<op::Convert>(std::make_shared<op::Clamp>(bytes, 0.0, 255.0),
                                                     ov::element::i32);
  return std::make_shared<op::Gather>(floats({numbers.size()}, numbers), indices,
                                      op::Constant::create(ov::element::i32, {}, {0}));
}

#endif

std::string writeConstant(const ov::PartialShape& input, const ov::Shape& output,
                          const std::vector<float>& values) {
  return writeNetwork(input, [&](const Value&) { return Values{floats(output, values)}; });
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
  return writeNetwork({1, 3, family.input.height, family.input.width}, [&](const Value& input) {
    const Value numbers = lookedUp(input, byteNumbers());
    if (family.outputs.empty()) return Values{sliced(numbers, 1, 0, 1)};
    const Value flat = reshaped(numbers, {-1});
    Values outputs;
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

Value floats(const ov::Shape& shape, const std::vector<float>& values) {
  return constant(ov::element::f32, shape, values);
}
