// The totals of a run, and its summary.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vsa {

/// The successful runs of one model.
struct ModelTime {
  std::string name;
  std::int64_t runs = 0;
  double seconds = 0.0;
  std::int64_t removedObjects = 0;  ///< Objects without an area, removed before the model ran.
};

struct Totals {
  std::int64_t inputs = 0;
  std::int64_t failedInputs = 0;
  std::int64_t frames = 0;
  std::string frameNoun = "frame";  ///< "block" for audio.
  std::int64_t objects = 0;
  std::int64_t failedRuns = 0;
  double seconds = 0.0;         ///< From the first input to the end.
  double loadingSeconds = 0.0;  ///< Time that VsaModelInit took for all models.
  std::vector<ModelTime> models;
};

/// The totals in a few lines of text.
std::string summary(const Totals& totals);

}  // namespace vsa
