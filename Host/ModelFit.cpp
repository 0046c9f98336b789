#include "ModelFit.h"

#include <algorithm>
#include <optional>

#include "ExportInfo.h"
#include "Messages.h"

namespace vsa {
namespace {

constexpr std::int64_t kMaskCoefficients = 32;

bool fitsSide(std::int64_t side, std::int64_t wanted) {
  return side == wanted || side == kAnySize;
}

bool isFloats(const Port& port, std::size_t dimensions) {
  return port.type == "f32" && port.ranked && port.shape.size() == dimensions;
}

// Why the input is not that of one image; empty if it is.
std::string inputMismatch(const Family& family, const ModelFile& file) {
  if (file.inputs.size() != 1) {
    return "it has " + std::to_string(file.inputs.size()) + " inputs, and the library fills one";
  }
  const Port& input = file.inputs[0];
  const auto& shape = input.shape;
  const bool isImage = input.type == "f32" && (!input.ranked || shape.size() == 4) &&
                       (!input.ranked || fitsSide(shape[1], 3));
  if (!isImage) return "its input is " + input.text() + ", not f32 [1,3,height,width]";
  if (input.ranked && !fitsSide(shape[0], 1)) {
    return "its input has a batch size of " + std::to_string(shape[0]);
  }
  // Detectors need all sides fixed on OpenVINO, height and width on ONNX Runtime.
  const std::ptrdiff_t firstFixed = file.engine == "OpenVINO" ? 0 : 2;
  if (family.isYolo() && (!input.ranked || std::any_of(shape.begin() + firstFixed, shape.end(),
                                                       [](auto side) { return side < 1; }))) {
    return "its input is " + input.text() + ", and the detector needs a fixed size";
  }
  return "";
}

// The number of values of a candidate; nullopt if the output does not hold candidates with at least
// `minValues`.
std::optional<std::int64_t> candidateValues(const Port& output, bool inColumns,
                                            std::int64_t minValues) {
  if (!isFloats(output, 3) || !fitsSide(output.shape[0], 1)) return std::nullopt;
  const std::int64_t values = output.shape[inColumns ? 1 : 2];
  return values == kAnySize || values >= minValues ? std::optional(values) : std::nullopt;
}

// Whether rows and columns are probably swapped: usually there are more candidates than values.
bool isTransposed(const Port& output, bool inColumns) {
  const std::int64_t values = output.shape[inColumns ? 1 : 2];
  const std::int64_t candidates = output.shape[inColumns ? 2 : 1];
  return values > candidates && candidates >= 5;
}

// The length of an output that holds one row of numbers; nullopt if it holds several rows.
std::optional<std::int64_t> vectorLength(const Port& output) {
  if (output.type != "f32" || !output.ranked) return std::nullopt;
  std::int64_t length = 1;
  for (std::size_t i = 0; i < output.shape.size(); ++i) {
    const std::int64_t side = output.shape[i];
    if (side == 1 || (i == 0 && side == kAnySize)) continue;
    if (length != 1 || side == 0) return std::nullopt;
    length = side;
  }
  return length;
}

bool isPrototypeMasks(const Port& port) {
  return isFloats(port, 4) && port.shape[1] == kMaskCoefficients;
}

// The number of classes in the output of a text recogniser: kAnySize if it is dynamic, nullopt if
// the output is not that of a text recogniser.
std::optional<std::int64_t> characterCount(const Port& output, OutputLayout layout) {
  const auto& shape = output.shape;
  if (output.type != "f32" || !output.ranked) return std::nullopt;
  if (layout == OutputLayout::kTextLine) {
    const bool isLine = shape.size() == 3 && fitsSide(shape[0], 1);
    return isLine ? std::optional(shape[2]) : std::nullopt;
  }
  if (shape.size() == 2) return std::max(shape[0], shape[1]);
  if (shape.size() != 3) return std::nullopt;
  if (shape[1] == 1) return shape[2];
  return fitsSide(shape[0], 1) ? std::optional(std::max(shape[1], shape[2])) : std::nullopt;
}

void checkEndToEnd(const Family& family, const Port& output, const std::string& otherOutput,
                   Fit* fit) {
  // The library accepts more columns, too, but would misread them.
  const std::optional<std::int64_t> columns = candidateValues(output, false, family.fixedValues);
  if (!columns) fit->mismatch = otherOutput;
  if (columns && *columns > family.fixedValues) {
    fit->doubt = "its output " + output.text() + " has more than six columns, as " +
                 family.modelName +
                 " in its default form has, and would be misread: export it with nms=False, which "
                 "gives [1,300,6]";
  }
  constexpr std::int64_t kMaxObjects = 1000;  // more rows are probably candidates before NMS
  fit->likelihood = isFloats(output, 3) && output.shape[1] <= kMaxObjects ? 2 : 1;
}

void checkCandidates(const Family& family, const ModelFile& file, const std::string& otherOutput,
                     Fit* fit) {
  const Port& output = file.outputs[0];
  const bool inColumns = family.layout == OutputLayout::kColumns;
  const std::optional<std::int64_t> values =
      candidateValues(output, inColumns, family.fixedValues + 1);
  const bool hasMasks = file.outputs.size() > 1 && isPrototypeMasks(file.outputs[1]);
  if (!values || (family.hasMasks && !hasMasks)) {
    fit->mismatch = otherOutput;
  } else if (!family.hasMasks && hasMasks) {
    fit->mismatch = "its second output holds masks, as that of a segmentation network";
  } else if (*values != kAnySize) {
    const std::int64_t classValues = *values - family.fixedValues;
    if (classValues % family.valuesPerClass != 0) fit->mismatch = otherOutput;
    fit->classes = classValues / family.valuesPerClass;
    fit->likelihood = family.preference;
    if (family.hasKeyPoints() && fit->classes == family.keyPoints) fit->likelihood = 2;
    if (!family.hasMasks && isTransposed(output, inColumns)) {
      fit->doubt = "its output " + output.text() +
                   " would have more values than candidates, but the model expects " +
                   family.outputText;
    }
  }
}

void checkTextMap(const ModelFile& file, const std::string& otherOutput, Fit* fit) {
  const Port& output = file.outputs[0];
  const auto [height, width] = inputSizeOf(file);
  fit->likelihood = 1;
  if (!isFloats(output, 4) || !fitsSide(output.shape[1], 1)) {
    fit->mismatch = otherOutput;
  } else if (height > 0 || width > 0) {
    fit->doubt =
        "its input has a fixed side, so it takes only frames that shrink to exactly that size: "
        "export it with dynamic height and width";
  }
}

void checkText(const Family& family, const ModelFile& file, const std::string& otherOutput,
               Fit* fit) {
  fit->likelihood = 1;
  const std::optional<std::int64_t> classes = characterCount(file.outputs[0], family.layout);
  if (!classes || *classes == 0 || *classes == 1) {
    fit->mismatch = otherOutput;
    return;
  }
  fit->classes = std::max<std::int64_t>(*classes, 0);
  if (family.builtInClasses > 0 && fit->classes == family.builtInClasses) fit->likelihood = 3;
  // An output with boxes can have the same shape, but only a text recogniser has a wide input.
  const auto [height, width] = inputSizeOf(file);
  if (height > 0 && width >= 2 * height) ++fit->likelihood;
  if (height > 0 && width > 0 && width < 2 * height) {
    fit->doubt =
        "its input of " + sizeText(width, height) + " is not wide enough for a line of text";
  }
}

void checkVector(const Family& family, const Port& output, const std::string& otherOutput,
                 Fit* fit) {
  const std::optional<std::int64_t> length = vectorLength(output);
  const std::int64_t minLength = std::max<std::int64_t>(family.featureLength, 2);
  if (!length || (*length != kAnySize && *length < minLength)) {
    fit->mismatch = otherOutput;
  } else if (family.isClassifier()) {
    fit->classes = std::max<std::int64_t>(*length, 0);
  } else if (*length > family.featureLength) {
    fit->doubt = "only the first " + std::to_string(family.featureLength) + " of its " +
                 std::to_string(*length) + " numbers would be used";
  } else {
    fit->likelihood = 2;
  }
}

void checkOutput(const Family& family, const ModelFile& file, Fit* fit) {
  const Port& output = file.outputs[0];
  const std::string otherOutput = "its output is " + output.text() + ", not " + family.outputText;
  switch (family.layout) {
    case OutputLayout::kColumns:
    case OutputLayout::kRows:
      checkCandidates(family, file, otherOutput, fit);
      break;
    case OutputLayout::kEndToEnd:
      checkEndToEnd(family, output, otherOutput, fit);
      break;
    case OutputLayout::kTextMap:
      checkTextMap(file, otherOutput, fit);
      break;
    case OutputLayout::kTextLine:
    case OutputLayout::kTextTable:
      checkText(family, file, otherOutput, fit);
      break;
    case OutputLayout::kVector:
      checkVector(family, output, otherOutput, fit);
      break;
  }
  const bool isOpen = output.ranked && std::ranges::count(output.shape, kAnySize) > 0;
  if (fit->mismatch.empty() && family.isYolo() && file.engine == "ONNXRuntime" && isOpen) {
    fit->mismatch = "its output " + output.text() + " has no fixed size";
  }
}

// Whether a network exported for the task can belong to the family; true if no family has that
// task.
bool suitsTask(const Family& family, const std::string& task) {
  return family.task == task ||
         std::ranges::find(families(), task, &Family::task) == families().end();
}

}  // namespace

std::pair<std::int64_t, std::int64_t> inputSizeOf(const ModelFile& file) {
  if (file.inputs.empty() || !file.inputs[0].ranked || file.inputs[0].shape.size() != 4) {
    return {kAnySize, kAnySize};
  }
  return {file.inputs[0].shape[2], file.inputs[0].shape[3]};
}

Fit fitOf(const Family& family, const ModelFile& file) {
  Fit fit;
  if (file.outputs.empty()) fit.mismatch = "it has no output";
  if (fit.mismatch.empty()) fit.mismatch = inputMismatch(family, file);
  if (!fit.mismatch.empty()) return fit;
  checkOutput(family, file, &fit);
  const ExportInfo info = exportInfoOf(file);
  const auto named = std::ssize(info.names);
  const bool countsClasses =
      (family.isYolo() && !family.hasKeyPoints() && family.layout != OutputLayout::kEndToEnd) ||
      family.isClassifier();
  if (fit.mismatch.empty() && !info.task.empty() && !suitsTask(family, info.task)) {
    fit.mismatch = "according to the file it is for the task " + inQuotes(info.task);
  } else if (fit.mismatch.empty() && countsClasses && fit.classes > 0 && named > 0 &&
             fit.classes != named) {
    fit.mismatch = "its output has " + std::to_string(fit.classes) +
                   " classes for this model, and the file names " + std::to_string(named);
  } else if (fit.mismatch.empty() && !family.isOn(file.engine)) {
    fit.mismatch = "it runs on OpenVINO only: \"ovc FILE\" converts it to .xml";
  } else if (countsClasses && named > 0) {
    fit.likelihood += 2;
  }
  return fit;
}

std::vector<const Family*> fittingFamilies(const ModelFile& file) {
  std::vector<const Family*> fitting;
  for (const Family& family : families()) {
    if (fitOf(family, file).isGood()) fitting.push_back(&family);
  }
  std::ranges::stable_sort(fitting, std::ranges::greater(), [&file](const Family* family) {
    return fitOf(*family, file).likelihood;
  });
  return fitting;
}

std::vector<Mismatch> mismatchesOf(const ModelFile& file) {
  std::vector<Mismatch> mismatches;
  for (const Family& family : families()) {
    const Fit fit = fitOf(family, file);
    if (fit.isGood()) continue;
    const std::string& reason = fit.mismatch.empty() ? fit.doubt : fit.mismatch;
    auto entry = std::ranges::find(mismatches, reason, &Mismatch::reason);
    if (entry == mismatches.end()) entry = mismatches.insert(entry, {reason, {}});
    entry->models.push_back(family.category + " " + family.modelName);
  }
  return mismatches;
}

std::string classesText(const Family& family, std::int64_t classes) {
  if (classes < 1) return "";
  return counted(classes, family.hasKeyPoints() ? "key point" : "class");
}

}  // namespace vsa
