// Which families a network file fits, judged by its shapes and by what its exporter wrote into it.
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
  std::string mismatch;  ///< Why the library would refuse or misread it; empty if it would not.
  std::string doubt;     ///< Why it is hardly meant for the family although the library takes it.
  /// Classes that the output has room for, or key points of a pose network; 0 if it does not say.
  std::int64_t classes = 0;
  int likelihood = 0;  ///< Orders the families that fit.

  bool isGood() const { return mismatch.empty() && doubt.empty(); }
};

Fit fitOf(const Family& family, const ModelFile& file);

/// The families that the file fits without doubt, the most likely first.
std::vector<const Family*> fittingFamilies(const ModelFile& file);

/// A reason why a file does not fit, and the models that it holds for.
struct Mismatch {
  std::string reason;
  std::vector<std::string> models;  ///< "Detect YOLO8".
};
std::vector<Mismatch> mismatchesOf(const ModelFile& file);

/// "80 classes" or "17 key points"; empty if `classes` is less than 1.
std::string classesText(const Family& family, std::int64_t classes);

/// Height and width of the network's input; kAnySize if the file leaves them open.
std::pair<std::int64_t, std::int64_t> inputSizeOf(const ModelFile& file);

}  // namespace vsa
