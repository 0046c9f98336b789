// What ONNX Runtime brings.
#pragma once

#include "TolCompatible.h"

namespace TolCompatibleLib {

/// Adds "ONNXRuntime-CPU" where ONNX Runtime can run on the processor. Logs its version. Throws
/// what it throws.
void addOnnxRuntimeDevices(VsaDeviceSet& devices);

}  // namespace TolCompatibleLib
