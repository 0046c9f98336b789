// The list of ONNX Runtime's devices.

#include <onnxruntime_cxx_api.h>

#include <algorithm>
#include <string>
#include <vector>

#include "OnnxRuntime/OrModels.h"
#include "Utils/Log.h"

namespace TolCompatibleLib {

void addOnnxRuntimeDevices(VsaDeviceSet& devices) {
  logInfo(std::string("OnnxRuntime ") + OrtGetApiBase()->GetVersionString());
  // Deliberate: no other provider is reported, whatever ONNX Runtime offers; models run on the
  // processor.
  const std::vector<std::string> providers = Ort::GetAvailableProviders();
  if (std::ranges::count(providers, "CPUExecutionProvider") > 0) devices.insert("ONNXRuntime-CPU");
}

}  // namespace TolCompatibleLib
