// Compares the memory of every model of the library with that of its engine alone, which runs the
// same network on an input of the same size. Each runs in a process of its own, the same number of
// times:
//   build/release/benchmarks/Memory [--opening] TEXT_MODELS ONNX_NETWORKS [MODEL]
//   build/release/benchmarks/Memory --list
// (folders with the text models and with the tests' ONNX networks; port 9555 must be free; MODEL
// limits the table to models of that name). Prints one Markdown table. --opening compares time and
// memory of opening each model instead, without running it. --list writes the tiny networks and
// prints the rows without running them. With the name of a measurement as its first argument, the
// program is one of these processes.

#include <glog/logging.h>
#include <onnxruntime_cxx_api.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <string_view>

#include "support/LoopbackServer.h"
#include "support/Measure.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

constexpr int kTinyNetworkRuns = 10000;
constexpr int kFullSizeNetworkRuns = 100;
constexpr int kRepeats = 3;  // pairs of processes; the table shows medians

struct Row {
  Family family;
  std::function<std::string()> network;  // writes or finds the model file
  cv::Size configured = {64, 64};
  cv::Size input = {64, 64};  // of the network
  bool isFullSize = false;    // a network of real size instead of a tiny one
  std::string note = {};      // follows the title; rows with a note are only opened
};

std::string titleOf(const Row& row) {
  return titleOf(row.family) + row.note;
}

std::string textModels;
std::string onnxNetworks;

/// The numbers that follow the box of a candidate: an objectness of 0.9 or none, `scores` class
/// scores, `extra` numbers of 0.5.
struct CandidateLayout {
  bool isColumn = false;  // [1, values, 48] instead of [1, 48, values]
  bool hasObjectness = false;
  std::size_t scores = 1;
  std::size_t extra = 0;
  bool hasPrototypes = false;  // a second output with mask prototypes
};

/// Writes a network that returns 48 candidates of 12 x 12 pixels on a grid in 64 x 64.
std::string writeCandidates(const CandidateLayout& layout) {
  constexpr std::size_t kCount = 48;
  const std::size_t length = 4 + (layout.hasObjectness ? 1 : 0) + layout.scores + layout.extra;
  std::vector<float> values(kCount * length);
  for (std::size_t i = 0; i < kCount; ++i) {
    const std::size_t line = i / 8;
    const auto x = static_cast<float>(i % 8 * 8 + 4);
    const auto y = static_cast<float>(line * 8 + 4);
    std::vector<float> candidate{x, y, 12, 12};
    if (layout.hasObjectness) candidate.push_back(0.9F);
    for (std::size_t k = 0; k < layout.scores; ++k) {
      candidate.push_back(k == i % layout.scores ? 0.9F : 0.1F);
    }
    candidate.resize(length, 0.5F);
    for (std::size_t k = 0; k < length; ++k) {
      values[layout.isColumn ? k * kCount + i : i * length + k] = candidate[k];
    }
  }
  const ov::Shape shape =
      layout.isColumn ? ov::Shape{1, length, kCount} : ov::Shape{1, kCount, length};
  return writeNetwork({1, 3, 64, 64}, [&](const ov::Output<ov::Node>&) {
    ov::OutputVector outputs{floats(shape, values)};
    if (layout.hasPrototypes) {
      outputs.push_back(floats({1, 32, 16, 16}, std::vector<float>(std::size_t{32} * 256, 0.1F)));
    }
    return outputs;
  });
}

Row candidateRow(const Family& family, const CandidateLayout& layout) {
  return {family, [layout] { return writeCandidates(layout); }};
}

/// A row whose tiny network returns `count` numbers of 0.5.
Row vectorRow(const Family& family, std::size_t count) {
  return {family, [count] {
            return writeConstant({1, 3, 64, 64}, {1, count}, std::vector<float>(count, 0.5F));
          }};
}

Row textModelRow(const Family& family, cv::Size configured, cv::Size input,
                 const std::string& file) {
  return {family, [file] { return textModels + "/" + file; }, configured, input, true};
}

