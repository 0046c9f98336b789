// The command "compare-engines".
#include "CompareEngines.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <memory>
#include <opencv2/core/utils/logger.hpp>
#include <tuple>
#include <utility>

#include "Chain.h"
#include "Console.h"
#include "Inputs.h"
#include "Log.h"
#include "ModelTable.h"
#include "Pipeline.h"
#include "Report.h"
#include "Run.h"
#include "Text.h"

namespace vsa {
namespace {

namespace fs = std::filesystem;

// Intersection over union; of boxes without an area 1 where they are the same.
double overlap(const VsaObject& a, const VsaObject& b) {
  // A box in the padding has its edges the wrong way round.
  const auto common = [](double a1, double a2, double b1, double b2) {
    return std::max(0.0, std::min(std::max(a1, a2), std::max(b1, b2)) -
                             std::max(std::min(a1, a2), std::min(b1, b2)));
  };
  const auto shared = [&common](const VsaObject& p, const VsaObject& q) {
    return common(p.left, p.right, q.left, q.right) * common(p.top, p.bottom, q.top, q.bottom);
  };
  const double either = shared(a, a) + shared(b, b) - shared(a, b);
  if (either > 0.0) return shared(a, b) / either;
  return std::tie(a.left, a.top, a.right, a.bottom) == std::tie(b.left, b.top, b.right, b.bottom);
}

// How two lists of objects differ.
struct Difference {
  std::size_t matched = 0;
  std::int64_t pixels = 0;  // largest distance of two edges of matched boxes
  double score = 0.0;       // largest difference of their scores; NaN where one has none
  double alone = 0.0;       // best score of an object that has no match
};

// Matches objects of one class by their overlap, the best pairs first; those that overlap by less
// than half stay alone.
Difference difference(const std::vector<VsaObject>& first, const std::vector<VsaObject>& second) {
  constexpr double kLeastOverlap = 0.5;
  std::vector<std::tuple<double, std::size_t, std::size_t>> pairs;
  for (std::size_t i = 0; i < first.size(); ++i) {
    for (std::size_t j = 0; j < second.size(); ++j) {
      const double share = overlap(first[i], second[j]);
      if (first[i].classId == second[j].classId && share >= kLeastOverlap) {
        pairs.emplace_back(-share, i, j);
      }
    }
  }
  std::ranges::sort(pairs);
  Difference found;
  std::vector<bool> firstMatched(first.size());
  std::vector<bool> secondMatched(second.size());
  for (const auto& [share, i, j] : pairs) {
    if (firstMatched[i] || secondMatched[j]) continue;
    firstMatched[i] = secondMatched[j] = true;
    ++found.matched;
    const VsaObject& a = first[i];
    const VsaObject& b = second[j];
    const auto apart = [](std::int64_t p, std::int64_t q) { return std::abs(p - q); };
    found.pixels = std::max({found.pixels, apart(a.left, b.left), apart(a.top, b.top),
                             apart(a.right, b.right), apart(a.bottom, b.bottom)});
    const double off = std::abs(double{a.score} - double{b.score});
    if (std::isnan(off) || off > found.score) found.score = off;
  }
  for (std::size_t i = 0; i < first.size(); ++i) {
    if (!firstMatched[i]) found.alone = std::max(found.alone, double{first[i].score});
  }
  for (std::size_t j = 0; j < second.size(); ++j) {
    if (!secondMatched[j]) found.alone = std::max(found.alone, double{second[j].score});
  }
  return found;
}

bool isOnBothEngines(const ModelSpec& spec) {
  const ModelRow* row = findRow(spec.config.category, spec.config.modelName);
  return row != nullptr && row->onBothEngines;
}

// The network of `spec` for the other engine: beside it, or where the YOLO exporter puts the two,
// "NAME.onnx" and "NAME_openvino_model/NAME.xml".
fs::path otherFile(const ModelSpec& spec) {
  const fs::path file = spec.networkFile();
  const bool isXml = spec.config.engine == "OpenVINO";
  const fs::path folder = file.parent_path();
  const std::string name = file.stem().string() + (isXml ? ".onnx" : ".xml");
  const fs::path places[] = {
      folder / name, folder / (isXml ? ".." : file.stem().string() + "_openvino_model") / name};
  for (const fs::path& place : places) {
    if (fs::is_regular_file(place)) return place;
  }
  throw PipelineError(spec.place, "there is no network for the other engine, \"" +
                                      places[0].lexically_normal().string() +
                                      "\": export it or name it with --other");
}

// The same model on the other engine.
ModelSpec swapped(const ModelSpec& spec, const std::string& given) {
  ModelSpec other = spec;
  const bool toOnnx = spec.config.engine == "OpenVINO";
  other.config.engine = toOnnx ? "ONNXRuntime" : "OpenVINO";
  other.config.device = "CPU";
  const fs::path file = fs::absolute(given.empty() ? otherFile(spec) : fs::path(given));
  if (!fs::is_regular_file(file) || (file.extension() == ".xml") == toOnnx) {
    throw PipelineError(file.string(),
                        std::string("there is no such ") + (toOnnx ? "ONNX file" : ".xml file"));
  }
  other.modelRoot = file.parent_path().string();
  other.config.modelDir = "";
  other.config.modelFile = (toOnnx ? file.filename() : file.stem()).string();
  return other;
}

// The detectors of the pipeline that both engines have, on OpenVINO and on ONNX Runtime.
std::pair<Pipeline, Pipeline> bothPipelines(const CompareEnginesOptions& options,
                                            Console* console) {
  std::pair<Pipeline, Pipeline> both;
  for (ModelSpec spec : readPipeline(options.pipeline).models) {
    if (!isOnBothEngines(spec)) {
      console->note(spec.name + " runs on OpenVINO alone and is left out");
      continue;
    }
    if (!options.other.empty() && !both.first.models.empty()) {
      throw PipelineError(options.pipeline, "--other goes with one detector only");
    }
    if (spec.config.modelName == "YOLO5") {
      console->note(spec.name +
                    " sees blue first on OpenVINO and red first on ONNX Runtime, so "
                    "coloured pictures give other scores");
    }
    ModelSpec other = swapped(spec, options.other);
    if (spec.config.engine != "OpenVINO") std::swap(spec, other);
    both.first.models.push_back(std::move(spec));
    both.second.models.push_back(std::move(other));
  }
  if (both.first.models.empty()) {
    throw PipelineError(options.pipeline,
                        "no model runs on both engines; YOLO8, YOLO5 and YOLO26 do");
  }
  return both;
}

class EngineComparison {
 public:
  EngineComparison(const CompareEnginesOptions& options, Console* console, const LogToConsole* log)
      : options_(options), console_(*console), log_(*log) {}

