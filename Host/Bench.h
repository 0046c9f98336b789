// Measures the models of a pipeline, each beside a bare run of its network.
#pragma once

#include <string>

namespace vsa {

struct BenchOptions {
  std::string pipeline;
  std::string input;
  int runs = 100;
  bool json = false;
  bool verbose = false;
};

/// Runs the pipeline on the frames of the input, over and over, and tells the times of each model.
/// Returns the exit status.
int bench(const BenchOptions& options);

}  // namespace vsa
