// Whether the models of a pipeline go with their networks, and with each other.
#pragma once

#include <string>
#include <vector>

#include "Families.h"
#include "ModelFile.h"
#include "Pipeline.h"

namespace vsa {

/// What was found out about one model of a pipeline, in sentences.
struct Findings {
  std::vector<std::string> wrong;
  std::vector<std::string> warnings;
  std::vector<std::string> notes = {};  ///< Good to know, but not a fault.
};

/// Compares the settings of one model with its network.
Findings checkModel(const VsaModelConfig& config, const ModelFile& file);

/// Finds models that can do nothing with the objects of the models before them. Returns one entry
/// for each model.
std::vector<Findings> checkOrder(const std::vector<ModelSpec>& models);

/// A warning if the input is not square; empty if it is.
std::string squareWarning(std::int64_t width, std::int64_t height);

}  // namespace vsa
