#include "DeviceNames.h"

namespace vsa {

const VsaDeviceSet& deviceNames() {
  static const VsaDeviceSet names = [] {
    VsaDeviceSet found;
    VsaGetDeviceSet(&found);
    return found;
  }();
  return names;
}

}  // namespace vsa
