// Pipelines for given networks.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "Families.h"
#include "ModelFile.h"
#include "Pipeline.h"

namespace vsa {

/// One entry of "models".
struct PipelineEntry {
  std::string text;           ///< JSON, indented, without a line break at its end.
  bool hasRealNames = false;  ///< Whether the class names are known; otherwise they are numbered.
};

/// An entry that runs the network as that family, for a pipeline file in `folder`.
PipelineEntry pipelineEntry(const Family& family, const ModelFile& file,
                            const std::filesystem::path& folder);

/// The text of a pipeline file with these entries.
std::string pipelineText(const std::vector<std::string>& entries);

/// Writes a pipeline file with these entries. Throws std::runtime_error if that fails.
void writePipeline(const std::filesystem::path& path, const std::vector<std::string>& entries);

/// Whether the file is a network, not a pipeline file, according to its name.
bool isNetworkFile(const std::string& path);

/// A pipeline of the network in that file alone, run as the model with the name `as`; if `as` is
/// empty, as the only model that it fits. Throws PipelineError.
Pipeline networkPipeline(const std::string& path, const std::string& as);

}  // namespace vsa
