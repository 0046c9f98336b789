// The command "bench". Every run of a model is followed (in every other round: preceded) by as many
// bare runs of its network as the model made, so that both meet the machine in the same state.
#include "Bench.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <memory>
#include <numeric>
#include <opencv2/core/utils/logger.hpp>
#include <stdexcept>

#include "Console.h"
#include "Inputs.h"
#include "Log.h"
#include "Model.h"
#include "ModelTable.h"
#include "Report.h"
#include "Run.h"
#include "Text.h"

#if defined(__linux__)
#include <unistd.h>
#endif

namespace vsa {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWarmUpRuns = 3;
constexpr std::size_t kMostFrames = 16;  // of a video, kept in memory
constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Memory of the process that lies in RAM, in MB; kUnknown where the system does not tell.
double residentMegabytes() {
#if defined(__linux__)
  std::ifstream file("/proc/self/statm");
  double pages = 0.0;
  double resident = 0.0;
  if (file >> pages >> resident) {
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1e6;
  }
#endif
  return kUnknown;
}

// The input that the model gives its network for this frame.
std::vector<std::int64_t> inputShape(const ModelSpec& spec, const VsaFrame& frame) {
  const VsaModelConfig& config = spec.config;
  std::int64_t width = config.inputWidth;
  std::int64_t height = config.inputHeight;
  const ModelRow* row = findRow(config.category, config.modelName);
  if (row != nullptr && row->head == Head::kText) {
    // Shrunk to the longest side, then rounded up to the grid of the network.
    const auto longest = static_cast<float>(std::max(frame.width, frame.height));
    const auto limit = static_cast<float>(width > 0 ? width : row->width);
    const float ratio = longest > limit ? limit / longest : 1.0F;
    const auto side = [ratio](std::uint32_t length) {
      const auto shrunk = static_cast<std::int64_t>(static_cast<float>(length) * ratio);
      return std::max<std::int64_t>((shrunk + 31) / 32 * 32, 32);
    };
    width = side(frame.width);
    height = side(frame.height);
  } else if (row != nullptr && row->head == Head::kLine) {
    if (width == 0) width = 320;
    if (height == 0) height = 48;
  }
  return {1, 3, height, width};
}

// The least of the values that at least `share` (0 to 1) of all do not exceed. Not of none.
double percentile(std::vector<double> values, double share) {
  const auto rank =
      static_cast<std::ptrdiff_t>(std::ceil(share * static_cast<double>(values.size())));
  const auto place = values.begin() + std::max<std::ptrdiff_t>(rank - 1, 0);
  std::nth_element(values.begin(), place, values.end());
  return *place;
}

struct Measured {
  const ModelSpec* spec = nullptr;
  std::unique_ptr<Model> model;
  BareNetwork bare;
  double megabytes = 0.0;
  std::vector<double> times = {};   // milliseconds of each run
  std::vector<double> shares = {};  // of the time outside the engine
};

class Bench {
 public:
  Bench(const BenchOptions& options, Console* console) : options_(options), console_(*console) {}

  int go() {
    Pipeline pipeline;
    try {
      pipeline = readPipeline(options_.pipeline);
      if (pipeline.takesSound) {
        throw PipelineError(options_.pipeline, "bench takes pictures, not sound");
      }
      readFrames();
      load(pipeline);
    } catch (const std::exception& error) {
      console_.note(oneLine(error.what()));
      return kUsageError;
    }
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
    return console_.write(options_.json ? jsonText() : table()) ? kDone : kSomeFailed;
  }

 private:
  void readFrames() {
    try {
      Source source(options_.input);
      cv::Mat picture;
      while (pictures_.size() < kMostFrames && source.next(&picture)) {
        pictures_.push_back(picture.clone());
      }
      if (pictures_.empty()) throw std::runtime_error("no frame can be read");
    } catch (const std::exception& error) {
      throw std::runtime_error(options_.input + ": " + oneLine(error.what()));
    }
  }

  // Loads the models one by one and runs each once, as much memory comes with the first run.
  void load(const Pipeline& pipeline) {
    VsaDeviceSet devices;
    VsaGetDeviceSet(&devices);  // loads the engines, whose memory belongs to no model
    VsaFrame frame = frameOf(pictures_[0]);
    for (const ModelSpec& spec : pipeline.models) {
      const double before = residentMegabytes();
      Measured entry{&spec, std::make_unique<Model>(spec), {}};
      runModel(entry, &frame);
      entry.megabytes = residentMegabytes() - before;
      models_.push_back(std::move(entry));
    }
    // The specs live on in the models.
    for (Measured& entry : models_) {
      entry.spec = &entry.model->spec();
      const VsaModelConfig& config = entry.spec->config;
      entry.bare = openBare(config.engine, entry.spec->networkFile(), config.device);
    }
  }

