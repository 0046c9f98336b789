// Stand-ins for the engines' libraries, of the functions that the library links to: every network
// is the one that `fakeNetwork` describes, and answers with its outputs whatever it is shown.
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

/// Checksum of all inputs that the engines were given.
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

/// If set, ONNX Runtime is older than its headers: there is no table of functions for them.
extern bool hasOldOnnxRuntime;
/// How often that table was asked for.
extern int apiRequests;

/// While one lives, what the thread allocates is the engine's own: it does not fail.
class EngineMemory {
 public:
  EngineMemory();
  ~EngineMemory();
  EngineMemory(const EngineMemory&) = delete;
  EngineMemory& operator=(const EngineMemory&) = delete;
};
