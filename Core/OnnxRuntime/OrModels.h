// The ONNX Runtime models, one make function each. Each class is defined in its own file.
#pragma once

#include <memory>
#include <string>

#include "VsaModel.h"

namespace TolCompatibleLib {

std::unique_ptr<VsaDetect> makeOrDetectYolo5(const VsaModelConfig* config,
                                             const std::string& modelRoot);
std::unique_ptr<VsaDetect> makeOrDetectYolo8(const VsaModelConfig* config,
                                             const std::string& modelRoot);
std::unique_ptr<VsaDetect> makeOrDetectYolo26(const VsaModelConfig* config,
                                              const std::string& modelRoot);

/// Adds "ONNXRuntime-CPU" if ONNX Runtime has its CPU provider. Logs the version of ONNX Runtime.
/// Throws Ort::Exception if ONNX Runtime fails.
void addOnnxRuntimeDevices(VsaDeviceSet& devices);

}  // namespace TolCompatibleLib
