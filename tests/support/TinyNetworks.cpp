#include "support/TinyNetworks.h"

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <openvino/opsets/opset8.hpp>

namespace {

namespace op = ov::opset8;

/// A folder of this process, removed when it ends.
class Folder {
 public:
  Folder() : path_(std::filesystem::temp_directory_path() / ("networks" + std::to_string(getpid()))) {
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

std::string writeNetwork(const ov::PartialShape& input, const Body& body, ov::element::Type inputType) {
  static Folder folder;
  const auto parameter = std::make_shared<op::Parameter>(inputType, input);
  const auto model = std::make_shared<ov::Model>(body(parameter), ov::ParameterVector{parameter});
  const std::string path = folder.next();
  ov::serialize(model, path + ".xml", path + ".bin");
  return path;
}

std::string writeConstant(const ov::PartialShape& input, const ov::Shape& output, const std::vector<float>& values) {
  return writeNetwork(input, [&](const ov::Output<ov::Node>&) { return ov::OutputVector{floats(output, values)}; });
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
  return std::make_shared<op::Slice>(value, integers({begin}), integers({end}), integers({1}), integers({axis}));
}
