// Long checks of every model: opened and released many times, run thousands of times, run by many
// threads. Scripts of this folder call it.
//
// Usage: Verify (lifecycles | soak | threads) [SECONDS]
//
// The last line printed is the name of the check and its figure; the exit code is 0 if no fault was
// found.

#include <glog/logging.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <thread>

#include "support/LoopbackServer.h"
#include "support/Measure.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;

// --- The models -------------------------------------------------------------------------------

const std::string kOnnx = TOL_ONNX_NETWORKS "/";
const std::string kTextModels = TOL_MODELS "/text/";

struct Row {
  std::string engine, category, name;
  cv::Size input;
  Strings classes;
  std::string network;  ///< Path as in the configuration of the model.
  bool tiny = true;     ///< A tiny network instead of a trained one.
};

/// Every row of the library's table, and the trained text models if they are installed.
std::vector<Row> makeRows() {
  std::vector<Row> rows;
  for (const Family& family : families()) {
    rows.push_back({family.engine, family.category, family.name, family.input, family.classNames,
                    networkOf(family, TOL_ONNX_NETWORKS)});
  }
  if (std::filesystem::exists(kTextModels + "detection.xml")) {
    rows.push_back(
        {"OpenVINO", "Detect", "PaddleOCR", {640, 0}, {"text"}, kTextModels + "detection", false});
    rows.push_back({"OpenVINO",
                    "Track",
                    "PaddleOCR",
                    {320, 48},
                    {"paddleocr"},
                    kTextModels + "recognition",
                    false});
  }
  return rows;
}

std::string titleOf(const Row& row) {
  return row.engine + " " + row.category + " " + row.name + (row.tiny ? "" : " (trained)");
}

/// A frame that every model accepts: an image with bars, a word and three objects, and a block of
/// audio. The bytes of its colours select scores and coordinates in the tiny networks
/// (writeFamilyNetwork).
struct Input {
  explicit Input(int width = 128, int height = 96)
      : image(height, width, CV_8UC3, cv::Scalar::all(80)) {
    for (int y = 8; y + 12 <= height; y += 24) {
      cv::rectangle(image, cv::Rect(8, y, width - 24, 10), cv::Scalar(255, 200, 170), cv::FILLED);
    }
    cv::putText(image, "TEXT", {8, height / 2}, cv::FONT_HERSHEY_SIMPLEX, 1.2, cv::Scalar::all(255),
                2);
    frame = frameOf(image, {"a", "b", "c", "text"});
    frame.wantedLabels = frame.wantedClasses;
    frame.audioData = audio;
    frame.audioFrameSize = sizeof audio;
    frame.audioSampleRate = 48000;
    for (int i = 0; i < 3; ++i)
      frame.objects.emplace_back(width, height, 8 * i, 6, 8 * i + 40, 40, 0.5F, i, "a");
  }
  cv::Mat image;
  std::uint8_t audio[64] = {1, 2, 3};
  VsaFrame frame;
};

struct Model : TestModel {
  explicit Model(const Row& row) : TestModel(row.category, row.name, row.network) {
    config.engine = row.engine;
    config.objThreshold = 0.25F;
    setInput(static_cast<std::uint32_t>(row.input.width),
             static_cast<std::uint32_t>(row.input.height));
    setClasses(row.classes);
    if (!init()) throw std::runtime_error("VsaModelInit returned false");
  }

  /// The frame after a run on `input`.
  VsaFrame runOn(const Input& input) {
    VsaFrame frame = input.frame;
    if (config.modelName == "AudioNet") frame.kind = kVsaAudioFrame;
    if (!run(&frame)) throw std::runtime_error("a run returned false");
    return frame;
  }
};

// --- Measuring --------------------------------------------------------------------------------

/// Resident memory in KB, after free blocks were returned to the system.
double residentMemory() {
  malloc_trim(0);
  return residentMegabytes() * 1e6 / 1024;
}

/// Threads and open files.
using Counts = std::pair<std::ptrdiff_t, std::ptrdiff_t>;
Counts counts() {
  const auto entries = [](const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder),
                         std::filesystem::directory_iterator());
  };
  return {entries("/proc/self/task"), entries("/proc/self/fd")};
}
/// The counts once they have not changed for 0.3 s: threads end and the service closes its
/// connection a little later than the call returns.
Counts settledCounts() {
  Counts last = counts();
  for (int same = 0, i = 0; same < 30 && i < 300; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const Counts now = counts();
    same = now == last ? same + 1 : 0;
    last = now;
  }
  return last;
}

