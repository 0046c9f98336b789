// The command "compare-engines": runs the detectors of a pipeline on OpenVINO and on ONNX Runtime
// and compares their objects.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <tuple>
#include <utility>

#include "Chain.h"
#include "Command.h"
#include "Frame.h"
#include "FrameSource.h"
#include "Inputs.h"
#include "JsonLines.h"
#include "Messages.h"
#include "Pipeline.h"
#include "Text.h"

namespace vsa {
namespace {

namespace fs = std::filesystem;

struct Options {
  std::string pipeline;
  std::vector<std::string> inputs;
  std::string other;  // the network for the other engine; if empty, the file next to the first
  int pixels = 2;     // allowed difference of box edges
  double score = 0.1;
  std::int64_t maxFrames = 0;  // of each video; 0 means all
  bool json = false;
};

// The largest difference of the edges of two boxes.
std::int64_t edgeDistance(const VsaObject& a, const VsaObject& b) {
  const auto distance = [](std::int64_t p, std::int64_t q) { return std::abs(p - q); };
  return std::max({distance(a.left, b.left), distance(a.top, b.top), distance(a.right, b.right),
                   distance(a.bottom, b.bottom)});
}

// Intersection over union; 0 if both boxes are empty.
double overlap(const VsaObject& a, const VsaObject& b) {
  // If a box is in the padding, its right edge may be less than its left edge.
  const auto common = [](double a1, double a2, double b1, double b2) {
    return std::max(0.0, std::min(std::max(a1, a2), std::max(b1, b2)) -
                             std::max(std::min(a1, a2), std::min(b1, b2)));
  };
  const auto intersection = [&common](const VsaObject& p, const VsaObject& q) {
    return common(p.left, p.right, q.left, q.right) * common(p.top, p.bottom, q.top, q.bottom);
  };
  const double unionArea = intersection(a, a) + intersection(b, b) - intersection(a, b);
  return unionArea > 0.0 ? intersection(a, b) / unionArea : 0.0;
}

// The difference of two scores; 0 for equal ones, also if they are NaN or infinite.
double scoreDifference(double a, double b) {
  return a == b || (std::isnan(a) && std::isnan(b)) ? 0.0 : std::abs(a - b);
}

// How two lists of objects differ.
struct Difference {
  std::size_t matched = 0;
  std::int64_t pixels = 0;  // largest difference of the edges of matched boxes
  double score = 0.0;       // largest difference of their scores; NaN if a score is NaN
  double unmatched = 0.0;   // highest score of an object without a match
};

// Matches objects of the same class by their overlap, the best pairs first. Objects that overlap by
// less than half are matched only if their edges differ by at most `pixels`: the overlap of thin
// boxes is small, and boxes without an area have none.
Difference difference(const std::vector<VsaObject>& first, const std::vector<VsaObject>& second,
                      std::int64_t pixels) {
  constexpr double kMinOverlap = 0.5;
  std::vector<std::tuple<double, std::int64_t, std::size_t, std::size_t>> pairs;
  for (std::size_t i = 0; i < first.size(); ++i) {
    for (std::size_t j = 0; j < second.size(); ++j) {
      const double iou = overlap(first[i], second[j]);
      const std::int64_t edges = edgeDistance(first[i], second[j]);
      if (first[i].classId == second[j].classId && (iou >= kMinOverlap || edges <= pixels)) {
        pairs.emplace_back(-iou, edges, i, j);
      }
    }
  }
  std::ranges::sort(pairs);
  Difference found;
  std::vector<bool> firstMatched(first.size());
  std::vector<bool> secondMatched(second.size());
  for (const auto& [iou, edges, i, j] : pairs) {
    if (firstMatched[i] || secondMatched[j]) continue;
    firstMatched[i] = secondMatched[j] = true;
    ++found.matched;
    found.pixels = std::max(found.pixels, edges);
    const double scores = scoreDifference(first[i].score, second[j].score);
    if (std::isnan(scores) || scores > found.score) found.score = scores;
  }
  for (std::size_t i = 0; i < first.size(); ++i) {
    if (!firstMatched[i]) found.unmatched = std::max(found.unmatched, double{first[i].score});
  }
  for (std::size_t j = 0; j < second.size(); ++j) {
    if (!secondMatched[j]) found.unmatched = std::max(found.unmatched, double{second[j].score});
  }
  return found;
}

bool isOnBothEngines(const Family& family) {
  return family.isOn("OpenVINO") && family.isOn("ONNXRuntime");
}

// "YOLO8, YOLO5 and YOLO26".
std::string familiesOnBothEngines() {
  std::vector<std::string> names;
  for (const Family& family : families()) {
    if (isOnBothEngines(family)) names.push_back(family.modelName);
  }
  const std::string last = names.back();
  names.pop_back();
  return joined(names, ", ") + " and " + last;
}

// The network of `spec` for the other engine: in the same folder, or as the YOLO exporter names the
// two files, "NAME.onnx" and "NAME_openvino_model/NAME.xml".
fs::path otherFile(const ModelSpec& spec) {
  const fs::path file = spec.networkFile();
  const bool isXml = spec.config.engine == "OpenVINO";
  const fs::path folder = file.parent_path();
  const std::string name = file.stem().string() + (isXml ? ".onnx" : ".xml");
  const fs::path candidates[] = {
      folder / name, folder / (isXml ? ".." : file.stem().string() + "_openvino_model") / name};
  for (const fs::path& candidate : candidates) {
    if (fs::is_regular_file(candidate)) return candidate;
  }
  throw PipelineError(spec.location, "there is no network for the other engine, \"" +
                                         printable(candidates[0].lexically_normal().string()) +
                                         "\": export it or specify it with --other");
}

// The same model on the other engine.
ModelSpec forOtherEngine(const ModelSpec& spec, const std::string& given) {
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
std::pair<Pipeline, Pipeline> pipelinesForBoth(const Options& options, Console* console) {
  std::pair<Pipeline, Pipeline> both;
  for (ModelSpec spec : readPipeline(options.pipeline).models) {
    const Family* family = spec.family();
    if (family == nullptr || !isOnBothEngines(*family)) {
      console->note(spec.name + " runs on OpenVINO only and is skipped");
      continue;
    }
    if (!options.other.empty() && !both.first.models.empty()) {
      throw PipelineError(options.pipeline, "--other can be used with one detector only");
    }
    if (!family->engineNote.empty()) console->note(spec.name + " " + family->engineNote);
    ModelSpec other = forOtherEngine(spec, options.other);
    if (spec.config.engine != "OpenVINO") std::swap(spec, other);
    both.first.models.push_back(std::move(spec));
    both.second.models.push_back(std::move(other));
  }
  if (both.first.models.empty()) {
    throw PipelineError(options.pipeline,
                        "no model runs on both engines; " + familiesOnBothEngines() + " do");
  }
  return both;
}

class EngineComparison {
 public:
  EngineComparison(const Options& options, Console* console, const LogToConsole* log)
      : options_(options), console_(*console), log_(*log) {}

  int run() {
    try {
      const auto [openVino, onnxRuntime] = pipelinesForBoth(options_, &console_);
      chains_.push_back(std::make_unique<Chain>(openVino, &log_));
      chains_.push_back(std::make_unique<Chain>(onnxRuntime, &log_));
      for (const ModelSpec& spec : openVino.models) {
        minThreshold_ = std::min(minThreshold_, double{spec.config.scoreThreshold});
      }
    } catch (const std::exception& error) {
      console_.note(error.what());
      return kUsageError;
    }
    const InputList list = expandInputs(options_.inputs, false);
    for (const InputProblem& problem : list.problems) {
      fail(problem.input + ": " + problem.reason);
    }
    if (!options_.json) write("OpenVINO  ONNXRuntime  matched  edges px   score  input\n");
    for (const std::string& input : list.inputs) {
      try {
        compareInput(input);
      } catch (const PipelineError& error) {
        console_.note(error.what());
        return kUsageError;
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
    FrameSource source(input);
    cv::Mat image;
    std::int64_t index = 0;
    for (; (options_.maxFrames == 0 || index < options_.maxFrames) && source.next(&image);
         ++index) {
      std::vector<VsaFrame> frames;
      for (const auto& chain : chains_) {
        frames.push_back(frameOf(image));
        const std::vector<Failure> failures = chain->run(&frames.back());
        if (!failures.empty()) {
          throw std::runtime_error(chain->nameOf(failures[0].model) + ": " + failures[0].reason);
        }
      }
      const std::string name = withoutPasswords(input);
      print(source.isVideo() || source.frameCount() > 1 ? name + " frame " + std::to_string(index)
                                                        : name,
            frames[0].objects, frames[1].objects);
    }
    if (index == 0) throw std::runtime_error("no frame can be read");
  }

  void print(const std::string& name, const std::vector<VsaObject>& first,
             const std::vector<VsaObject>& second) {
    const Difference found = difference(first, second, options_.pixels);
    // An object with a score just above the threshold on one engine may be below it on the other.
    const bool isGood =
        found.pixels <= options_.pixels && found.score <= options_.score &&
        found.unmatched <= (minThreshold_ > 0.0 ? minThreshold_ + options_.score : 0.0);
    if (!isGood) status_ = kSomeFailed;
    if (options_.json) {
      Json::Value json;
      setPath(&json, "input", name);
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

  const Options& options_;
  Console& console_;
  const LogToConsole& log_;
  std::vector<std::unique_ptr<Chain>> chains_;
  double minThreshold_ = 1.0;
  int status_ = kDone;
};

class CompareEngines : public Command {
 public:
  CompareEngines() : Command("compare-engines", "Compare the results of the two engines") {}

 protected:
  void addOptions(CLI::App* command) override {
    addPipeline(command, "JSON file that names a detector");
    command->add_option("INPUT", options_.inputs, "Images, videos, folders of them, patterns")
        ->type_name("")
        ->required();
    command
        ->add_option("--other", options_.other,
                     "Network for the other engine (default: the file next to the first, .onnx for "
                     ".xml and vice versa)")
        ->type_name("FILE");
    command->add_option("--pixels", options_.pixels, "Allowed difference of box edges")
        ->check(CLI::NonNegativeNumber)
        ->type_name("NUMBER")
        ->capture_default_str();
    command->add_option("--score", options_.score, "Allowed difference of scores")
        ->check(CLI::Range(0.0, 1.0))
        ->type_name("NUMBER")
        ->capture_default_str();
    addMaxFrames(command, "Stop each video after this many frames");
    addJson(command, "Print JSON Lines, one object per image");
    addVerbose(command);
  }

  int run(Console* console, const LogToConsole* log) const override {
    Options options = options_;
    options.pipeline = pipeline_;
    options.maxFrames = maxFrames_;
    options.json = json_;
    return EngineComparison(options, console, log).run();
  }

 private:
  Options options_;
};

}  // namespace

std::unique_ptr<Command> makeCompareEngines() {
  return std::make_unique<CompareEngines>();
}

}  // namespace vsa
