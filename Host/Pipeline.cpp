// Every error in a pipeline file is reported in one sentence with its location. Names, types,
// ranges and files are checked before a configuration is passed to the library.
#include "Pipeline.h"

#include <json/json.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <string_view>
#include <tuple>

#include "Families.h"
#include "Inputs.h"
#include "Messages.h"
#include "Text.h"

namespace vsa {
namespace {

namespace fs = std::filesystem;

using Names = std::vector<std::string>;

const Names kTopKeys = {"modelRoot", "models", "blockSeconds"};
const Names kModelKeys = {
    "category",     "modelName",    "engine",     "device",        "modelFile",   "modelDir",
    "modelRoot",    "classNames",   "classCount", "inputWidth",    "inputHeight", "scoreThreshold",
    "nmsThreshold", "objThreshold", "padding",    "wantedClasses", "wantedLabels"};
const Names kCategories = {"Detect", "Classify", "Track"};
const Names kEngines = {"OpenVINO", "ONNXRuntime"};
constexpr std::uint32_t kMaxSide = 65535;
// For pipeline files and files of class names; the largest dictionaries in use have about 100 kB.
constexpr std::size_t kMaxFileBytes = std::size_t{16} << 20;

std::string choicesText(const Names& names) {
  Names texts;
  for (const std::string& name : names) texts.push_back(inQuotes(name));
  return joined(texts, " or ");
}

// JSON is UTF-8 on every system, file names are not.
fs::path pathOf(const std::string& utf8) {
  return {std::u8string(utf8.begin(), utf8.end())};
}

std::string kindOf(const Json::Value& value) {
  switch (value.type()) {
    case Json::nullValue:
      return "null";
    case Json::stringValue:
      return "a string";
    case Json::booleanValue:
      return "true or false";
    case Json::arrayValue:
      return "an array";
    case Json::objectValue:
      return "an object";
    default:
      return "a number";
  }
}

// Reads the file into `*content`. Returns why that failed; empty if it succeeded.
std::string readFile(const fs::path& path, std::string* content) {
  std::string reason = whyUnreadable(path.string());
  if (!reason.empty()) return reason;
  std::ifstream file(path, std::ios::binary);
  // Pipes and devices have no size, so they are read up to the limit.
  std::array<char, 1 << 16> block;
  while (file.read(block.data(), block.size()), file.gcount() > 0) {
    content->append(block.data(), static_cast<std::size_t>(file.gcount()));
    if (content->size() > kMaxFileBytes) {
      return "larger than " + std::to_string(kMaxFileBytes >> 20) + " MiB";
    }
  }
  return file.bad() ? "the file cannot be read" : "";
}

// The members of one JSON object. Each is checked when it is read.
class Fields {
 public:
  Fields(const Json::Value& object, std::string location, const Names& known)
      : object_(object), location_(std::move(location)) {
    if (!object_.isObject()) fail("must be an object, not " + kindOf(object_));
    for (const std::string& key : object_.getMemberNames()) {
      if (std::find(known.begin(), known.end(), key) == known.end()) {
        fail("unknown key " + inQuotes(key) + suggestion(key, known));
      }
    }
  }

  [[noreturn]] void fail(const std::string& sentence) const {
    throw PipelineError(location_, sentence);
  }

  bool has(const char* key) const { return object_.isMember(key); }
  const Json::Value& at(const char* key) const { return object_[key]; }

  std::string text(const char* key, const char* fallback = nullptr) const {
    if (!has(key) && fallback != nullptr) return fallback;
    if (!has(key)) fail(std::string(key) + " is missing");
    if (!at(key).isString()) wrongType(key, "a string");
    return at(key).asString();
  }

  std::string oneOf(const char* key, const Names& choices) const {
    std::string value = text(key);
    if (std::find(choices.begin(), choices.end(), value) == choices.end()) {
      fail(std::string(key) + " must be " + choicesText(choices) + ", not " + inQuotes(value) +
           suggestion(value, choices));
    }
    return value;
  }

  std::uint32_t wholeNumber(const char* key, std::uint32_t max, std::uint32_t fallback) const {
    if (!has(key)) return fallback;
    if (!at(key).isNumeric()) wrongType(key, "a number");
    if (!at(key).isUInt() || at(key).asUInt() > max) {
      wrongNumber(key, "a whole number from 0 to " + std::to_string(max));
    }
    return at(key).asUInt();
  }

  float fraction(const char* key) const {
    if (!has(key)) return 0.0F;
    return static_cast<float>(number(key, 0.0, 1.0, "a number from 0 to 1"));
  }

  double number(const char* key, double min, double max, const char* wanted) const {
    if (!at(key).isNumeric()) wrongType(key, "a number");
    const double value = at(key).asDouble();
    if (!(value >= min && value <= max)) wrongNumber(key, wanted);
    return value;
  }

