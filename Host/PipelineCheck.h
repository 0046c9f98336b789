// Checks whether the models of a pipeline fit their networks and their order.
#pragma once

#include <string>
#include <vector>

#include "Families.h"
#include "ModelFile.h"
#include "Pipeline.h"

namespace vsa {

/// Messages about one model of a pipeline.
struct Findings {
  std::vector<std::string> errors;
  std::vector<std::string> warnings;
  std::vector<std::string> notes = {};  ///< Information that does not concern a problem.
};

/// Compares the settings of one model with its network.
Findings checkModel(const VsaModelConfig& config, const ModelFile& file);

/// Compares one model of a pipeline with its network, which is read, and with the devices of this
/// machine. A network that cannot be read is an error.
Findings examineModel(const ModelSpec& spec, const VsaDeviceSet& devices);

/// Why the library refuses the model, as far as examineModel() finds it out; empty if it finds
/// nothing.
std::string refusalReason(const ModelSpec& spec);

/// Finds models that cannot use the objects of the models before them. Returns one entry for each
/// model.
std::vector<Findings> checkOrder(const std::vector<ModelSpec>& models);

/// A warning if the input is not square; empty if it is.
std::string squareWarning(std::int64_t width, std::int64_t height);

}  // namespace vsa