  static void runModel(const Measured& entry, VsaFrame* frame) {
    if (!entry.model->run(frame)) {
      throw std::runtime_error(entry.spec->name + ": the model refused the frame");
    }
  }

  void runAll(int run) {
    const int round = run + kWarmUpRuns;
    VsaFrame frame = frameOf(pictures_[static_cast<std::size_t>(round) % pictures_.size()]);
    double total = 0.0;
    for (Measured& entry : models_) {
      const std::size_t inferences = entry.model->needsObjects() ? frame.objects.size() : 1;
      const std::vector<std::int64_t> shape = inputShape(*entry.spec, frame);
      double engine = 0.0;
      const auto inferBare = [&] {
        const Clock::time_point start = Clock::now();
        for (std::size_t i = 0; i < inferences; ++i) entry.bare(shape);
        engine = millisecondsSince(start);
      };
      if (round % 2 == 1) inferBare();
      const Clock::time_point start = Clock::now();
      runModel(entry, &frame);
      const double time = millisecondsSince(start);
      if (round % 2 == 0) inferBare();
      total += time;
      if (run < 0) continue;
      entry.times.push_back(time);
      if (inferences > 0) entry.shares.push_back((time - engine) / time);
    }
    if (run >= 0) totals_.push_back(total);
  }

  struct Row {
    std::string name;
    std::vector<double> numbers;  // median, p90, p99, max, frames a second, MB, share
  };

  std::vector<Row> rows() const {
    const auto row = [](const std::string& name, const std::vector<double>& times, double megabytes,
                        double share) {
      const double sum = std::accumulate(times.begin(), times.end(), 0.0);
      return Row{name,
                 {percentile(times, 0.5), percentile(times, 0.9), percentile(times, 0.99),
                  percentile(times, 1.0), 1000.0 * static_cast<double>(times.size()) / sum,
                  megabytes, share}};
    };
    std::vector<Row> all;
    double megabytes = 0.0;
    for (const Measured& entry : models_) {
      const double share = entry.shares.empty() ? kUnknown : percentile(entry.shares, 0.5);
      all.push_back(row(entry.spec->name, entry.times, entry.megabytes, share));
      megabytes += entry.megabytes;
    }
    if (all.size() > 1) all.push_back(row("all", totals_, megabytes, kUnknown));
    return all;
  }

  std::string table() const {
    // A blank comes first in any case; digits behind the point go where there is no room for them.
    const auto cell = [](double value, int width, int digits) {
      char buffer[400] = "-";
      for (int length = width; !std::isnan(value) && length >= width && digits >= 0; --digits) {
        length = std::snprintf(buffer, sizeof buffer, "%.*f", digits, value);
      }
      const std::string text = buffer;
      const auto blanks = std::max<std::ptrdiff_t>(width - std::ssize(text), 1);
      return std::string(static_cast<std::size_t>(blanks), ' ') + text;
    };
    std::string text = printable(options_.input) + ": " + std::to_string(options_.runs) +
                       " runs, times in ms\n" +
                       " median    p90    p99    max frames/s     MB outside  model\n";
    for (const auto& [name, numbers] : rows()) {
      for (std::size_t i = 0; i < 4; ++i) text += cell(numbers[i], 7, 2);
      text += cell(numbers[4], 9, 1) + cell(numbers[5], 7, 1);
      text += cell(numbers[6] * 100.0, 7, 1) + (std::isnan(numbers[6]) ? " " : "%");
      // "models[0] YOLO8 (Detect)" without its first word, for the sake of 80 columns.
      text += "  " + name.substr(name.starts_with("models") ? 6 : 0) + "\n";
    }
    return text;
  }

  std::string jsonText() const {
    constexpr const char* kKeys[] = {"medianMs",        "p90Ms",      "p99Ms",        "maxMs",
                                     "framesPerSecond", "residentMb", "outsideEngine"};
    Json::Value json;
    json["input"] = repairUtf8(options_.input);
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

  const BenchOptions& options_;
  Console& console_;
  std::vector<cv::Mat> pictures_;
  std::vector<Measured> models_;
  std::vector<double> totals_;
};

}  // namespace

int bench(const BenchOptions& options) {
  if (!options.verbose) cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  Console console;
  const LogToConsole log(&console, options.verbose);
  return Bench(options, &console).go();
}

}  // namespace vsa
