// Pipeline files for given networks.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "Families.h"
#include "ModelFile.h"

namespace vsa {

/// One entry of "models".
struct PipelineEntry {
  std::string text;           ///< JSON, indented, without a line break at its end.
  bool hasRealNames = false;  ///< Whether the class names are known; otherwise they are numbered.
};

/// An entry that runs the network as that family, for a pipeline file in `folder`.
PipelineEntry pipelineEntry(const Family& family, const ModelFile& file,
                            const std::filesystem::path& folder);

/// Writes a pipeline file with these entries. Throws std::runtime_error if that fails.
void writePipeline(const std::filesystem::path& path, const std::vector<std::string>& entries);

}  // namespace vsa
