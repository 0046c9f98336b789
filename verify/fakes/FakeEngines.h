// Stand-ins for the functions of the engines' libraries that the library uses. In the check of
// allocations, every network is the one that `fakeNetwork` describes. Built as a library in place
// of OpenVINO, they compute the networks of FakeNetworks.h.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct FakeTensor {
  std::vector<std::size_t> shape;
  std::vector<float> numbers;
  bool isInteger = false;  ///< The element type is i32 instead of f32.
};

struct FakeNetwork {
  std::vector<std::int64_t> input;  ///< The shape; -1 is a dynamic dimension.
  bool takesBytes = false;          ///< The element type of the input is u8 instead of f32.
  std::vector<FakeTensor> outputs;  ///< For any input.
  /// If set, computes the outputs from the input; `outputs` is then not used.
  std::function<std::vector<FakeTensor>(const FakeTensor& input)> compute = {};
};

extern FakeNetwork fakeNetwork;

/// The network of a model file. If it is null, the engine throws as for a missing file.
std::shared_ptr<const FakeNetwork> findFakeNetwork(const std::string& file);
/// Whether networks can be compiled for the device.
bool hasFakeDevice(const std::string& name);

/// Checksum of all inputs of the engines.
class InputChecksum {
 public:
  void reset() { value_ = 1469598103934665603U; }
  void add(const void* bytes, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      value_ = (value_ ^ static_cast<const unsigned char*>(bytes)[i]) * 1099511628211U;  // FNV-1a
    }
  }
  std::uint64_t value() const { return value_; }

 private:
  std::uint64_t value_ = 0;
};

extern InputChecksum inputChecksum;

/// If true, ONNX Runtime is older than its headers: it returns no function table for them.
extern bool hasOldOnnxRuntime;
/// Number of requests for that table.
extern int apiRequests;

/// While an object of this class exists, allocations of the thread are the engine's own and do not
/// fail.
class EngineMemory {
 public:
  EngineMemory();
  ~EngineMemory();
  EngineMemory(const EngineMemory&) = delete;
  EngineMemory& operator=(const EngineMemory&) = delete;
};
