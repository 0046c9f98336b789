// Where a model file lies.
#pragma once

#include <string>

#include "TolCompatible.h"

namespace TolCompatibleLib {

/// The path that `config` names below `modelRoot`, without normalisation: an empty folder leaves
/// two slashes in a row. OpenVINO models add ".xml" to it; ONNX Runtime models open it as it is.
inline std::string modelPath(const VsaModelConfig& config, const std::string& modelRoot) {
  if (config.modelDir.empty() && config.modelFile.empty()) return modelRoot;
  return modelRoot + "/" + config.modelDir + "/" + config.modelFile;
}

}  // namespace TolCompatibleLib
