#include "PipelineCheck.h"

#include <algorithm>
#include <exception>
#include <iterator>

#include "DeviceNames.h"
#include "ExportInfo.h"
#include "JsonLines.h"
#include "Messages.h"
#include "ModelFit.h"

namespace vsa {
namespace {

using Names = std::vector<std::string>;

std::string setting(const std::string& key, std::int64_t value) {
  return '"' + key + "\": " + std::to_string(value);
}

// The message that the library has no such model, with advice.
std::string unknownModel(const VsaModelConfig& config) {
  const std::string sentence = "the library has no model " + inQuotes(config.modelName) +
                               " for category " + inQuotes(config.category) + " on engine " +
                               inQuotes(config.engine);
  Names names;
  for (const Family& family : families()) {
    if (family.modelName != config.modelName) {
      names.push_back(family.modelName);
    } else if (family.category != config.category) {
      return sentence + ": set \"category\": " + inQuotes(family.category);
    } else {
      return sentence + ": convert the file with ovc and set \"engine\": \"OpenVINO\"";
    }
  }
  return sentence + suggestion(config.modelName, names);
}

// Compares the names in the settings with those in the file.
void checkNames(const Names& given, const Names& own, Findings* findings) {
  if (given.size() != own.size()) return;
  const auto [mine, theirs] = std::ranges::mismatch(given, own);
  if (mine == given.end()) return;
  findings->warnings.push_back("classNames[" + std::to_string(mine - given.begin()) + "] is " +
                               inQuotes(*mine) + ", but the name in the file is " +
                               inQuotes(*theirs) + ": check the order of the names");
}

void checkKeyPoints(const VsaModelConfig& config, const Family& family, std::int64_t keyPoints,
                    const std::string& has, Findings* findings) {
  const auto count = std::int64_t{config.classCount};
  const std::int64_t configured = count == 1 ? family.keyPoints : count;
  if (keyPoints < 1 || configured == keyPoints) return;
  const std::string meaning = ", which means " + classesText(family, configured) + ",";
  findings->errors.push_back("classCount is " + std::to_string(count) +
                             (count == 1 ? meaning : "") + " and " + has + ": set " +
                             setting("classCount", keyPoints));
}

void checkAlphabet(const VsaModelConfig& config, const Family& family, const Port& output,
                   std::int64_t classes, const std::string& has, Findings* findings) {
  const bool isLine = family.layout == OutputLayout::kTextLine;
  const bool isBuiltIn =
      !family.builtInNames.empty() && config.classNames == Names{family.builtInNames};
  const std::int64_t named = std::ssize(config.classNames);
  const std::int64_t characters = isBuiltIn ? family.builtInClasses : named;
  // Dictionaries of text lines often lack the space, which is the last class.
  const bool fits = characters == classes || (isLine && named + 1 == classes);
  if (classes < 1 || fits) return;
  const auto& shape = output.shape;
  if (!isLine && shape.size() == 3 && shape[1] != 1 && std::min(shape[1], shape[2]) == named) {
    findings->errors.push_back("its output is " + output.text() +
                               ", of which the larger dimension is taken as the number of classes, "
                               "but classNames has as many names as the smaller one: export the "
                               "network with the output [T, 1, classes]");
    return;
  }
  findings->errors.push_back(
      (isBuiltIn ? "the built-in dictionary is for " : "classNames has ") +
      counted(characters, isBuiltIn ? "class" : "name") + " and " + has +
      ": list the alphabet of the network in classNames, with the CTC blank as entry 0");
}

void checkClasses(const VsaModelConfig& config, const Family& family, const ModelFile& file,
                  std::int64_t classes, Findings* findings) {
  const std::string has = "the network has " + classesText(family, classes);
  if (family.hasKeyPoints()) return checkKeyPoints(config, family, classes, has, findings);
  if (family.readsText()) {
    return checkAlphabet(config, family, file.outputs[0], classes, has, findings);
  }
  if (family.gives == Gives::kTextRegions || family.isEmbedding()) return;
  const auto named = std::ssize(config.classNames);
  const auto count = std::int64_t{config.classCount};
  if (classes > 0 && count != classes && named == classes) {
    findings->errors.push_back("classCount is " + std::to_string(count) + " and " + has + ": set " +
                               setting("classCount", classes));
  } else if (classes > 0 && named != classes) {
    findings->errors.push_back(
        "classNames has " + counted(named, "name") + " and " + has +
        ": list all names in the order of the network's output" +
        (count == classes || count == named ? "" : " and set " + setting("classCount", classes)));
  }
  checkNames(config.classNames, exportInfoOf(file).names, findings);
}

void checkSize(const VsaModelConfig& config, const Family& family, const ModelFile& file,
               Findings* findings) {
  if (family.layout == OutputLayout::kTextMap) return;
  const auto [height, width] = inputSizeOf(file);
  const std::int64_t givenWidth = config.inputWidth > 0 ? config.inputWidth : family.unsetWidth;
  const std::int64_t givenHeight = config.inputHeight > 0 ? config.inputHeight : family.unsetHeight;
  const auto differs = [](std::int64_t given, std::int64_t wanted) {
    return wanted > 0 ? given != wanted : given == 0;
  };
  if (!differs(givenWidth, width) && !differs(givenHeight, height)) return;
  findings->errors.push_back("inputWidth x inputHeight is " + sizeText(givenWidth, givenHeight) +
                             " and the network takes " + sizeText(width, height) + ": set " +
                             setting("inputWidth", width > 0 ? width : family.width) + ", " +
                             setting("inputHeight", height > 0 ? height : family.height));
}

void checkDevice(const VsaModelConfig& config, const VsaDeviceSet& devices, Findings* findings) {
  const std::string& device = config.device;
  const bool isPlain = device.find_first_of(":.") == std::string::npos && device != "AUTO";
  if (config.engine != "OpenVINO" || !isPlain || devices.contains("OpenVINO-" + device)) return;
  findings->errors.push_back("this machine has no device " + inQuotes(device) +
                             " (see vsa devices): set \"device\": \"CPU\"");
}

// The model that reads text regions.
std::string readerOfRegions() {
  const auto family = std::ranges::find(families(), Needs::kTextRegions, &Family::needs);
  return family == families().end() ? "another model" : family->modelName;
}

std::string textDetector() {
  const auto family = std::ranges::find(families(), Gives::kTextRegions, &Family::gives);
  return family == families().end()
             ? "a text detector"
             : "the text detector (" + family->category + " " + family->modelName + ")";
}

std::string mismatchText(const VsaModelConfig& config, const ModelFile& file, const Fit& fit) {
  std::string advice;
  for (const Family* other : fittingFamilies(file)) {
    advice += (advice.empty() ? ": it fits " : " or ") + other->category + " " + other->modelName;
  }
  if (advice.empty()) advice = ": see docs/exporting.md for how to export such a network";
  return "the network does not fit " + config.modelName + ", as " + fit.mismatch + advice;
}

}  // namespace

std::string squareWarning(std::int64_t width, std::int64_t height) {
  if (width == height) return "";
  return "the input of " + sizeText(width, height) +
         " is not square: boxes are correct only for frames that fill its height";
}

Findings checkModel(const VsaModelConfig& config, const ModelFile& file) {
  Findings findings;
  const Family* family = findFamily(config.category, config.modelName);
  if (family != nullptr && file.engine != config.engine) {
    findings.errors.push_back(
        "the file is for " + file.engine + ", not for " + config.engine +
        ": set \"engine\": " + inQuotes(file.engine) +
        (file.engine == "OpenVINO" ? " and leave \".xml\" out of modelFile" : ""));
    return findings;
  }
  if (family == nullptr || !family->isOn(config.engine)) {
    findings.errors.push_back(unknownModel(config));
    return findings;
  }
  const Fit fit = fitOf(*family, file);
  if (!fit.mismatch.empty()) {
    findings.errors.push_back(mismatchText(config, file, fit));
    return findings;
  }
  checkClasses(config, *family, file, fit.classes, &findings);
  checkSize(config, *family, file, &findings);
  if (!fit.doubt.empty()) findings.warnings.push_back(fit.doubt);
  if (family->isYolo()) {
    const auto [height, width] = inputSizeOf(file);
    const std::string warning = squareWarning(width, height);
    if (!warning.empty()) {
      findings.warnings.push_back(warning + "; export the network with a square input");
    }
    if (config.scoreThreshold == 0.0F) {
      findings.warnings.push_back("scoreThreshold is 0, so all candidates count: set it to about " +
                                  jsonText(jsonNumber(family->score.value_or(0.0F))));
    }
  } else if (family->layout == OutputLayout::kTextMap) {
    findings.notes.push_back(
        "the detector needs more memory for each new frame size: use frames of few sizes");
  }
  return findings;
}

Findings examineModel(const ModelSpec& spec, const VsaDeviceSet& devices) {
  const VsaModelConfig& config = spec.config;
  if (spec.family() == nullptr) return {{unknownModel(config)}, {}};
  Findings findings;
  try {
    findings = checkModel(config, readModelFile(spec.networkFile()));
  } catch (const std::exception& error) {
    findings.errors.push_back(oneLine(error.what()));
  }
  checkDevice(config, devices, &findings);
  return findings;
}

std::string refusalReason(const ModelSpec& spec) {
  return joined(examineModel(spec, deviceNames()).errors, "; ");
}

std::vector<Findings> checkOrder(const std::vector<ModelSpec>& models) {
  std::vector<Findings> order(models.size());
  bool hasBoxes = false;
  bool hasTextRegions = false;
  for (std::size_t i = 0; i < models.size(); ++i) {
    const VsaModelConfig& config = models[i].config;
    const Family* family = findFamily(config.category, config.modelName);
    if (family == nullptr || family->takes == Media::kAudio) continue;
    hasBoxes = hasBoxes || family->gives == Gives::kBoxes;
    hasTextRegions = hasTextRegions || family->gives == Gives::kTextRegions;
    if (family->needs == Needs::kNothing) continue;
    if (!hasBoxes && !hasTextRegions) {
      order[i].warnings.push_back(
          "it works on the objects of a detector, but there is no detector before it: add one, or "
          "provide recorded objects with --objects");
    } else if (family->needs == Needs::kTextRegions && !hasTextRegions) {
      order[i].warnings.push_back(
          "the detector before it gives no corners, so it reads each box as one upright line: for "
          "slanted text put " +
          textDetector() + " before it");
    } else if (family->needs == Needs::kBoxes && !hasBoxes) {
      order[i].errors.push_back(
          "it works on boxes, but the text detector before it provides corners: put a YOLO "
          "detector before it" +
          (family->readsText() ? ", or use " + readerOfRegions() + " to read the text" : ""));
    }
  }
  return order;
}

}  // namespace vsa
