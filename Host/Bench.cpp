// The command "bench": measures the models of a pipeline one by one, or with --contexts several
// copies of all of them at the same time. One by one, after every run of a model (in every second
// round: before it), its network is run without the library the same number of times, so that both
// are measured under the same conditions.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <numeric>
#include <stdexcept>

#include "BenchContexts.h"
#include "BenchSupport.h"
#include "Command.h"
#include "DeviceNames.h"
#include "Frame.h"
#include "FrameSource.h"
#include "Inputs.h"
#include "JsonLines.h"
#include "Messages.h"
#include "Model.h"
#include "ModelFile.h"
#include "Text.h"

namespace vsa {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWarmUpRuns = 3;
constexpr int kMaxContexts = 1000;
constexpr std::size_t kMaxFrames = 16;  // of a video; they are kept in memory

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// The shape of the network input for this frame.
std::vector<std::int64_t> inputShape(const ModelSpec& spec, const VsaFrame& frame) {
  const VsaModelConfig& config = spec.config;
  std::int64_t width = config.inputWidth;
  std::int64_t height = config.inputHeight;
  const Family* family = spec.family();
  if (family == nullptr) return {1, 3, height, width};
  if (width == 0) width = family->unsetWidth;
  if (height == 0) height = family->unsetHeight;
  if (family->layout == OutputLayout::kTextMap) {
    // The longest side is limited, then both are rounded up to multiples of 32.
    const auto longest = static_cast<float>(std::max(frame.width, frame.height));
    const auto limit = static_cast<float>(width);
    const float ratio = longest > limit ? limit / longest : 1.0F;
    const auto side = [ratio](std::uint32_t length) {
      const auto shrunk = static_cast<std::int64_t>(static_cast<float>(length) * ratio);
      return std::max<std::int64_t>((shrunk + 31) / 32 * 32, 32);
    };
    width = side(frame.width);
    height = side(frame.height);
  }
  return {1, 3, height, width};
}

struct Options {
  std::string pipeline;
  std::string input;
  int runs = 100;
  bool json = false;
  std::vector<int> contexts = {};  // numbers of copies of the models; empty: measure each model
};

// A model with its measurements.
struct Subject {
  std::unique_ptr<Model> model;
  BareNetwork bare;
  double megabytes = 0.0;
  std::vector<double> times = {};             // milliseconds of each run
  std::vector<double> outsideFractions = {};  // share of each time spent outside the engine

  const ModelSpec& spec() const { return model->spec(); }
};

class Measurement {
 public:
  Measurement(const Options& options, Console* console) : options_(options), console_(*console) {}

  int run() {
    Pipeline pipeline;
    try {
      pipeline = readPipeline(options_.pipeline);
      if (pipeline.takesAudio) {
        throw PipelineError(options_.pipeline, "bench takes images, not audio");
      }
      readFrames();
      if (options_.contexts.empty()) load(pipeline);
    } catch (const std::exception& error) {
      console_.note(oneLine(error.what()));
      return kUsageError;
    }
    if (!options_.contexts.empty()) return runContexts(pipeline);
    try {
      for (int run = -kWarmUpRuns; run < options_.runs; ++run) {
        runAll(run);
        console_.progress(
            static_cast<double>(std::max(run, 0)) / options_.runs,
            "run " + std::to_string(std::max(run, 0) + 1) + " of " + std::to_string(options_.runs));
      }
    } catch (const std::exception& error) {
      console_.note(oneLine(error.what()));
      return kSomeFailed;
    }
    console_.clear();
    return console_.write(options_.json ? jsonResults() : table()) ? kDone : kSomeFailed;
  }

 private:
  void readFrames() {
    try {
      FrameSource source(options_.input);
      cv::Mat image;
      while (images_.size() < kMaxFrames && source.next(&image)) {
        images_.push_back(image.clone());
      }
      if (images_.empty()) throw std::runtime_error("no frame can be read");
    } catch (const std::exception& error) {
      throw std::runtime_error(options_.input + ": " + oneLine(error.what()));
    }
  }

