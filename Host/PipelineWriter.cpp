#include "PipelineWriter.h"

#include <fstream>
#include <optional>
#include <stdexcept>

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
  addThreshold("scoreThreshold", family.score);
  addThreshold("objThreshold", family.object);
  addThreshold("nmsThreshold", family.nms);
  entry.text += "\n    }";
  return entry;
}

void writePipeline(const fs::path& path, const std::vector<std::string>& entries) {
  std::ofstream stream(path, std::ios::binary);
  stream << "{\n  \"models\": [\n" << joined(entries, ",\n") << "\n  ]\n}\n";
  if (!stream.flush()) throw std::runtime_error("the file cannot be written");
}

}  // namespace vsa