/// Throws if there is no network for the family.
Row rowOf(const Family& family) {
  if (!family.onnxFile.empty()) {
    return {family, [family] { return networkOf(family, onnxNetworks); }};
  }
  const std::string& name = family.name;
  // End to end: two corners, one score, and a class of 0.5, which is truncated to 0.
  if (name == "YOLO26") return candidateRow(family, {.extra = 1});
  if (name == "YOLO8") return candidateRow(family, {.isColumn = true, .scores = 2});
  if (name == "YOLO8-POSE") return candidateRow(family, {.isColumn = true, .extra = 51});
  if (name == "YOLO8-OBB") return candidateRow(family, {.isColumn = true, .scores = 2, .extra = 1});
  if (name == "YOLO8-Seg") {
    return candidateRow(family,
                        {.isColumn = true, .scores = 2, .extra = 32, .hasPrototypes = true});
  }
  if (name == "YOLO5") return candidateRow(family, {.hasObjectness = true, .scores = 2});
  if (name == "PaddleOCR" && family.category == "Detect") {
    return textModelRow(family, {960, 0}, {960, 544}, "detection");
  }
  if (name == "PaddleOCR") return textModelRow(family, {640, 48}, {640, 48}, "recognition");
  if (name == "ResNet") return vectorRow(family, 2);
  if (name == "DeepSort") return vectorRow(family, 256);
  if (name == "VsFaceNet") return vectorRow(family, 128);
  if (name == "AudioNet") {
    const auto network = [] { return writeConstant({1, 3, 1, 2}, {1, 2}, {0.5F, 0.5F}); };
    return {family, network, {2, 1}, {2, 1}};
  }
  if (name == "VsOCR") {
    return {family, [] { return writeConstant({1, 3, 64, 64}, {1, 3, 2}, {0, 1, 1, 0, 0, 1}); }};
  }
  throw std::runtime_error("no network for " + titleOf(family));
}

std::vector<Row> allRows() {
  std::vector<Row> rows;
  for (const Family& family : families()) {
    rows.push_back(rowOf(family));
    if (family.name != "YOLO8") continue;
    const char* const suffix = family.onnxFile.empty() ? "" : ".onnx";
    const auto network = [suffix] { return std::string(TOL_YOLO_NETWORK) + suffix; };
    rows.push_back({family, network, {640, 640}, {640, 640}, true, ", YOLOv8n"});
  }
  return rows;
}

int runsOf(const Row& row) {
  return row.isFullSize ? kFullSizeNetworkRuns : kTinyNetworkRuns;
}

/// A memory field of /proc/self/status, in MB.
double readMemory(const std::string& field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field + ":")) return std::stod(line.substr(field.size() + 1)) / 1024;
  }
  throw std::runtime_error("no field " + field);
}

/// Memory of a process that runs one model, in MB.
struct Use {
  double early = 0;  // resident after a tenth of the runs
  double late = 0;   // resident after all runs
  double peak = 0;
};

Use runRepeatedly(int runs, const std::function<void()>& run) {
  Use use;
  for (int i = 0; i < runs; ++i) {
    run();
    if (i + 1 == runs / 10) use.early = readMemory("VmRSS");
  }
  use.late = readMemory("VmRSS");
  use.peak = readMemory("VmHWM");
  return use;
}

/// An image with four lines of text on noise, and their boxes.
constexpr int kLines = 4;
cv::Mat makeImage(std::vector<VsaObject>& boxes) {
  cv::Mat image = randomImage(1920, 1080) / 4;
  for (int i = 0; i < kLines; ++i) {
    const int bottom = 200 * (i + 1);
    cv::putText(image, "LINE " + std::to_string(i), {200, bottom}, cv::FONT_HERSHEY_SIMPLEX, 3,
                {255, 255, 255}, 6);
    boxes.emplace_back(1920, 1080, 190, bottom - 90, 600, bottom + 20, 0.9F, 0, "a");
  }
  return image;
}

std::unique_ptr<TestModel> openLibrary(const Row& row, const std::string& network) {
  auto model = std::make_unique<TestModel>(row.family.category, row.family.name, network);
  VsaModelConfig& config = model->config;
  config.engine = row.family.engine;
  model->setInput(static_cast<std::uint32_t>(row.configured.width),
                  static_cast<std::uint32_t>(row.configured.height));
  model->setClasses(row.family.classNames);
  config.objThreshold = 0.25F;
  if (row.family.name == "YOLO8-POSE") config.classCount = 1;  // 17 key points
  if (row.isFullSize && row.family.category == "Track") config.classNames = {"paddleocr"};
  if (!model->init()) throw std::runtime_error("cannot open the model");
  return model;
}

