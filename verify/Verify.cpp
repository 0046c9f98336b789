// What a host relies on over time: every model made and released again and again, run thousands of
// times, run by many threads. Scripts of verify/ call it.
//
// Usage: Verify (lifecycles | soak | threads) [SECONDS]
//
// The last line printed is the check's name and figure; the exit code is 0 when all was right.

#include <glog/logging.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <thread>

#include "support/Families.h"
#include "support/LoopbackServer.h"
#include "support/TestHost.h"

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
  std::string network;  ///< Path as the model takes it.
  bool tiny = true;
};

/// Every row of the library's table, and the real text models where they are there.
std::vector<Row> makeRows() {
  std::vector<Row> rows;
  for (const Family& family : kFamilies) {
    rows.push_back({"OpenVINO", family.category, family.name, family.input, {"a", "b"}, writeFamily(family)});
  }
  for (const std::string name : {"5", "8", "26"}) {
    rows.push_back({"ONNXRuntime", "Detect", "YOLO" + name, {64, 64}, {"a", "b"}, kOnnx + "yolo" + name + ".onnx"});
  }
  if (std::filesystem::exists(kTextModels + "detection.xml")) {
    rows.push_back({"OpenVINO", "Detect", "PaddleOCR", {640, 0}, {"text"}, kTextModels + "detection", false});
    rows.push_back({"OpenVINO", "Track", "PaddleOCR", {320, 48}, {"paddleocr"}, kTextModels + "recognition", false});
  }
  return rows;
}

std::string titleOf(const Row& row) {
  return row.engine + " " + row.category + " " + row.name + (row.tiny ? "" : " (real)");
}

/// What a host hands to any of the models: a picture with bars, a word and three objects; a sound. The bytes of its
/// colours stand for scores and for coordinates in the tiny networks (Families.h).
struct Input {
  explicit Input(int width = 128, int height = 96) : image(height, width, CV_8UC3, cv::Scalar::all(80)) {
    for (int y = 8; y + 12 <= height; y += 24) {
      cv::rectangle(image, cv::Rect(8, y, width - 24, 10), cv::Scalar(255, 200, 170), cv::FILLED);
    }
    cv::putText(image, "TEXT", {8, height / 2}, cv::FONT_HERSHEY_SIMPLEX, 1.2, cv::Scalar::all(255), 2);
    frame = frameOf(image, {"a", "b", "c", "text"});
    frame.wantedLabels = frame.wantedClasses;
    frame.audioData = sound;
    frame.audioFrameSize = sizeof sound;
    frame.audioSampleRate = 48000;
    for (int i = 0; i < 3; ++i) frame.objects.emplace_back(width, height, 8 * i, 6, 8 * i + 40, 40, 0.5F, i, "a");
  }
  cv::Mat image;
  std::uint8_t sound[64] = {1, 2, 3};
  VsaFrame frame;
};