  // Loads the models one by one and runs each once, because the first run allocates memory too.
  void load(const Pipeline& pipeline) {
    deviceNames();  // loads the engines, so that no model's memory includes theirs
    VsaFrame frame = frameOf(images_[0]);
    for (const ModelSpec& spec : pipeline.models) {
      const double before = residentMegabytes();
      Subject subject{std::make_unique<Model>(spec), {}};
      removeEmptyBoxes(spec, &frame.objects);
      runModel(*subject.model, &frame);
      subject.megabytes = residentMegabytes() - before;
      subjects_.push_back(std::move(subject));
    }
    for (Subject& subject : subjects_) {
      const VsaModelConfig& config = subject.spec().config;
      subject.bare = openBare(config.engine, subject.spec().networkFile(), config.device);
    }
  }

  void runAll(int run) {
    const int round = run + kWarmUpRuns;
    VsaFrame frame = frameOf(images_[static_cast<std::size_t>(round) % images_.size()]);
    double total = 0.0;
    for (Subject& subject : subjects_) {
      removeEmptyBoxes(subject.spec(), &frame.objects);
      const std::size_t inferences = subject.spec().needsObjects() ? frame.objects.size() : 1;
      const std::vector<std::int64_t> shape = inputShape(subject.spec(), frame);
      double engine = 0.0;
      const auto inferBare = [&] {
        const Clock::time_point start = Clock::now();
        for (std::size_t i = 0; i < inferences; ++i) subject.bare(shape);
        engine = millisecondsSince(start);
      };
      if (round % 2 == 1) inferBare();
      const Clock::time_point start = Clock::now();
      runModel(*subject.model, &frame);
      const double time = millisecondsSince(start);
      if (round % 2 == 0) inferBare();
      total += time;
      if (run < 0) continue;
      subject.times.push_back(time);
      if (inferences > 0) subject.outsideFractions.push_back((time - engine) / time);
    }
    if (run >= 0) totals_.push_back(total);
  }

  struct Row {
    std::string name;
    std::vector<double> numbers;  // median, p90, p99, max, frames per second, MB, outside
  };

  std::vector<Row> rows() const {
    const auto row = [](const std::string& name, const std::vector<double>& times, double megabytes,
                        double outside) {
      const double sum = std::accumulate(times.begin(), times.end(), 0.0);
      return Row{name,
                 {percentile(times, 0.5), percentile(times, 0.9), percentile(times, 0.99),
                  percentile(times, 1.0), 1000.0 * static_cast<double>(times.size()) / sum,
                  megabytes, outside}};
    };
    std::vector<Row> all;
    double megabytes = 0.0;
    for (const Subject& subject : subjects_) {
      const auto& fractions = subject.outsideFractions;
      const double outside = fractions.empty() ? kUnknown : percentile(fractions, 0.5);
      all.push_back(row(subject.spec().name, subject.times, subject.megabytes, outside));
      megabytes += subject.megabytes;
    }
    if (all.size() > 1) all.push_back(row("all", totals_, megabytes, kUnknown));
    return all;
  }

  std::string table() const {
    std::string text = printable(withoutPasswords(options_.input)) + ": " +
                       std::to_string(options_.runs) + " runs, times in ms\n" +
                       " median    p90    p99    max frames/s     MB outside  model\n";
    bool isNoisy = false;
    for (const auto& [name, numbers] : rows()) {
      for (std::size_t i = 0; i < 4; ++i) text += tableCell(numbers[i], 7, 2);
      text += tableCell(numbers[4], 9, 1) + tableCell(numbers[5], 7, 1);
      text += numbers[6] < 0.0
                  ? "   noise"
                  : tableCell(numbers[6] * 100.0, 7, 1) + (std::isnan(numbers[6]) ? " " : "%");
      isNoisy = isNoisy || numbers[6] < 0.0;
      // "[0] YOLO8 (Detect)", without "models", to stay within 80 columns.
      text += "  " + name.substr(name.starts_with("models") ? 6 : 0) + "\n";
    }
    if (isNoisy) text += "noise: the time outside the engine is within noise\n";
    return text;
  }

