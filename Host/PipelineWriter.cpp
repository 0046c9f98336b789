#include "PipelineWriter.h"

#include <algorithm>
#include <fstream>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "ExportInfo.h"
#include "JsonLines.h"
#include "Messages.h"
#include "ModelFit.h"
#include "Text.h"

namespace vsa {
namespace {

namespace fs = std::filesystem;

using Names = std::vector<std::string>;

// Class names for the network; empty if they are unknown.
Names knownNames(const Family& family, const ExportInfo& info, std::int64_t classes) {
  if (family.hasKeyPoints() && !info.names.empty()) return {info.names.front()};
  if (!family.onlyName.empty()) return {family.onlyName};
  if (!family.builtInNames.empty() && classes == family.builtInClasses) {
    return {family.builtInNames};
  }
  if (!family.readsText()) return info.names;
  Names alphabet = info.names;
  alphabet.insert(alphabet.begin(), "");  // the CTC blank
  if (std::ssize(alphabet) + 1 == classes) alphabet.emplace_back(" ");
  return std::ssize(alphabet) == classes ? alphabet : Names();
}

Names numberedNames(std::int64_t classes) {
  constexpr std::int64_t kUnknownClasses = 80;
  Names names;
  for (std::int64_t i = 0; i < (classes > 0 ? classes : kUnknownClasses); ++i) {
    names.push_back("class " + std::to_string(i));
  }
  return names;
}

Json::Value namesJson(const Names& names) {
  Json::Value list(Json::arrayValue);
  for (const std::string& name : names) list.append(repairUtf8(name));
  return list;
}

template <class Name>
Names namesOf(const std::vector<const Family*>& families, Name name) {
  Names names(families.size());
  std::ranges::transform(families, names.begin(),
                         [&name](const Family* family) { return std::invoke(name, *family); });
  return names;
}

// The path as a shell takes it.
std::string quoted(const std::string& path) {
  constexpr std::string_view kPlain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+,:@%";
  if (path.find_first_not_of(kPlain) == std::string::npos) return path;
  std::string text = "'";
  for (const char c : path) text += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return printable(text + "'");
}

// The message without the path at its beginning.
std::string withoutPath(const std::string& path, std::string message) {
  if (message.starts_with(path + ": ")) message.erase(0, path.size() + 2);
  return message;
}

}  // namespace

PipelineEntry pipelineEntry(const Family& family, const ModelFile& file, const fs::path& folder) {
  const Fit fit = fitOf(family, file);
  const ExportInfo info = exportInfoOf(file);
  auto [height, width] = inputSizeOf(file);
  if (!info.size.empty() && family.isClassifier()) {
    if (height < 1) height = info.size[0];
    if (width < 1) width = info.size[1];
  }
  const fs::path path = fs::absolute(file.path);
  std::error_code unused;
  fs::path root = fs::relative(path.parent_path(), folder, unused);
  if (root.empty()) root = path.parent_path();
  const fs::path name = file.engine == "OpenVINO" ? path.stem() : path.filename();
  const Names names = knownNames(family, info, fit.classes);

  PipelineEntry entry;
  entry.hasRealNames = !names.empty();
  entry.text = "    {";
  const auto add = [&entry](const char* key, const Json::Value& value) {
    const char* separator = entry.text.ends_with('{') ? "\n" : ",\n";
    entry.text += separator + ("      \"" + std::string(key) + "\": ") + jsonText(value);
  };
  const auto side = [](std::int64_t own, std::int64_t usual) {
    return static_cast<Json::Int64>(own > 0 ? own : usual);
  };
  const auto addThreshold = [&add](const char* key, const std::optional<float>& value) {
    if (value) add(key, jsonNumber(*value));
  };
  add("category", family.category);
  add("modelName", family.modelName);
  add("engine", file.engine);
  add("modelRoot", root.generic_string());
  add("modelFile", name.generic_string());
  add("classNames", namesJson(names.empty() ? numberedNames(fit.classes) : names));
  if (family.hasKeyPoints()) add("classCount", static_cast<Json::Int64>(fit.classes));
  add("inputWidth", side(width, family.width));
  if (family.layout != OutputLayout::kTextMap) add("inputHeight", side(height, family.height));
  const bool isDetector = family.category == "Detect";
  addThreshold("scoreThreshold", isDetector ? family.score.value_or(0.25F) : family.score);
  addThreshold("objThreshold", family.object);
  addThreshold("nmsThreshold", isDetector ? family.nms.value_or(0.45F) : family.nms);
  // The exporter that writes a task trains with grey padding.
  constexpr int kUsualPadding = 114;
  if (family.isYolo() && !info.task.empty()) add("padding", kUsualPadding);
  entry.text += "\n    }";
  return entry;
}

std::string pipelineText(const std::vector<std::string>& entries) {
  return "{\n  \"models\": [\n" + joined(entries, ",\n") + "\n  ]\n}\n";
}

void writePipeline(const fs::path& path, const std::vector<std::string>& entries) {
  std::ofstream stream(path, std::ios::binary);
  stream << pipelineText(entries);
  if (!stream.flush()) throw std::runtime_error("the file cannot be written");
}

bool isNetworkFile(const std::string& path) {
  const fs::path extension = fs::path(path).extension();
  return extension == ".xml" || extension == ".onnx";
}

Pipeline networkPipeline(const std::string& path, const std::string& as) {
  ModelFile file;
  try {
    file = readModelFile(path);
  } catch (const std::exception& error) {
    throw PipelineError(path, withoutPath(path, error.what()));
  }
  std::vector<const Family*> fitting = fittingFamilies(file);
  if (fitting.empty()) {
    throw PipelineError(path, "the network fits no model; the reasons: vsa doctor " + quoted(path));
  }
  if (!as.empty()) {
    const Names names = namesOf(fitting, &Family::modelName);
    std::erase_if(fitting, [&as](const Family* family) { return family->modelName != as; });
    if (fitting.empty()) {
      throw PipelineError(path, "the network does not fit the model " + inQuotes(as) + " but " +
                                    joined(names, " and ") + suggestion(as, names));
    }
  }
  if (fitting.size() > 1) {
    const Names names = namesOf(
        fitting, [](const Family& family) { return family.category + " " + family.modelName; });
    throw PipelineError(path, "the network fits " + joined(names, " and ") +
                                  "; this runs it as the first: vsa run --as " +
                                  fitting[0]->modelName + " " + quoted(path) + " INPUT");
  }
  const fs::path folder = fs::absolute(path).parent_path();
  return parsePipeline(pipelineText({pipelineEntry(*fitting[0], file, folder).text}), path);
}

}  // namespace vsa
