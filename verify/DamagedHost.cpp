// Usage: DamagedHost FOLDER NETWORKS FIRST LAST
//
// For each seed from FIRST to LAST - 1, damages a pipeline file, a network or a file of recorded
// objects and runs a command of vsa on it, in this process. Prints one line per seed: the seed and
// the exit status, or "FINDING:" and what is wrong: a status that is not documented, a failure
// without a message, too many messages, or control characters in the output. NETWORKS is the
// folder that tests/host/make_networks.py wrote. The files of a seed with a finding stay in
// FOLDER/SEED.

#include <glog/logging.h>
#include <sanitizer/common_interface_defs.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <memory>
#include <opencv2/imgcodecs.hpp>
#include <stdexcept>

#include "Command.h"
#include "JsonLines.h"
#include "ModelFit.h"
#include "PipelineWriter.h"
#include "Text.h"
#include "verify/Damage.h"

namespace {

namespace fs = std::filesystem;

using Strings = std::vector<std::string>;

template <class List>
const auto& oneOf(Random& random, const List& list) {
  return list[below(random, std::size(list))];
}

// --- Hostile content --------------------------------------------------------------------------

// What a terminal, a file system or a reader of JSON, XML or UTF-8 could interpret.
const Strings kFragments = {
    "\x1b[31m",
    "\x1b]0;title\x07",
    std::string("\0", 1),
    "\r",
    "\n",
    "\x7f",
    "\xC2\x9B",
    "\u061C",
    "\u200F",
    "\u202E",
    "\u2067",
    "\xFF\xFE",
    "\xED\xA0\x80",
    "\xF4\x90\x80\x80",
    "\xEF\xBB\xBF",
    "&#x1b;[31m",
    "&#x202e;",
    "\\u001b[31m",
    "\\u202e",
    "\\ud800",
    "\\u0000",
    "\\x",
    "%s%n",
    "../",
    "-",
    "--help",
    "http://a:b@c/",
    "/dev/zero",
    "'",
    "\"",
    "{",
    "}",
    "[",
    "]",
    ",",
    ":",
    "/*",
    "//",
    "1e999",
    "NaN",
    "-0",
    "{'0': 'a', 0: 'b'}",
};
// Keys of pipeline files, values that the library knows, and devices.
const Strings kWords = {"models",
                        "modelRoot",
                        "modelDir",
                        "modelFile",
                        "category",
                        "modelName",
                        "engine",
                        "device",
                        "classNames",
                        "classCount",
                        "inputWidth",
                        "inputHeight",
                        "padding",
                        "objects",
                        "scoreThreshold",
                        "wantedClasses",
                        "wantedLabels",
                        "objThreshold",
                        "Detect",
                        "Classify",
                        "Track",
                        "OpenVINO",
                        "ONNXRuntime",
                        "YOLO8",
                        "YOLO8-POSE",
                        "PaddleOCR",
                        "VsOCR",
                        "paddleocr",
                        "AudioNet",
                        "AUTO",
                        "GPU.7",
                        "CPU",
                        "HETERO:CPU",
                        "MULTI:CPU",
                        "BATCH:CPU(4)",
                        "blockSeconds",
                        "person",
                        "text",
                        "",
                        ".",
                        "/",
                        "/dev/null",
                        "nmsThreshold"};
constexpr double kNumbers[] = {0,
                               1,
                               -1,
                               0.5,
                               254.5,
                               65535,
                               65536,
                               2147483647,
                               2147483648,
                               4294967295,
                               4294967296,
                               9007199254740992,
                               9223372036854775807.0,
                               18446744073709551615.0,
                               1e300,
                               -1e300,
                               5e-324,
                               std::numeric_limits<float>::max()};

std::string hostileText(Random& random) {
  std::string text = random() % 2 == 0 ? oneOf(random, kWords) : oneOf(random, kFragments);
  if (random() % 4 == 0) text += oneOf(random, kFragments);
  if (random() % 32 != 0) return text;
  const std::string once = text;
  for (std::size_t i = below(random, 20000); i > 0; --i) text += once;
  return text;
}

Json::Value hostileValue(Random& random) {
  switch (random() % 8) {
    case 0:
      return Json::nullValue;
    case 1:
      return random() % 2 == 0;
    case 2:
      return oneOf(random, kNumbers);
    case 3: {
      const double number = oneOf(random, kNumbers);
      return number >= 0 && number < 1e15 ? Json::Value(static_cast<Json::UInt64>(number))
                                          : Json::Value(std::numeric_limits<Json::Int64>::min());
    }
    case 4: {
      Json::Value list(random() % 2 == 0 ? Json::arrayValue : Json::objectValue);
      const bool isLong = random() % 8 == 0;
      for (std::size_t i = below(random, isLong ? 2000 : 4); i > 0; --i) {
        const Json::Value entry = isLong ? hostileText(random) : hostileValue(random);
        (list.isArray() ? list.append(entry) : list[hostileText(random)]) = entry;
      }
      return list;
    }
    case 5: {
      Json::Value nested = hostileText(random);
      for (std::size_t i = below(random, random() % 2 == 0 ? 4 : 900); i > 0; --i) {
        Json::Value outer;
        (random() % 2 == 0 ? outer["models"] : outer.append(0)) = std::move(nested);
        nested = std::move(outer);
      }
      return nested;
    }
    default:
      return hostileText(random);
  }
}

void addNodes(Json::Value& value, std::vector<Json::Value*>* nodes) {
  nodes->push_back(&value);
  if (!value.isArray() && !value.isObject()) return;
  for (Json::Value& child : value) addNodes(child, nodes);
}

/// Replaces, exchanges, adds or removes a value somewhere in the document.
void damageTree(Random& random, Json::Value* document) {
  std::vector<Json::Value*> nodes;
  addNodes(*document, &nodes);
  Json::Value& node = *oneOf(random, nodes);
  Json::Value& other = *oneOf(random, nodes);
  switch (random() % 4) {
    case 0:
      node = Json::Value(other);  // a copy, because one may contain the other
      break;
    case 1:
      if (node.isObject()) node[oneOf(random, kWords)] = hostileValue(random);
      if (node.isArray()) node.append(Json::Value(other));
      break;
    case 2:
      if (node.isObject() && !node.empty()) node.removeMember(oneOf(random, node.getMemberNames()));
      if (node.isArray()) node.resize(static_cast<Json::ArrayIndex>(below(random, 3)));
      break;
    default:
      node = hostileValue(random);
  }
}

void insertFragment(Random& random, std::string& text) {
  text.insert(below(random, text.size()), oneOf(random, kFragments));
}

/// Repeats a member of an object, or an element of an array.
void repeatMember(Random& random, std::string& text) {
  const std::size_t begin = text.find(',', below(random, text.size()));
  if (begin == std::string::npos) return;
  const std::size_t end = text.find_first_of(",]}", begin + 1);
  if (end != std::string::npos) text.insert(end, text.substr(begin, end - begin));
}

/// Overwrites a part of the metadata that exporters write. Lengths do not change.
void damageMetadata(Random& random, std::string& text) {
  constexpr const char* kKeys[] = {"names", "imgsz", "task", "stride", "kpt_shape", "thing", "out"};
  const std::size_t key = text.find(oneOf(random, kKeys), below(random, text.size()));
  if (key == std::string::npos) return;
  const std::string fragment = oneOf(random, kFragments);
  const std::size_t begin = key + below(random, 60);
  for (std::size_t i = 0; i < fragment.size() && begin + i < text.size(); ++i) {
    text[begin + i] = fragment[i];
  }
}

constexpr Damage kJsonDamage[] = {changeNumber, flipBytes,      truncateText,
                                  damagePiece,  insertFragment, repeatMember};
constexpr Damage kMetadataDamage[] = {damageMetadata};

/// The document as text, damaged.
std::string damagedJson(Random& random, Json::Value document) {
  const bool isTree = random() % 4 != 0;
  for (std::size_t i = isTree ? 1 + below(random, 3) : 0; i > 0; --i) damageTree(random, &document);
  std::string text = vsa::jsonText(document);
  if (!isTree || random() % 8 == 0) damage(random, kJsonDamage, 2, text);
  return text;
}

// --- Valid files ------------------------------------------------------------------------------

/// A network with the entry of a pipeline file for each model that it fits.
struct Network {
  std::string path;
  std::vector<Json::Value> models;
};

Json::Value parsed(const std::string& text) {
  Json::Value value;
  std::string errors;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors))
    throw std::runtime_error(errors);
  return value;
}

