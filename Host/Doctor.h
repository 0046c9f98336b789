// Looks at network files and pipeline files and tells what is wrong with them.
#pragma once

#include <string>
#include <vector>

namespace vsa {

struct DoctorOptions {
  std::vector<std::string> files;  ///< Networks (.xml, .onnx) and pipeline files (.json).
  std::string write;               ///< Pipeline file to make of the networks; empty for none.
  std::vector<std::string> as;     ///< Model names for it, in the order of the networks.
  bool strict = false;             ///< Warnings count as mismatches.
};

/// Tells about every file and returns the exit status.
int examine(const DoctorOptions& options);

}  // namespace vsa