  Names list(const char* key) const {
    if (!at(key).isArray()) wrongType(key, "an array of strings");
    Names names;
    for (const Json::Value& entry : at(key)) {
      if (!entry.isString()) {
        fail(std::string(key) + "[" + std::to_string(names.size()) + "] must be a string, not " +
             kindOf(entry));
      }
      names.push_back(entry.asString());
    }
    return names;
  }

  [[noreturn]] void wrongType(const char* key, const std::string& wanted) const {
    fail(std::string(key) + " must be " + wanted + ", not " + kindOf(at(key)));
  }

 private:
  [[noreturn]] void wrongNumber(const char* key, const std::string& wanted) const {
    Json::StreamWriterBuilder builder;
    builder["precision"] = 9;
    fail(std::string(key) + " must be " + wanted + ", not " + Json::writeString(builder, at(key)));
  }

  const Json::Value& object_;
  std::string location_;
};

Json::Value parse(const std::string& content, const std::string& path) {
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  builder["rejectDupKeys"] = true;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errors;
  bool good = false;
  try {
    good = reader->parse(content.data(), content.data() + content.size(), &root, &errors);
  } catch (const Json::Exception&) {
    throw PipelineError(path, "arrays or objects are nested too deep");
  }
  if (good) return root;
  // jsoncpp writes "* Line 3, Column 5\n  What is wrong.\n" for each error. The first is the cause;
  // most others follow from it.
  std::string first = oneLine(std::string_view(errors).substr(0, errors.find("\n*")));
  int line = 0;
  int column = 0;
  int length = 0;
  if (std::sscanf(first.c_str(), "* Line %d, Column %d %n", &line, &column, &length) == 2) {
    first = "line " + std::to_string(line) + ", column " + std::to_string(column) + ": " +
            first.substr(static_cast<std::size_t>(length));
  }
  throw PipelineError(path, first);
}

// Names from a text file, one per line. Lines are kept as they are because a dictionary may hold a
// space or an empty name; only empty lines at the end are dropped.
Names readNames(const Fields& fields, const fs::path& folder) {
  const std::string given = fields.at("classNames").asString();
  std::string content;
  const std::string problem = readFile(folder / pathOf(given), &content);
  if (!problem.empty()) fields.fail("classNames: the file " + inQuotes(given) + ": " + problem);
  std::string_view rest = content;
  if (rest.starts_with("\xEF\xBB\xBF")) rest.remove_prefix(3);
  Names names;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (line.ends_with('\r')) line.remove_suffix(1);
    names.emplace_back(line);
    if (repairUtf8(line) != line) {
      fields.fail("classNames: line " + std::to_string(names.size()) + " of " + inQuotes(given) +
                  " is not UTF-8");
    }
  }
  while (!names.empty() && names.back().empty()) names.pop_back();
  if (names.empty()) fields.fail("classNames: the file " + inQuotes(given) + " is empty");
  return names;
}

Names classNames(const Fields& fields, const fs::path& folder) {
  if (!fields.has("classNames")) fields.fail("classNames is missing");
  const Json::Value& value = fields.at("classNames");
  if (value.isString()) return readNames(fields, folder);
  if (!value.isArray()) fields.wrongType("classNames", "an array of strings or the path of a file");
  Names names = fields.list("classNames");
  if (names.empty()) fields.fail("classNames must not be empty");
  return names;
}

std::set<std::string> wanted(const Fields& fields, const char* key, const Names& names) {
  if (!fields.has(key)) return {names.begin(), names.end()};
  const Names chosen = fields.list(key);
  const std::set<std::string> known(names.begin(), names.end());
  for (const std::string& name : chosen) {
    if (!known.contains(name)) {
      fields.fail(std::string(key) + ": " + inQuotes(name) + " is not in classNames" +
                  suggestion(name, names));
    }
  }
  return {chosen.begin(), chosen.end()};
}

// The folder of the model files without a separator at its end, as the library requires.
std::string modelRoot(const Fields& fields, const Fields& top, const fs::path& folder) {
  const Fields& source = fields.has("modelRoot") ? fields : top;
  std::string root = (folder / pathOf(source.text("modelRoot", ""))).lexically_normal().string();
  while (root.size() > 1 && (root.back() == '/' || root.back() == fs::path::preferred_separator)) {
    root.pop_back();
  }
  return root.empty() ? "." : root;
}

// Reports a missing file in one short sentence; the message of the engine is long.
void checkModelFile(const ModelSpec& spec, const Fields& fields) {
  const VsaModelConfig& config = spec.config;
  const std::string file = spec.networkFile();
  std::error_code unused;
  if (!fs::is_regular_file(fs::path(file), unused)) {
    std::string advice;
    if (config.engine == "OpenVINO") {
      const fs::path named = file.substr(0, file.size() - 4);
      const bool isThere = fs::is_regular_file(named, unused);
      if (isThere && named.extension() == ".xml") advice = "; leave \".xml\" out of modelFile";
      if (isThere && named.extension() == ".onnx") {
        advice = "; for the .onnx file set \"engine\": \"ONNXRuntime\"";
      }
    }
    fields.fail("there is no model file " + inQuotes(fs::path(file).lexically_normal().string()) +
                advice);
  }
}

ModelSpec readModel(const Json::Value& value, const std::string& location, const Fields& top,
                    const fs::path& folder) {
  const Fields fields(value, location, kModelKeys);
  ModelSpec spec;
  spec.location = location;
  VsaModelConfig& config = spec.config;
  config.category = fields.oneOf("category", kCategories);
  config.modelName = fields.text("modelName");
  config.engine = fields.oneOf("engine", kEngines);
  config.device = fields.text("device", "CPU");
  config.modelFile = fields.text("modelFile", "");
  config.modelDir = fields.text("modelDir", "");
  config.classNames = classNames(fields, folder);
  config.classCount = fields.wholeNumber("classCount", std::numeric_limits<std::int32_t>::max(),
                                         static_cast<std::uint32_t>(config.classNames.size()));
  config.inputWidth = fields.wholeNumber("inputWidth", kMaxSide, 0);
  config.inputHeight = fields.wholeNumber("inputHeight", kMaxSide, 0);
  config.scoreThreshold = fields.fraction("scoreThreshold");
  config.nmsThreshold = fields.fraction("nmsThreshold");
  config.objThreshold = fields.fraction("objThreshold");
  spec.modelRoot = modelRoot(fields, top, folder);
  if (fields.at("classNames").isString()) {
    spec.namesFile = (folder / pathOf(fields.text("classNames"))).string();
  }
  spec.wantedClasses = wanted(fields, "wantedClasses", config.classNames);
  spec.wantedLabels = wanted(fields, "wantedLabels", config.classNames);
  if (fields.has("padding")) {
    spec.padding = static_cast<std::uint8_t>(fields.wholeNumber("padding", 255, 0));
    const Family* family = spec.family();
    if (family != nullptr && !family->isYolo()) fields.fail("padding is for YOLO detectors only");
  }
  checkModelFile(spec, fields);
  return spec;
}

}  // namespace