/// Growth per sample over the second half: the median of all slopes between two samples. A leak
/// changes most of the slopes, a single block that the allocator requests or returns only a few.
double slope(const std::vector<double>& samples) {
  std::vector<double> slopes;
  for (std::size_t i = samples.size() / 2; i < samples.size(); ++i) {
    for (std::size_t k = i + 1; k < samples.size(); ++k) {
      slopes.push_back((samples[k] - samples[i]) / static_cast<double>(k - i));
    }
  }
  return medianOf(slopes);
}
/// Growth from the middle to the end, each the median of a tenth of the samples.
double growth(const std::vector<double>& samples) {
  const auto size = static_cast<std::ptrdiff_t>(samples.size());
  const auto tenth = std::max<std::ptrdiff_t>(size / 10, 1);
  const auto middle = samples.begin() + size / 2;
  return medianOf({samples.end() - tenth, samples.end()}) - medianOf({middle, middle + tenth});
}

/// Divides a time limit among the parts of a check. Without a limit, each part runs in full.
class TimeShares {
 public:
  TimeShares(double seconds, std::size_t parts)
      : seconds_(seconds), parts_(static_cast<double>(parts)) {}
  void next() { ++part_; }
  /// Whether the part continues after `done` rounds: always if `done` is below `min`, never if it
  /// is `max` or more, otherwise while there is time left.
  bool continues(int done, int min, int max) const {
    const std::chrono::duration<double> spent = Clock::now() - start_;
    return done < max && (done < min || seconds_ <= 0 || spent.count() < seconds_ * part_ / parts_);
  }

 private:
  Clock::time_point start_ = Clock::now();
  double seconds_, parts_, part_ = 0;
};

int faults = 0;
void expect(bool right, const std::string& what) {
  if (right) return;
  ++faults;
  std::cout << "FAULT: " << what << std::endl;
}

std::string formatNumber(double value, int digits = 2) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(digits) << value;
  return text.str();
}
/// "min to max", or one number if both are the same.
std::string formatRange(int min, int max) {
  return std::to_string(min) + (min == max ? "" : " to " + std::to_string(max));
}

// --- The checks -------------------------------------------------------------------------------

std::string lifecycles(const std::vector<Row>& rows, double seconds) {
  // One file of each kind, cut in half.
  const std::string broken = rows.at(0).network + "broken";
  for (const auto& [from, to] :
       {std::pair{rows.at(0).network + ".xml", broken + ".xml"}, {kOnnx + "yolo8.onnx", broken}}) {
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::resize_file(to, std::filesystem::file_size(to) / 2);
  }
  const struct {
    std::string what, engine, modelName, network, device = "CPU";
  } failures[] = {{"missing file", "OpenVINO", "YOLO8", "nowhere"},
                  {"missing file", "ONNXRuntime", "YOLO8", "nowhere"},
                  {"broken file", "OpenVINO", "YOLO8", broken},
                  {"broken file", "ONNXRuntime", "YOLO8", broken},
                  {"unknown device", "OpenVINO", "YOLO8", rows.at(0).network, "NONE"},
                  {"unknown name", "OpenVINO", "YOLO0", rows.at(0).network}};
  const Input input;
  TimeShares shares(seconds, rows.size() + std::size(failures));
  double maxGrowth = 0;
  int fewest = 200;
  int fewestFailures = 400;
  const auto runPart = [&](const std::string& title, int min, int max, int& fewestDone,
                           const auto& cycle) {
    shares.next();
    for (int i = 0; i < 3; ++i) cycle();  // allocates the memory that is kept between cycles
    const Counts before = settledCounts();
    std::vector<double> samples;
    int done = 0;
    double grown = 0;
    // Over a few cycles, blocks that the allocator keeps look like growth. If a part seems to grow,
    // the number of cycles is doubled repeatedly, up to twice the full number.
    for (int count = min; done == 0 || (grown >= 1 && count <= 2 * max); count = 2 * done) {
      for (; shares.continues(done, count, std::max(count, max)); ++done) {
        cycle();
        samples.push_back(residentMemory());
      }
      grown = slope(samples);
    }
    std::cout << title << ": " << done << " cycles, " << formatNumber(grown) << " KB a cycle, "
              << formatNumber(samples.back(), 0) << " KB" << std::endl;
    expect(grown < 1, title + " grows");
    const Counts after = settledCounts();
    expect(after == before, title + " leaves threads or files: " + std::to_string(before.first) +
                                " and " + std::to_string(before.second) + " before, " +
                                std::to_string(after.first) + " and " +
                                std::to_string(after.second) + " after");
    maxGrowth = std::max(maxGrowth, grown);
    fewestDone = std::min(fewestDone, done);
  };
  for (const Row& row : rows) {
    runPart(titleOf(row), row.tiny ? 100 : 40, 200, fewest, [&] { Model(row).runOn(input); });
  }
  for (const auto& failure : failures) {
    runPart(failure.engine + " " + failure.what, 100, 400, fewestFailures, [&] {
      TestModel model("Detect", failure.modelName, failure.network);
      model.config.engine = failure.engine;
      model.config.device = failure.device;
      bool opened = false;
      try {
        opened = model.init();
      } catch (const std::exception&) {
      }
      expect(!opened, failure.what + " was opened");
    });
  }
  return std::to_string(rows.size()) + " models x " + formatRange(fewest, 200) + " cycles, " +
         std::to_string(std::size(failures)) + " failing inits x " +
         formatRange(fewestFailures, 400) + ", at most " + formatNumber(maxGrowth) +
         " KB a cycle, no thread or file left";
}