Use measureLibrary(const Row& row, const std::string& network, cv::Mat& image,
                   const std::vector<VsaObject>& boxes) {
  const std::unique_ptr<TestModel> model = openLibrary(row, network);
  const std::vector<std::uint8_t> pcm(19200, 7);
  VsaFrame frame = frameOf(image, {"a", "b"});
  frame.wantedLabels = frame.wantedClasses;
  if (row.family.takes == Takes::kAudio) frame.kind = kVsaAudioFrame;
  frame.audioData = pcm.data();
  frame.audioFrameSize = static_cast<std::int32_t>(pcm.size());
  return runRepeatedly(runsOf(row), [&] {
    frame.objects.clear();
    frame.audioObjects.clear();
    if (row.family.takes == Takes::kObjects) frame.objects = boxes;
    const bool done = model->run(&frame);
    if (!done || frame.objects.size() + frame.audioObjects.size() == 0) {
      throw std::runtime_error("a run failed or returned no object");
    }
  });
}

/// A network of the engine alone, opened as the library opens it.
struct BareOpenVino {
  explicit BareOpenVino(const std::string& network)
      : compiled(core.compile_model(network + ".xml", "CPU")),
        request(compiled.create_infer_request()) {}
  ov::Core core;
  ov::CompiledModel compiled;
  ov::InferRequest request;
};

struct BareOnnxRuntime {
  explicit BareOnnxRuntime(const std::string& network) {
    Ort::SessionOptions options;
    options.SetGraphOptimizationLevel(ORT_ENABLE_BASIC);
    session = Ort::Session(environment, network.c_str(), options);
  }
  Ort::Env environment{ORT_LOGGING_LEVEL_WARNING, "memory"};
  Ort::Session session{nullptr};
};

Use measureOpenVino(const Row& row, const std::string& network) {
  BareOpenVino bare(network);
  const auto width = static_cast<std::size_t>(row.input.width);
  const auto height = static_cast<std::size_t>(row.input.height);
  ov::Tensor input = bare.request.get_input_tensor();
  input.set_shape({1, 3, height, width});
  std::fill_n(input.data<float>(), input.get_size(), 0.5F);  // resident only once it is written
  return runRepeatedly(runsOf(row), [&] {
    for (int i = 0; i < (row.family.takes == Takes::kObjects ? kLines : 1); ++i) {
      bare.request.infer();
    }
  });
}

Use measureOnnxRuntime(const Row& row, const std::string& network) {
  BareOnnxRuntime bare(network);
  const std::array<std::int64_t, 4> shape{1, 3, row.input.height, row.input.width};
  std::vector<float> planes(std::size_t{3} * static_cast<std::size_t>(row.input.area()));
  const Ort::MemoryInfo memoryInfo =
      Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  const Ort::AllocatorWithDefaultOptions allocator;
  const auto input = bare.session.GetInputNameAllocated(0, allocator);
  const auto output = bare.session.GetOutputNameAllocated(0, allocator);
  const char* const inputName = input.get();
  const char* const outputName = output.get();
  const Ort::Value tensor = Ort::Value::CreateTensor<float>(
      memoryInfo, planes.data(), planes.size(), shape.data(), shape.size());
  return runRepeatedly(runsOf(row),
                       [&] { bare.session.Run({}, &inputName, &tensor, 1, &outputName, 1); });
}

/// Times of opening a model with the engine alone and with the library, in ms.
struct Opening {
  double engine = 0;
  double ours = 0;
  double ratio = 0;  // ours divided by the engine's: the median over adjacent openings
};

/// Memory of a process that has opened one model, in MB.
struct OpenedUse {
  double resident = 0;
  double peak = 0;
};

