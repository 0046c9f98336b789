// Stand-ins for the engines' libraries, of the functions that the library links to: every network is the one that
// `fakeNetwork` describes, and answers with its outputs whatever it is shown.
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

/// While one lives, what the thread allocates is the engine's own: it does not fail.
class EngineMemory {
 public:
  EngineMemory();
  ~EngineMemory();
  EngineMemory(const EngineMemory&) = delete;
  EngineMemory& operator=(const EngineMemory&) = delete;
};