std::string soak(const std::vector<Row>& rows, double seconds) {
  const Input plain;
  std::vector<Input> sizes;
  for (int i = 0; i < 25; ++i) sizes.emplace_back(160 + 64 * (i % 5), 160 + 64 * (i / 5));
  // The vector may have moved its elements, so the pointer of each frame to its audio is set again.
  for (Input& input : sizes) input.frame.audioData = input.audio;
  TimeShares shares(seconds, rows.size());
  double maxGrowth = 0;
  double runs = 0;
  int fewest = 20000;
  int differentResults = 0;
  for (const Row& row : rows) {
    shares.next();
    const bool anySize = row.category == "Detect" && row.name == "PaddleOCR";
    const int max = row.tiny ? 20000 : 2000;
    Model model(row);
    std::vector<double> samples;
    Strings first;  // of each size
    int done = 0;
    int different = 0;
    // The memory of the trained detector stops growing after about eight rounds of its 25 sizes.
    const int min = row.tiny || anySize ? 500 : 200;
    for (; shares.continues(done, min, max); ++done) {
      const std::size_t size = anySize ? static_cast<std::size_t>(done) % sizes.size() : 0;
      const std::string result = bytesOf(model.runOn(anySize ? sizes[size] : plain));
      if (first.size() == size) first.push_back(result);
      different += result != first[size];
      if (done % 25 == 24) samples.push_back(residentMemory());
    }
    const double grown = growth(samples);
    std::cout << titleOf(row) << ": " << done << " runs, " << formatNumber(grown, 0)
              << " KB in the second half, " << formatNumber(samples.back(), 0) << " KB, "
              << different << " differ" << std::endl;
    expect(grown < (row.tiny ? 256 : 1024), titleOf(row) + " grows");
    expect(different == 0, titleOf(row) + " returns different results for the same frame");
    expect(bytesOf(model.runOn(plain)) != bytesOf(plain.frame), titleOf(row) + " has no result");
    differentResults += different;
    maxGrowth = std::max(maxGrowth, grown);
    runs += done;
    if (row.tiny) fewest = std::min(fewest, done);
  }
  return formatNumber(runs, 0) + " runs of " + std::to_string(rows.size()) +
         " models (each tiny one " + formatRange(fewest, 20000) + "), at most " +
         formatNumber(maxGrowth, 0) + " KB in the second half, " +
         std::to_string(differentResults) + " results differ";
}