std::vector<Network> findNetworks(const fs::path& folder, const fs::path& base) {
  std::vector<Network> found;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    if (!vsa::isNetworkFile(entry.path().string())) continue;
    Network network{entry.path().string(), {}};
    const vsa::ModelFile file = vsa::readModelFile(network.path);
    for (const vsa::Family* family : vsa::fittingFamilies(file)) {
      // Models that take audio need a service.
      if (family->takes == vsa::Media::kAudio) continue;
      network.models.push_back(parsed(vsa::pipelineEntry(*family, file, base).text));
    }
    if (!network.models.empty()) found.push_back(std::move(network));
  }
  std::ranges::sort(found, {}, &Network::path);
  return found;
}

const Json::Value& randomModel(Random& random, const std::vector<Network>& networks) {
  return oneOf(random, oneOf(random, networks).models);
}

Json::Value validPipeline(Random& random, const std::vector<Network>& networks) {
  Json::Value pipeline;
  for (std::size_t i = 1 + below(random, 2); i > 0; --i)
    pipeline["models"].append(randomModel(random, networks));
  return pipeline;
}

Json::Value validObjects() {
  return parsed(R"({"input": "image.png", "frame": 0, "width": 64, "height": 48, "objects": [
    {"box": [1, 2, 30, 40], "score": 0.5, "classId": 1, "className": "car", "feature": [1, 0.5],
     "text": "AB", "textScore": 1, "classifyId": 0, "classifyScore": 0.5, "classifyName": "red"},
    {"corners": [[1, 1], [20, 1], [20, 9], [1, 9]], "score": 0.5, "classId": 0, "className": "",
     "shapes": [{"tag": 5, "points": [[1, 2], [3, 4]]}], "angle": 0.5}]})");
}