  int go() {
    try {
      const auto [openVino, onnxRuntime] = bothPipelines(options_, &console_);
      chains_.push_back(std::make_unique<Chain>(openVino, &log_));
      chains_.push_back(std::make_unique<Chain>(onnxRuntime, &log_));
      for (const ModelSpec& spec : openVino.models) {
        leastScore_ = std::min(leastScore_, double{spec.config.scoreThreshold});
      }
    } catch (const std::exception& error) {
      console_.note(error.what());
      return kUsageError;
    }
    const InputList list = expandInputs(options_.inputs, false);
    for (const std::string& problem : list.problems) fail(problem);
    if (!options_.json) write("OpenVINO  ONNXRuntime  matched  edges px   score  input\n");
    for (const std::string& input : list.inputs) {
      try {
        compareInput(input);
      } catch (const std::exception& error) {
        fail(input + ": " + oneLine(error.what()));
      }
    }
    return status_;
  }

 private:
  void fail(const std::string& sentence) {
    console_.note(sentence);
    status_ = kSomeFailed;
  }
  void write(const std::string& text) {
    if (!console_.write(text)) status_ = kSomeFailed;
  }

  void compareInput(const std::string& input) {
    Source source(input);
    cv::Mat picture;
    std::int64_t index = 0;
    for (; (options_.maxFrames == 0 || index < options_.maxFrames) && source.next(&picture);
         ++index) {
      std::vector<VsaFrame> frames;
      for (const auto& chain : chains_) {
        frames.push_back(frameOf(picture));
        const std::vector<Failure> failures = chain->run(&frames.back());
        if (!failures.empty()) {
          throw std::runtime_error(chain->nameOf(failures[0].model) + ": " + failures[0].reason);
        }
      }
      report(source.isVideo() ? input + " frame " + std::to_string(index) : input,
             frames[0].objects, frames[1].objects);
    }
    if (index == 0) throw std::runtime_error("no frame can be read");
  }

  void report(const std::string& name, const std::vector<VsaObject>& first,
              const std::vector<VsaObject>& second) {
    const Difference found = difference(first, second);
    // An object that only just passes the threshold on one engine may miss it on the other.
    const bool isGood = found.pixels <= options_.pixels && found.score <= options_.score &&
                        found.alone <= (leastScore_ > 0.0 ? leastScore_ + options_.score : 0.0);
    if (!isGood) status_ = kSomeFailed;
    if (options_.json) {
      Json::Value json;
      json["input"] = repairUtf8(name);
      json["OpenVINO"] = static_cast<Json::UInt64>(first.size());
      json["ONNXRuntime"] = static_cast<Json::UInt64>(second.size());
      json["matched"] = static_cast<Json::UInt64>(found.matched);
      json["pixels"] = static_cast<Json::Int64>(found.pixels);
      json["score"] = std::isfinite(found.score) ? Json::Value(found.score) : Json::nullValue;
      json["same"] = isGood;
      write(jsonLine(json));
      return;
    }
    char line[128];
    std::snprintf(line, sizeof line, "%8zu  %11zu  %7zu  %8lld  %6.4f  ", first.size(),
                  second.size(), found.matched, static_cast<long long>(found.pixels), found.score);
    write(line + printable(name) + (isGood ? "" : "  (differs)") + "\n");
  }

  const CompareEnginesOptions& options_;
  Console& console_;
  const LogToConsole& log_;
  std::vector<std::unique_ptr<Chain>> chains_;
  double leastScore_ = 1.0;
  int status_ = kDone;
};

}  // namespace

int compareEngines(const CompareEnginesOptions& options) {
  if (!options.verbose) cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  Console console;
  const LogToConsole log(&console, options.verbose);
  return EngineComparison(options, &console, &log).go();
}

}  // namespace vsa