  std::string jsonResults() const {
    constexpr const char* kKeys[] = {"medianMs",        "p90Ms",      "p99Ms",        "maxMs",
                                     "framesPerSecond", "residentMb", "outsideEngine"};
    Json::Value json;
    json["input"] = repairUtf8(withoutPasswords(options_.input));
    json["runs"] = options_.runs;
    for (const auto& [name, numbers] : rows()) {
      Json::Value entry;
      entry["name"] = name;
      for (std::size_t i = 0; i < numbers.size(); ++i) {
        entry[kKeys[i]] = std::isfinite(numbers[i]) ? Json::Value(numbers[i]) : Json::nullValue;
      }
      json["models"].append(entry);
    }
    return jsonLine(json);
  }

  int runContexts(const Pipeline& pipeline) {
    std::vector<ContextsResult> results;
    try {
      results = measureContexts(pipeline, images_, options_.contexts, options_.runs);
    } catch (const PipelineError& error) {
      console_.note(oneLine(error.what()));
      return kUsageError;
    } catch (const std::exception& error) {
      console_.note(oneLine(error.what()));
      return kSomeFailed;
    }
    const std::string text = options_.json ? contextsJson(results) : contextsTable(results);
    return console_.write(text) ? kDone : kSomeFailed;
  }

  std::string contextsTable(const std::vector<ContextsResult>& results) const {
    std::string text = printable(withoutPasswords(options_.input)) + ": " +
                       std::to_string(options_.runs) + " runs in all\n" +
                       "contexts frames/s  slowest  fastest median ms       MB\n";
    for (const ContextsResult& result : results) {
      const auto [slowest, fastest] = std::ranges::minmax_element(result.each);
      text += tableCell(result.contexts, 8, 0) + tableCell(result.framesPerSecond, 9, 1) +
              tableCell(*slowest, 9, 1) + tableCell(*fastest, 9, 1) +
              tableCell(result.medianMs, 10, 2) + tableCell(result.megabytes, 9, 1) + "\n";
    }
    return text;
  }

  std::string contextsJson(const std::vector<ContextsResult>& results) const {
    const auto number = [](double value) {
      return std::isfinite(value) ? Json::Value(value) : Json::nullValue;
    };
    Json::Value json;
    json["input"] = repairUtf8(withoutPasswords(options_.input));
    json["runs"] = options_.runs;
    for (const ContextsResult& result : results) {
      Json::Value entry;
      entry["contexts"] = result.contexts;
      entry["framesPerSecond"] = number(result.framesPerSecond);
      for (const double rate : result.each) entry["framesPerSecondOfEach"].append(number(rate));
      entry["medianMs"] = number(result.medianMs);
      entry["residentMb"] = number(result.megabytes);
      json["contexts"].append(entry);
    }
    return jsonLine(json);
  }

  const Options& options_;
  Console& console_;
  std::vector<cv::Mat> images_;
  std::vector<Subject> subjects_;
  std::vector<double> totals_;
};

class Bench : public Command {
 public:
  Bench() : Command("bench", "Measure the models of a pipeline") {}

 protected:
  void addOptions(CLI::App* command) override {
    addPipeline(command, "JSON file that names the models");
    command->add_option("INPUT", options_.input, "An image or a video")->type_name("")->required();
    command->add_option("-n,--runs", options_.runs, "Number of measured runs")
        ->check(CLI::Range(1, 1000000))
        ->type_name("NUMBER")
        ->capture_default_str();
    command
        ->add_option("-c,--contexts", options_.contexts,
                     "Measure so many copies of the models at the same time, each in a thread; "
                     "for example 1,2,4,8")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(CLI::Range(1, kMaxContexts))
        ->type_name("NUMBERS");
    addJson(command, "Print one JSON object");
    addVerbose(command);
  }

  int run(Console* console, const LogToConsole* /*log*/) const override {
    Options options = options_;
    options.pipeline = pipeline_;
    options.json = json_;
    return Measurement(options, console).run();
  }

 private:
  Options options_;
};

}  // namespace

std::unique_ptr<Command> makeBench() {
  return std::make_unique<Bench>();
}

}  // namespace vsa
