// What the exporter of a network wrote into the file about its task, classes and input size.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ModelFile.h"

namespace vsa {

/// Fields that the file does not contain are empty.
struct ExportInfo {
  std::string task;                ///< "detect", "obb", "pose", "segment" or "classify".
  std::vector<std::string> names;  ///< By class index; of a text recogniser only the characters.
  std::vector<std::int64_t> size;  ///< Height and width of the input.
};

ExportInfo exportInfoOf(const ModelFile& file);

}  // namespace vsa