/// Opens a model alternately with the engine alone and with the library. Closing is not timed.
Opening measureOpening(const Row& row, const std::string& network) {
  const int openings = row.isFullSize ? 30 : 150;
  using Clock = std::chrono::steady_clock;
  const auto time = [](const auto& open) {
    const Clock::time_point start = Clock::now();
    const auto model = open();
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  };
  const auto openBare = [&] {
    return row.family.engine == "OpenVINO"
               ? time([&] { return std::make_unique<BareOpenVino>(network); })
               : time([&] { return std::make_unique<BareOnnxRuntime>(network); });
  };
  const auto openOurs = [&] { return time([&] { return openLibrary(row, network); }); };
  openBare();  // loads the engine's plug-ins
  openOurs();
  std::vector<double> engine;
  std::vector<double> ours;
  std::vector<double> ratios;
  for (int i = 0; i < openings; ++i) {
    // Each of the two opens first in every second round.
    if (i % 2 == 0) engine.push_back(openBare());
    ours.push_back(openOurs());
    if (i % 2 == 1) engine.push_back(openBare());
    ratios.push_back(ours.back() / engine.back());
  }
  return {medianOf(engine), medianOf(ours), medianOf(ratios)};
}

/// Runs in a process of its own.
void measure(const std::string& kind, const Row& row, const std::string& network) {
  FLAGS_minloglevel = google::GLOG_WARNING;
  std::vector<VsaObject> boxes;
  cv::Mat image = makeImage(boxes);
  if (kind == "opening") {
    const Opening opening = measureOpening(row, network);
    std::cout << opening.engine << " " << opening.ours << " " << opening.ratio << "\n";
    return;
  }
  if (kind == "opened-library" || kind == "opened-engine") {
    const std::shared_ptr<void> model =
        kind == "opened-library" ? std::shared_ptr<void>(openLibrary(row, network))
        : row.family.engine == "OpenVINO"
            ? std::shared_ptr<void>(std::make_shared<BareOpenVino>(network))
            : std::shared_ptr<void>(std::make_shared<BareOnnxRuntime>(network));
    std::cout << readMemory("VmRSS") << " " << readMemory("VmHWM") << "\n";
    return;
  }
  const Use use = kind == "library"                 ? measureLibrary(row, network, image, boxes)
                  : row.family.engine == "OpenVINO" ? measureOpenVino(row, network)
                                                    : measureOnnxRuntime(row, network);
  std::cout << use.early << " " << use.late << " " << use.peak << "\n";
}

/// Starts this program again to measure a row. Returns the numbers that it prints.
template <std::size_t count>
std::array<double, count> measureInProcess(const std::string& kind, std::size_t row,
                                           const std::string& network) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::string command =
      "'" + self + "' " + kind + " " + std::to_string(row) + " '" + network + "'";
  FILE* const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("cannot start a process");
  std::array<double, count> numbers{};
  bool isRead = true;
  for (double& number : numbers) isRead = std::fscanf(pipe, "%lf", &number) == 1 && isRead;
  if (pclose(pipe) != 0 || !isRead) throw std::runtime_error(command + " failed");
  return numbers;
}

/// kRepeats values of measureInProcess, alternately for the engine alone and for the library.
template <std::size_t count>
struct Pairs {
  using Numbers = std::array<double, count>;

  Pairs(const std::string& prefix, std::size_t row, const std::string& network) {
    for (std::size_t k = 0; k < kRepeats; ++k) {
      engine[k] = measureInProcess<count>(prefix + "engine", row, network);
      ours[k] = measureInProcess<count>(prefix + "library", row, network);
    }
  }
  double medianOf(
      const std::function<double(const Numbers& engine, const Numbers& ours)>& value) const {
    std::vector<double> values;
    for (std::size_t k = 0; k < kRepeats; ++k) values.push_back(value(engine[k], ours[k]));
    return ::medianOf(values);
  }

  std::array<Numbers, kRepeats> engine;
  std::array<Numbers, kRepeats> ours;
};

void printMemory(const Row& row, std::size_t index, const std::string& network) {
  const Pairs<3> pairs("", index, network);
  const auto medianOf = [&pairs](const std::function<double(const Use& b, const Use& o)>& value) {
    return pairs.medianOf([&value](const std::array<double, 3>& b, const std::array<double, 3>& o) {
      return value({b[0], b[1], b[2]}, {o[0], o[1], o[2]});
    });
  };
  std::printf("| %s | %d | %.1f | %.1f | %+.1f | %+.1f | %+.2f | %+.2f |\n", titleOf(row).c_str(),
              runsOf(row), medianOf([](const Use& b, const Use&) { return b.late; }),
              medianOf([](const Use&, const Use& o) { return o.late; }),
              medianOf([](const Use& b, const Use& o) { return o.late - b.late; }),
              medianOf([](const Use& b, const Use& o) { return o.peak - b.peak; }),
              medianOf([](const Use&, const Use& o) { return o.late - o.early; }),
              medianOf([](const Use& b, const Use&) { return b.late - b.early; }));
}

