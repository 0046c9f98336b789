// The library's table of models, and which of them a network file is made for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ModelFile.h"
#include "Pipeline.h"

namespace vsa {

/// How a model is fed, and how it reads its network's output.
enum class Head { kYolo8, kYolo5, kYolo26, kObb, kPose, kSeg, kText, kLine, kAlphabet, kNumbers };

struct ModelRow {
  std::string category;
  std::string modelName;
  Head head;
  bool onBothEngines;   ///< Else on OpenVINO alone.
  const char* outputs;  ///< What its network gives, for people.
  std::int64_t width;   ///< Input in pixels where the network leaves it open; 0 where it must not.
  std::int64_t height;
  std::int64_t numbers = 0;  ///< Length of an embedding; 0 for classifiers.

  bool isYolo() const { return width == 0; }
  bool isEmbedding() const { return numbers > 0; }
  bool isClassifier() const { return head == Head::kNumbers && numbers == 0; }
};

const std::vector<ModelRow>& modelRows();

/// The row of that model; null where the library has none.
const ModelRow* findRow(const std::string& category, const std::string& modelName);

/// What a file says about itself, as far as it does.
struct Notes {
  std::string task;                ///< "detect", "obb", "pose", "segment", "classify".
  std::vector<std::string> names;  ///< By class index. Of a text recogniser the characters alone.
  std::vector<std::int64_t> size;  ///< Height and width that it was exported for.
};
Notes notesOf(const ModelFile& file);

/// How a file goes with a row.
struct Fit {
  std::string misfit;  ///< Why the library would refuse it or cannot read it right; else empty.
  std::string doubt;   ///< What the library allows but what is hardly meant; else empty.
  std::int64_t classes = 0;  ///< Classes that the output has room for, of a pose network key
                             ///< points; 0 where it does not tell.
  int likelihood = 0;        ///< To order the rows that fit.

  bool isGood() const { return misfit.empty() && doubt.empty(); }
};
Fit fitOf(const ModelRow& row, const ModelFile& file);

/// Height and width of the network's input; kAnySize where the file leaves them open.
std::pair<std::int64_t, std::int64_t> inputSizeOf(const ModelFile& file);

}  // namespace vsa
