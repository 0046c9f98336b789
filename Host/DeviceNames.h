// The devices of both engines.
#pragma once

#include <TolCompatible/TolCompatible.h>

namespace vsa {

/// The names of all devices, as VsaGetDeviceSet lists them. They are listed once in a process,
/// because some versions of the Level Zero loader (1.28) crash when OpenVINO lists its devices a
/// second time and there is no driver. Throws what VsaGetDeviceSet throws; the next call tries
/// again.
const VsaDeviceSet& deviceNames();

}  // namespace vsa