/// Four threads run one context of `row` concurrently, each on its own frame. Returns the number of
/// runs whose result differs from that of a single thread.
int runTogether(const Row& row, const Input (&inputs)[2], const Strings (&expected)[2],
                std::size_t index) {
  std::atomic<int> different = 0;
  Model model(row);
  std::vector<std::thread> running;
  for (std::size_t i = 0; i < 4; ++i) {
    running.emplace_back([&, i] {
      for (int run = 0; run < 50; ++run) {
        try {
          different += bytesOf(model.runOn(inputs[i % 2])) != expected[i % 2][index];
        } catch (const std::exception& error) {
          ++different;
          std::cerr << titleOf(row) << ": " << error.what() << "\n";
        }
      }
    });
  }
  for (std::thread& thread : running) thread.join();
  return different;
}

std::string threads(const std::vector<Row>& rows, double seconds) {
  const Input inputs[] = {Input(128, 96), Input(96, 160)};  // with different results
  Strings expected[2];
  for (const Row& row : rows) {
    for (const std::size_t i : {0U, 1U})
      expected[i].push_back(bytesOf(Model(row).runOn(inputs[i])));
  }
  int shared = 0;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].engine != "ONNXRuntime") continue;
    expect(runTogether(rows[i], inputs, expected, i) == 0,
           titleOf(rows[i]) + " returns different results if runs overlap");
    ++shared;
  }
  std::atomic<int> different = 0, made = 0, thrown = 0, working = 8;
  TimeShares shares(seconds, 1);
  shares.next();
  const auto work = [&](std::size_t thread, std::size_t row, int runs) {
    const std::size_t input = thread % 2;
    try {
      Model model(rows[row]);
      for (int i = 0; i < runs; ++i)
        different += bytesOf(model.runOn(inputs[input])) != expected[input][row];
      ++made;
    } catch (const std::exception& error) {
      ++thrown;
      std::cerr << titleOf(rows[row]) << ": " << error.what() << "\n";
    }
  };
  std::vector<std::thread> running;
  // At any time, these eight threads run different models.
  for (std::size_t i = 0; i < 8; ++i) {
    running.emplace_back([&, i] {
      const int maxRounds = 4 * static_cast<int>(rows.size());
      for (int round = 0; shares.continues(round, 3, maxRounds); ++round) {
        work(i, (2 * i + static_cast<std::size_t>(round)) % rows.size(), 10);
      }
      --working;
    });
  }
  for (std::size_t i = 0; i < 4; ++i) {
    running.emplace_back([&, i] {
      for (std::size_t row = 4 * i; working > 0; ++row) work(i, row % rows.size(), 1);
    });
  }
  for (std::thread& thread : running) thread.join();
  expect(different == 0,
         std::to_string(different) + " runs gave another result than in a single thread");
  expect(thrown == 0, std::to_string(thrown) + " calls failed");
  return "12 threads, " + std::to_string(made) + " contexts of " + std::to_string(rows.size()) +
         " models made and run, " + std::to_string(different) + " results differ; " +
         std::to_string(shared) + " ONNX contexts run by 4 threads concurrently";
}

}  // namespace

int main(int argc, char** argv) try {
  using Check = std::string (*)(const std::vector<Row>&, double);
  const std::pair<std::string_view, Check> checks[] = {
      {"lifecycles", lifecycles}, {"soak", soak}, {"threads", threads}};
  const std::string_view name = argc > 1 ? argv[1] : "";
  const auto* const check = std::find_if(std::begin(checks), std::end(checks),
                                         [&](const auto& c) { return c.first == name; });
  if (check == std::end(checks))
    throw std::runtime_error("usage: Verify (lifecycles | soak | threads) [SECONDS]");
  // The library's log lines are formatted and discarded.
  google::InitGoogleLogging(argv[0]);
  for (const auto severity :
       {google::GLOG_INFO, google::GLOG_WARNING, google::GLOG_ERROR, google::GLOG_FATAL})
    google::SetLogDestination(severity, "");
  FLAGS_stderrthreshold = google::GLOG_FATAL;
  LoopbackServer service(
      LoopbackServer::ok(R"({"code": 1000, "msg": "", "mel_spec": [[1, 2], [3, 4]]})"), 9555);
  const std::string figure = check->second(makeRows(), argc > 2 ? std::stod(argv[2]) : 0);
  std::cout << name << ": " << figure
            << (faults > 0 ? ", " + std::to_string(faults) + " FAULTS" : "") << std::endl;
  return faults > 0 ? 1 : 0;
} catch (const std::exception& error) {
  std::cerr << "Verify: " << error.what() << "\n";
  return 1;
}