struct Model : TestModel {
  explicit Model(const Row& row) : TestModel(row.category, row.name, row.network) {
    config.engine = row.engine;
    config.objThreshold = 0.25F;
    setInput(static_cast<std::uint32_t>(row.input.width), static_cast<std::uint32_t>(row.input.height));
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

/// Resident memory in KB, after free blocks went back to the system.
double resident() {
  malloc_trim(0);
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return static_cast<double>(pages * sysconf(_SC_PAGESIZE)) / 1024;
}

/// Threads and open files.
using Counts = std::pair<std::ptrdiff_t, std::ptrdiff_t>;
Counts counts() {
  const auto entries = [](const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
  };
  return {entries("/proc/self/task"), entries("/proc/self/fd")};
}
/// The counts once they have not changed for 0.3 s: threads end and the service closes its connection a little later
/// than the call returns.
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

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}
/// Growth a sample over the second half: the median of all slopes between two samples. A leak shows
/// in most of them, a single block that the allocator takes or gives back in few.
double slope(const std::vector<double>& samples) {
  std::vector<double> slopes;
  for (std::size_t i = samples.size() / 2; i < samples.size(); ++i) {
    for (std::size_t k = i + 1; k < samples.size(); ++k) {
      slopes.push_back((samples[k] - samples[i]) / static_cast<double>(k - i));
    }
  }
  return median(slopes);
}
/// Growth from the middle to the end, each the median of a tenth of the samples.
double growth(const std::vector<double>& samples) {
  const auto size = static_cast<std::ptrdiff_t>(samples.size());
  const auto tenth = std::max<std::ptrdiff_t>(size / 10, 1);
  const auto middle = samples.begin() + size / 2;
  return median({samples.end() - tenth, samples.end()}) - median({middle, middle + tenth});
}

/// Shares out the seconds given among the parts of a check; without any, parts run to their end.
class Shares {
 public:
  Shares(double seconds, std::size_t parts) : seconds_(seconds), parts_(static_cast<double>(parts)) {}
  void next() { ++part_; }
  /// Whether the part goes on after `done` rounds out of `most`, of which `least` are always made.
  bool more(int done, int least, int most) const {
    const std::chrono::duration<double> spent = Clock::now() - start_;
    return done < most && (done < least || seconds_ <= 0 || spent.count() < seconds_ * part_ / parts_);
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

std::string rounded(double value, int digits = 2) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(digits) << value;
  return text.str();
}
/// "least to most", or the one number that both are.
std::string range(int least, int most) {
  return std::to_string(least) + (least == most ? "" : " to " + std::to_string(most));
}

// --- The checks -------------------------------------------------------------------------------

std::string lifecycles(const std::vector<Row>& rows, double seconds) {
  // Half a file of each kind, beside the whole ones.
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
  Shares shares(seconds, rows.size() + std::size(failures));
  double worst = 0;
  int fewest = 200;
  int fewestFailures = 400;
  const auto part = [&](const std::string& title, int few, int most, int& fewestDone, const auto& cycle) {
    shares.next();
    for (int i = 0; i < 3; ++i) cycle();  // what is set up once and kept
    const Counts before = settledCounts();
    std::vector<double> samples;
    int done = 0;
    double grown = 0;
    // Over a few cycles, blocks that the allocator keeps look like growth: what seems to grow is
    // cycled twice as often, and again, to twice the full count.
    for (int least = few; done == 0 || (grown >= 1 && least <= 2 * most); least = 2 * done) {
      for (; shares.more(done, least, std::max(least, most)); ++done) {
        cycle();
        samples.push_back(resident());
      }
      grown = slope(samples);
    }
    std::cout << title << ": " << done << " cycles, " << rounded(grown) << " KB a cycle, " << rounded(samples.back(), 0)
              << " KB" << std::endl;
    expect(grown < 1, title + " grows");
    const Counts after = settledCounts();
    expect(after == before, title + " leaves threads or files: " + std::to_string(before.first) + " and " +
                                std::to_string(before.second) + " before, " + std::to_string(after.first) + " and " +
                                std::to_string(after.second) + " after");
    worst = std::max(worst, grown);
    fewestDone = std::min(fewestDone, done);
  };
  for (const Row& row : rows) {
    part(titleOf(row), row.tiny ? 100 : 40, 200, fewest, [&] { Model(row).runOn(input); });
  }
  for (const auto& failure : failures) {
    part(failure.engine + " " + failure.what, 100, 400, fewestFailures, [&] {
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
  return std::to_string(rows.size()) + " models x " + range(fewest, 200) + " cycles, " +
         std::to_string(std::size(failures)) + " failing inits x " + range(fewestFailures, 400) + ", at most " +
         rounded(worst) + " KB a cycle, no thread or file left";
}

std::string soak(const std::vector<Row>& rows, double seconds) {
  const Input plain;
  std::vector<Input> sizes;
  for (int i = 0; i < 25; ++i) sizes.emplace_back(160 + 64 * (i % 5), 160 + 64 * (i / 5));
  // A vector's elements moved; each frame's sound is to be its own.
  for (Input& input : sizes) input.frame.audioData = input.sound;
  Shares shares(seconds, rows.size());
  double worst = 0;
  double runs = 0;
  int fewest = 20000;
  int others = 0;
  for (const Row& row : rows) {
    shares.next();
    const bool anySize = row.category == "Detect" && row.name == "PaddleOCR";
    const int most = row.tiny ? 20000 : 2000;
    Model model(row);
    std::vector<double> samples;
    Strings first;  // of each size
    int done = 0;
    int different = 0;
    // The plateau of the real detector is reached after some eight rounds of its 25 sizes.
    const int least = row.tiny || anySize ? 500 : 200;
    for (; shares.more(done, least, most); ++done) {
      const std::size_t size = anySize ? static_cast<std::size_t>(done) % sizes.size() : 0;
      const std::string result = bytesOf(model.runOn(anySize ? sizes[size] : plain));
      if (first.size() == size) first.push_back(result);
      different += result != first[size];
      if (done % 25 == 24) samples.push_back(resident());
    }
    const double grown = growth(samples);
    std::cout << titleOf(row) << ": " << done << " runs, " << rounded(grown, 0) << " KB in the second half, "
              << rounded(samples.back(), 0) << " KB, " << different << " differ" << std::endl;
    expect(grown < (row.tiny ? 256 : 1024), titleOf(row) + " grows");
    expect(different == 0, titleOf(row) + " gives other results for the same frame");
    expect(bytesOf(model.runOn(plain)) != bytesOf(plain.frame), titleOf(row) + " has no result");
    others += different;
    worst = std::max(worst, grown);
    runs += done;
    if (row.tiny) fewest = std::min(fewest, done);
  }
  return rounded(runs, 0) + " runs of " + std::to_string(rows.size()) + " models (each tiny one " +
         range(fewest, 20000) + "), at most " + rounded(worst, 0) + " KB in the second half, " +
         std::to_string(others) + " results differ";
}

std::string threads(const std::vector<Row>& rows, double seconds) {
  const Input inputs[] = {Input(128, 96), Input(96, 160)};  // contexts of one model must not mix them up
  Strings expected[2];
  for (const Row& row : rows) {
    for (const std::size_t i : {0U, 1U}) expected[i].push_back(bytesOf(Model(row).runOn(inputs[i])));
  }
  std::atomic<int> different = 0, made = 0, thrown = 0, working = 8;
  Shares shares(seconds, 1);
  shares.next();
  const auto work = [&](std::size_t thread, std::size_t row, int runs) {
    const std::size_t input = thread % 2;
    try {
      Model model(rows[row]);
      for (int i = 0; i < runs; ++i) different += bytesOf(model.runOn(inputs[input])) != expected[input][row];
      ++made;
    } catch (const std::exception& error) {
      ++thrown;
      std::cerr << titleOf(rows[row]) << ": " << error.what() << "\n";
    }
  };
  std::vector<std::thread> running;
  // The eight are at different models all the time.
  for (std::size_t i = 0; i < 8; ++i) {
    running.emplace_back([&, i] {
      const int most = 4 * static_cast<int>(rows.size());
      for (int round = 0; shares.more(round, 3, most); ++round) {
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
  expect(different == 0, std::to_string(different) + " runs gave another result than alone");
  expect(thrown == 0, std::to_string(thrown) + " calls failed");
  return "12 threads, " + std::to_string(made) + " contexts of " + std::to_string(rows.size()) +
         " models made and run, " + std::to_string(different) + " results differ";
}

}  // namespace

int main(int argc, char** argv) try {
  using Check = std::string (*)(const std::vector<Row>&, double);
  const std::pair<std::string_view, Check> checks[] = {
      {"lifecycles", lifecycles}, {"soak", soak}, {"threads", threads}};
  const std::string_view name = argc > 1 ? argv[1] : "";
  const auto* const check =
      std::find_if(std::begin(checks), std::end(checks), [&](const auto& c) { return c.first == name; });
  if (check == std::end(checks)) throw std::runtime_error("usage: Verify (lifecycles | soak | threads) [SECONDS]");
  // The library's lines are made and go nowhere.
  google::InitGoogleLogging(argv[0]);
  for (int severity = 0; severity < google::NUM_SEVERITIES; ++severity) google::SetLogDestination(severity, "");
  FLAGS_stderrthreshold = google::GLOG_FATAL;
  LoopbackServer service(LoopbackServer::ok(R"({"code": 1000, "msg": "", "mel_spec": [[1, 2], [3, 4]]})"), 9555);
  const std::string figure = check->second(makeRows(), argc > 2 ? std::stod(argv[2]) : 0);
  std::cout << name << ": " << figure << (faults > 0 ? ", " + std::to_string(faults) + " FAULTS" : "") << std::endl;
  return faults > 0 ? 1 : 0;
} catch (const std::exception& error) {
  std::cerr << "Verify: " << error.what() << "\n";
  return 1;
}
