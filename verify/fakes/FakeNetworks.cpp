#include "FakeNetworks.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <mutex>
#include <numeric>
#include <utility>

FakeNetwork fakeNetwork;
InputChecksum inputChecksum;

EngineMemory::EngineMemory() = default;
EngineMemory::~EngineMemory() = default;

namespace {

std::size_t product(const std::size_t* begin, const std::size_t* end) {
  return std::accumulate(begin, end, std::size_t{1}, std::multiplies<>());
}

/// A tensor along one axis: `count` blocks of `length` steps of `size` floats.
struct Axis {
  Axis(const FakeTensor& tensor, int axis)
      : count(product(tensor.shape.data(), tensor.shape.data() + axis)),
        length(tensor.shape.at(static_cast<std::size_t>(axis))),
        size(product(tensor.shape.data() + axis + 1, tensor.shape.data() + tensor.shape.size())) {}
  std::size_t count, length, size;
};

/// The networks by file name. Tests open networks on several threads.
struct Networks {
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<const FakeNetwork>> byFile;
};
Networks& networks() {
  static Networks all;
  return all;
}

}  // namespace

void addFakeNetwork(const std::string& file, const FakeNetwork& network) {
  const std::lock_guard lock(networks().mutex);
  networks().byFile[file] = std::make_shared<FakeNetwork>(network);
}

std::shared_ptr<const FakeNetwork> findFakeNetwork(const std::string& file) {
  const std::lock_guard lock(networks().mutex);
  const auto found = networks().byFile.find(file);
  return found == networks().byFile.end() ? nullptr : found->second;
}

bool hasFakeDevice(const std::string& name) { return name == "CPU"; }

FakeNode fakeConstant(FakeTensor tensor) {
  return [tensor = std::move(tensor)](const FakeTensor&) { return tensor; };
}

FakeNode fakeReshape(const FakeNode& value, const std::vector<int>& shape) {
  return [=](const FakeTensor& input) {
    FakeTensor tensor = value(input);
    std::size_t known = 1;
    for (const int length : shape) known *= length < 0 ? 1 : static_cast<std::size_t>(length);
    tensor.shape.clear();
    for (const int length : shape) {
      tensor.shape.push_back(length < 0 ? tensor.numbers.size() / known
                                        : static_cast<std::size_t>(length));
    }
    return tensor;
  };
}

FakeNode fakeTranspose(const FakeNode& value, const std::vector<int>& order) {
  return [=](const FakeTensor& input) {
    const FakeTensor tensor = value(input);
    FakeTensor transposed;
    std::vector<std::size_t> strides;  // of the axes of the result, in the source
    for (const int axis : order) {
      const Axis from(tensor, axis);
      transposed.shape.push_back(from.length);
      strides.push_back(from.size);
    }
    for (std::size_t i = 0; i < tensor.numbers.size(); ++i) {
      std::size_t rest = i;
      std::size_t source = 0;
      for (std::size_t axis = order.size(); axis-- > 0;) {
        source += rest % transposed.shape[axis] * strides[axis];
        rest /= transposed.shape[axis];
      }
      transposed.numbers.push_back(tensor.numbers[source]);
    }
    return transposed;
  };
}

FakeNode fakeSlice(const FakeNode& value, int axis, int begin, int end) {
  return [=](const FakeTensor& input) {
    const FakeTensor tensor = value(input);
    const Axis along(tensor, axis);
    const auto first = static_cast<std::size_t>(begin);
    const std::size_t steps = std::min(static_cast<std::size_t>(end), along.length) - first;
    FakeTensor part{tensor.shape, {}};
    part.shape[static_cast<std::size_t>(axis)] = steps;
    for (std::size_t block = 0; block < along.count; ++block) {
      const float* const start =
          tensor.numbers.data() + (block * along.length + first) * along.size;
      part.numbers.insert(part.numbers.end(), start, start + steps * along.size);
    }
    return part;
  };
}

FakeNode fakeConcat(const std::vector<FakeNode>& values, int axis) {
  return [=](const FakeTensor& input) {
    std::vector<FakeTensor> tensors;
    for (const FakeNode& value : values) tensors.push_back(value(input));
    FakeTensor all{tensors.at(0).shape, {}};
    std::size_t& length = all.shape.at(static_cast<std::size_t>(axis));
    length = 0;
    for (const FakeTensor& tensor : tensors) length += Axis(tensor, axis).length;
    for (std::size_t block = 0; block < Axis(tensors[0], axis).count; ++block) {
      for (const FakeTensor& tensor : tensors) {
        const Axis along(tensor, axis);
        const std::size_t count = along.length * along.size;
        const float* const start = tensor.numbers.data() + block * count;
        all.numbers.insert(all.numbers.end(), start, start + count);
      }
    }
    return all;
  };
}

FakeNode fakeLookup(const FakeNode& value, const std::vector<float>& numbers) {
  return [=](const FakeTensor& input) {
    FakeTensor tensor = value(input);
    for (float& number : tensor.numbers) {
      const float index = std::clamp(std::nearbyint(number * 255.0F), 0.0F, 255.0F);
      number = numbers.at(static_cast<std::size_t>(index));
    }
    return tensor;
  };
}