// --- Running ----------------------------------------------------------------------------------

/// Redirects standard output or standard error to a file.
class Capture {
 public:
  Capture(const fs::path& file, int stream) : file_(file), stream_(stream), kept_(dup(stream)) {
    if (std::FILE* const opened = std::fopen(file.c_str(), "wb")) {
      dup2(fileno(opened), stream);
      std::fclose(opened);
    }
  }
  /// Ends the capture and returns the text.
  std::string end() {
    dup2(kept_, stream_);
    close(kept_);
    return readFile(file_);
  }

 private:
  fs::path file_;
  int stream_;
  int kept_;
};

int runVsa(const Strings& arguments) {
  CLI::App program("", "vsa");
  const std::unique_ptr<vsa::Command> commands[] = {vsa::makeRun(), vsa::makeCompare(),
                                                    vsa::makeDoctor(), vsa::makeCompareEngines(),
                                                    vsa::makeBench()};
  for (const auto& command : commands) command->addTo(&program);
  program.parse(Strings(arguments.rbegin(), arguments.rend()));
  for (const auto& command : commands) {
    if (command->isChosen()) return command->execute();
  }
  return -1;
}

/// What is wrong with a run; empty if nothing is.
std::string faultOf(int status, const std::string& output, const std::string& errors) {
  constexpr std::size_t kMaxLines = 15;
  constexpr std::size_t kMaxBytes = 20000;
  if (status < vsa::kDone || status > vsa::kUsageError) return "undocumented status";
  if (status != vsa::kDone && output.empty() && errors.empty()) return "failed without a message";
  if (vsa::printableLines(output) != output || vsa::printableLines(errors) != errors) {
    return "control characters";
  }
  std::size_t lines = 0;
  for (std::size_t start = 0; start < errors.size(); ++lines) {
    if (!std::string_view(errors).substr(start).starts_with("vsa: ")) return "a foreign message";
    start = std::min(errors.find('\n', start), errors.size() - 1) + 1;
  }
  if (status == vsa::kUsageError && lines == 0) return "no line of error";
  return lines > kMaxLines || errors.size() > kMaxBytes ? "too many messages" : "";
}

