// Which families a network file fits, according to its shapes and the metadata of its exporter.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Families.h"
#include "ModelFile.h"

namespace vsa {

/// How well a network fits a family.
struct Fit {
  std::string mismatch;  ///< Why the library would reject or misread it; empty if it would not.
  std::string doubt;     ///< Why it probably belongs to another family; empty if it does not.
  /// Number of classes, or key points of a pose network, according to the output; 0 if unknown.
  std::int64_t classes = 0;
  int likelihood = 0;  ///< Of the families that fit, the one with the highest is the likeliest.

  bool isGood() const { return mismatch.empty() && doubt.empty(); }
};

Fit fitOf(const Family& family, const ModelFile& file);

/// The families that the file fits without doubt, the most likely first.
std::vector<const Family*> fittingFamilies(const ModelFile& file);

/// A reason why a file does not fit, and the models to which it applies.
struct Mismatch {
  std::string reason;
  std::vector<std::string> models;  ///< "Detect YOLO8".
};
std::vector<Mismatch> mismatchesOf(const ModelFile& file);

/// "80 classes" or "17 key points"; empty if `classes` is less than 1.
std::string classesText(const Family& family, std::int64_t classes);

/// Height and width of the network's input; kAnySize if they are dynamic.
std::pair<std::int64_t, std::int64_t> inputSizeOf(const ModelFile& file);

}  // namespace vsa