const Family* ModelSpec::family() const {
  return findFamily(config.category, config.modelName);
}

bool ModelSpec::writesGbk() const {
  const Family* row = family();
  return row != nullptr && !row->builtInNames.empty() &&
         config.classNames == Names{row->builtInNames};
}

std::string ModelSpec::networkFile() const {
  return vsaModelPath(config, modelRoot) + (config.engine == "OpenVINO" ? ".xml" : "");
}

bool ModelSpec::takesAudio() const {
  const Family* row = family();
  return row != nullptr && row->takes == Media::kAudio;
}

bool ModelSpec::needsObjects() const {
  const Family* row = family();
  return row != nullptr && row->needs != Needs::kNothing;
}

bool ModelSpec::cutsBoxesOut() const {
  const Family* row = family();
  return row != nullptr && row->needs == Needs::kBoxes;
}

Pipeline readPipeline(const std::string& path) {
  std::string content;
  const std::string problem = readFile(fs::path(path), &content);
  if (!problem.empty()) throw PipelineError(path, problem);
  return parsePipeline(content, path);
}

Pipeline parsePipeline(const std::string& content, const std::string& path) {
  const Json::Value root = parse(content, path);
  const Fields top(root, path, kTopKeys);
  const fs::path folder = fs::path(path).parent_path();
  if (!top.has("models")) top.fail("models is missing");
  if (!top.at("models").isArray()) top.wrongType("models", "an array");
  if (top.at("models").empty()) top.fail("models must not be empty");
  Pipeline pipeline;
  for (const Json::Value& value : top.at("models")) {
    const std::string index = "models[" + std::to_string(pipeline.models.size()) + "]";
    std::string location = path;
    location += ": " + index;
    ModelSpec spec = readModel(value, location, top, folder);
    spec.name = index + " " + printable(spec.config.modelName) + " (" + spec.config.category + ")";
    pipeline.models.push_back(std::move(spec));
  }
  const ModelSpec& first = pipeline.models.front();
  pipeline.takesAudio = first.takesAudio();
  for (const ModelSpec& spec : pipeline.models) {
    if (spec.takesAudio() != pipeline.takesAudio) {
      const auto& [audio, image] =
          pipeline.takesAudio ? std::tie(first, spec) : std::tie(spec, first);
      top.fail(audio.name + " takes audio and " + image.name +
               " takes images; they belong in two pipelines");
    }
  }
  if (top.has("blockSeconds")) {
    if (!pipeline.takesAudio) top.fail("blockSeconds is for models that take audio");
    pipeline.blockSeconds =
        top.number("blockSeconds", 0.02, 60.0, "a number of seconds from 0.02 to 60");
  }
  return pipeline;
}

}  // namespace vsa