/// The command line for a seed, after the files that it names have been written.
Strings prepare(Random& random, const std::vector<Network>& networks) {
  const auto pipeline = [&](const Json::Value& valid, bool isDamaged) {
    writeFile("pipeline.json", isDamaged ? damagedJson(random, valid) : vsa::jsonText(valid));
  };
  switch (random() % 8) {
    case 0: {  // a network
      const Network& network = oneOf(random, networks);
      const bool isXml = network.path.ends_with(".xml");
      const std::string stem = network.path.substr(0, network.path.size() - 4);
      std::string bytes = readFile(network.path);
      if (random() % 4 != 0) {
        damage(random, kMetadataDamage, 2, bytes);
        writeFile(isXml ? "network.xml" : "network.onnx", bytes);
        if (isXml) writeFile("network.bin", readFile(stem + ".bin"));
      } else if (isXml) {
        writeDamagedIr(stem, random, "network");
      } else {
        writeDamagedOnnx(network.path, random, "network.onnx");
      }
      const std::string file = isXml ? "network.xml" : "network.onnx";
      if (random() % 2 == 0) return {"doctor", file, "--write", "written.json"};
      const std::string as = oneOf(random, network.models)["modelName"].asString();
      return {"run", "-q", "--as", as, file, "image.png"};
    }
    case 1:  // recorded objects
      pipeline(validPipeline(random, networks), false);
      writeFile("objects.jsonl", damagedJson(random, validObjects()) + "\n");
      return {"run", "-q", "pipeline.json", "image.png", "--objects", "objects.jsonl"};
    case 2:
      pipeline(validPipeline(random, networks), true);
      return {"doctor", "pipeline.json"};
    case 3: {
      pipeline(validPipeline(random, networks), true);
      const Strings commands[] = {{"compare", "pipeline.json", "image.png", "image.png"},
                                  {"compare-engines", "pipeline.json", "image.png"},
                                  {"bench", "pipeline.json", "image.png", "--runs", "1"}};
      return oneOf(random, commands);
    }
    case 4:
      pipeline(validPipeline(random, networks), true);
      return {"run", "-q", "pipeline.json", "image.png", "--output", "out", "--crops", "crops"};
    default:
      pipeline(validPipeline(random, networks), true);
      return {"run", "-q", "pipeline.json", "image.png"};
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  const fs::path folder = fs::absolute(argv[1]);
  const std::vector<Network> networks = findNetworks(fs::absolute(argv[2]), folder / "0");
  for (const auto& [name, value] : {std::pair{"OPENCV_FFMPEG_LOGLEVEL", "-8"},
                                    {"HWLOC_HIDE_ERRORS", "2"},
                                    {"ORT_DISABLE_TELEMETRY", "1"}}) {
    setenv(name, value, 0);
  }
  google::InitGoogleLogging(argv[0]);
  std::vector<std::uint8_t> image;
  cv::imencode(".png", cv::Mat(48, 64, CV_8UC3, cv::Scalar(60, 120, 180)), image);
  const int report = dup(STDERR_FILENO);
  __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(report)));
  for (unsigned long long seed = std::stoull(argv[3]); seed < std::stoull(argv[4]); ++seed) {
    Random random(seed);
    const fs::path own = folder / std::to_string(seed);
    fs::create_directories(own);
    fs::current_path(own);
    writeFile("image.png", {image.begin(), image.end()});
    const Strings arguments = prepare(random, networks);
    std::cout << std::flush;
    Capture output("output.txt", STDOUT_FILENO);
    Capture errors("errors.txt", STDERR_FILENO);
    const int status = runVsa(arguments);
    std::fflush(nullptr);
    std::cout << std::flush;
    const std::string printed = output.end();
    const std::string fault = faultOf(status, printed, errors.end());
    std::cout << seed << " ";
    if (fault.empty()) {
      std::cout << "status " << status << std::endl;
      fs::current_path(folder);
      fs::remove_all(own);
    } else {
      std::cout << "FINDING: " << fault << ", vsa";
      for (const std::string& argument : arguments) std::cout << " " << argument;
      std::cout << std::endl;
    }
  }
}
