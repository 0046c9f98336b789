// Stand-ins for the functions of the engines' libraries that the library uses. Every network is the
// one that `fakeNetwork` describes and returns its outputs for any input.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct FakeOutput {
  std::vector<std::size_t> shape;
  std::vector<float> numbers;
};

struct FakeNetwork {
  std::vector<std::int64_t> input;
  bool takesBytes = false;
  std::vector<FakeOutput> outputs;
};

extern FakeNetwork fakeNetwork;

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