void printOpening(const Row& row, std::size_t index, const std::string& network) {
  const auto [engine, ours, ratio] = measureInProcess<3>("opening", index, network);
  const Pairs<2> pairs("opened-", index, network);
  using Numbers = Pairs<2>::Numbers;
  std::printf("| %s | %.2f | %.2f | %.3f | %.1f | %+.1f | %.1f | %+.1f |\n", titleOf(row).c_str(),
              engine, ours, ratio,
              pairs.medianOf([](const Numbers& b, const Numbers&) { return b[0]; }),
              pairs.medianOf([](const Numbers& b, const Numbers& o) { return o[0] - b[0]; }),
              pairs.medianOf([](const Numbers& b, const Numbers&) { return b[1]; }),
              pairs.medianOf([](const Numbers& b, const Numbers& o) { return o[1] - b[1]; }));
}

/// Calls `print` for the rows of models named `only`, or for all rows if it is empty. Rows with a
/// note are left out unless `withNotes`.
void printTable(const std::string& header, const std::string& only, bool withNotes,
                void (*print)(const Row& row, std::size_t index, const std::string& network)) {
  std::puts(header.c_str());
  const std::vector<Row> rows = allRows();
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (!only.empty() && rows[i].family.name != only) continue;
    if (!withNotes && !rows[i].note.empty()) continue;
    print(rows[i], i, rows[i].network());
    std::fflush(stdout);
  }
}

void printMemoryTable(const std::string& only) {
  // A spectrogram of one band and two steps, so that parsing takes little time.
  const LoopbackServer service(
      LoopbackServer::ok(R"({"code": 1000, "msg": "", "mel_spec": [[0.5, 0.5]]})"), 9555);
  printTable(
      "| model | runs | engine alone, MB | library, MB | difference, MB | difference of peaks, MB "
      "| growth of the library, MB | growth of the engine, MB "
      "|\n|---|---|---|---|---|---|---|---|",
      only, false, printMemory);
}

void printOpeningTable(const std::string& only) {
  printTable(
      "| model | engine alone, ms | library, ms | ratio | engine alone, MB | difference, MB | peak "
      "of the engine alone, MB | difference of peaks, MB |\n|---|---|---|---|---|---|---|---|",
      only, true, printOpening);
}

}  // namespace

int main(int argc, char** argv) try {
  // The library switches it off, so the engine alone runs without it, too.
  setenv("ORT_DISABLE_TELEMETRY", "1", 1);
  std::vector<std::string> arguments(argv + 1, argv + argc);
  const bool isOpening = !arguments.empty() && arguments[0] == "--opening";
  if (isOpening) arguments.erase(arguments.begin());
  constexpr std::array<std::string_view, 5> kKinds = {"engine", "library", "opening",
                                                      "opened-engine", "opened-library"};
  if (arguments == std::vector<std::string>{"--list"}) {
    for (const Row& row : allRows()) {
      std::cout << titleOf(row) << ": " << row.network() << "\n";
    }
  } else if (arguments.size() == 3 && std::ranges::find(kKinds, arguments[0]) != kKinds.end()) {
    measure(arguments[0], allRows().at(std::stoul(arguments[1])), arguments[2]);
  } else if (arguments.size() == 2 || arguments.size() == 3) {
    textModels = arguments[0];
    onnxNetworks = arguments[1];
    const std::string only = arguments.size() == 3 ? arguments[2] : "";
    isOpening ? printOpeningTable(only) : printMemoryTable(only);
  } else {
    std::cerr << "usage: Memory [--opening] TEXT_MODELS ONNX_NETWORKS [MODEL] | Memory --list\n";
    return 2;
  }
  return 0;
} catch (const std::exception& error) {
  std::cerr << "Memory: " << error.what() << "\n";
  return 1;
}
