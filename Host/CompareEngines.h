// Runs the detectors of a pipeline on both engines and tells how far their objects differ.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vsa {

struct CompareEnginesOptions {
  std::string pipeline;
  std::vector<std::string> inputs;
  std::string other;  ///< The network for the other engine; empty: the file beside the first.
  int pixels = 2;     ///< How far an edge of a box may be off.
  double score = 0.1;
  std::int64_t maxFrames = 0;  ///< Of each video; 0 means all.
  bool json = false;
  bool verbose = false;
};

/// Compares the engines picture by picture and returns the exit status.
int compareEngines(const CompareEnginesOptions& options);

}  // namespace vsa
