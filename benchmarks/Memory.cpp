// Memory of every model of the library beside that of the bare engine with the same network and an
// input of the same size, each in a process of its own, after the same number of runs:
//   build/release/benchmarks/Memory TEXT_MODELS ONNX_NETWORKS [MODEL]
// (folders with the text models and with the tests' ONNX networks; port 9555 must be free; with
// MODEL only those models whose name it is).
// Prints one Markdown table. Called with "bare" or "library" it is one of those processes.

#include <glog/logging.h>
#include <onnxruntime_cxx_api.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <opencv2/imgproc.hpp>
#include <stdexcept>

#include "support/LoopbackServer.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

constexpr int kManyRuns = 10000;  // of a tiny network
constexpr int kFewRuns = 100;     // of a real one
constexpr int kRepeats = 3;       // pairs of processes; the table shows medians
const char* const kClasses[] = {"a", "b"};

enum class Work { kDetect, kObjects, kSound };

struct Row {
  std::string engine, category, name;
  Work work;
  std::uint32_t width, height;       // as configured
  std::array<std::size_t, 2> shown;  // width and height that the network is shown
  std::function<std::string()> network;
};

std::string textModels;
std::string onnxNetworks;

/// 48 candidates of 12 x 12 pixels on a grid in 64 x 64, seen as [1, 48, values] or turned: four
/// numbers for the box, two class scores after an objectness or alone, `more` numbers of 0.5.
std::string candidates(bool turned, bool objectness, std::size_t scores, std::size_t more,
                       bool withPrototypes = false) {
  constexpr std::size_t kCount = 48;
  const std::size_t length = 4 + (objectness ? 1 : 0) + scores + more;
  std::vector<float> values(kCount * length);
  for (std::size_t i = 0; i < kCount; ++i) {
    const std::size_t line = i / 8;
    const auto x = static_cast<float>(i % 8 * 8 + 4);
    const auto y = static_cast<float>(line * 8 + 4);
    std::vector<float> row{x, y, 12, 12};
    if (objectness) row.push_back(0.9F);
    for (std::size_t k = 0; k < scores; ++k) row.push_back(k == i % scores ? 0.9F : 0.1F);
    row.resize(length, 0.5F);
    for (std::size_t k = 0; k < length; ++k) {
      values[turned ? k * kCount + i : i * length + k] = row[k];
    }
  }
  return writeNetwork({1, 3, 64, 64}, [&](const ov::Output<ov::Node>&) {
    ov::OutputVector outputs{
        floats(turned ? ov::Shape{1, length, kCount} : ov::Shape{1, kCount, length}, values)};
    if (withPrototypes) {
      outputs.push_back(floats({1, 32, 16, 16}, std::vector<float>(std::size_t{32} * 256, 0.1F)));
    }
    return outputs;
  });
}

/// A network that gives `count` numbers of 0.5 whatever it is shown.
std::function<std::string()> numbers(std::size_t count) {
  return [count] {
    return writeConstant({1, 3, 64, 64}, {1, count}, std::vector<float>(count, 0.5F));
  };
}

std::function<std::string()> onnx(const std::string& name) {
  return [name] { return onnxNetworks + "/" + name + ".onnx"; };
}

std::vector<Row> allRows() {
  const std::string ov = "OpenVINO";
  const std::string ort = "ONNXRuntime";
  const auto yolo = [](const std::string& engine, const std::string& name,
                       std::function<std::string()> network) {
    return Row{engine, "Detect", name, Work::kDetect, 64, 64, {64, 64}, std::move(network)};
  };
  const auto object = [&](const std::string& category, const std::string& name, std::size_t count) {
    return Row{ov, category, name, Work::kObjects, 64, 64, {64, 64}, numbers(count)};
  };
  return {
      // End to end: the six numbers are two corners, the score and the class.
      yolo(ov, "YOLO26", [] { return candidates(false, false, 1, 1); }),
      yolo(ov, "YOLO8", [] { return candidates(true, false, 2, 0); }),
      yolo(ov, "YOLO8-POSE", [] { return candidates(true, false, 1, 51); }),
      yolo(ov, "YOLO8-OBB", [] { return candidates(true, false, 2, 1); }),
      yolo(ov, "YOLO8-Seg", [] { return candidates(true, false, 2, 32, true); }),
      yolo(ov, "YOLO5", [] { return candidates(false, true, 2, 0); }),
      {ov,
       "Detect",
       "PaddleOCR",
       Work::kDetect,
       960,
       0,
       {960, 544},
       [] { return textModels + "/detection"; }},
      object("Classify", "ResNet", 2),
      {ov,
       "Classify",
       "AudioNet",
       Work::kSound,
       2,
       1,
       {2, 1},
       [] {
         return writeConstant({1, 3, 1, 2}, {1, 2}, {0.5F, 0.5F});
       }},
      object("Track", "DeepSort", 256),
      {ov,
       "Track",
       "PaddleOCR",
       Work::kObjects,
       640,
       48,
       {640, 48},
       [] { return textModels + "/recognition"; }},
      object("Track", "VsFaceNet", 128),
      {ov,
       "Track",
       "VsOCR",
       Work::kObjects,
       64,
       64,
       {64, 64},
       [] {
         return writeConstant({1, 3, 64, 64}, {1, 3, 2}, {0, 1, 1, 0, 0, 1});
       }},
      yolo(ort, "YOLO5", onnx("yolo5")),
      yolo(ort, "YOLO8", onnx("yolo8")),
      yolo(ort, "YOLO26", onnx("yolo26")),
  };
}

int runsOf(const Row& row) {
  return row.name == "PaddleOCR" ? kFewRuns : kManyRuns;
}

/// A field of the process's own state, in MB.
double memory(const std::string& field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field + ":")) return std::stod(line.substr(field.size() + 1)) / 1024;
  }
  throw std::runtime_error("no " + field);
}

/// What a process of one model reports, in MB.
struct Use {
  double early = 0;  // resident after a tenth of the runs
  double steady = 0;
  double peak = 0;
};

Use repeated(int runs, const std::function<void()>& run) {
  Use use;
  for (int i = 0; i < runs; ++i) {
    run();
    if (i + 1 == runs / 10) use.early = memory("VmRSS");
  }
  use.steady = memory("VmRSS");
  use.peak = memory("VmHWM");
  return use;
}

/// Four lines of text on a noisy ground, and the boxes round them.
constexpr int kLines = 4;
cv::Mat picture(std::vector<VsaObject>& boxes) {
  cv::Mat image = randomImage(1920, 1080) / 4;
  for (int i = 0; i < kLines; ++i) {
    const int bottom = 200 * (i + 1);
    cv::putText(image, "LINE " + std::to_string(i), {200, bottom}, cv::FONT_HERSHEY_SIMPLEX, 3,
                {255, 255, 255}, 6);
    boxes.emplace_back(1920, 1080, 190, bottom - 90, 600, bottom + 20, 0.9F, 0, "a");
  }
  return image;
}

Use library(const Row& row, const std::string& network, cv::Mat& image,
            const std::vector<VsaObject>& boxes) {
  TestModel model(row.category, row.name, network);
  model.config.engine = row.engine;
  model.setInput(row.width, row.height);
  model.setClasses({std::begin(kClasses), std::end(kClasses)});
  model.config.objThreshold = 0.25F;
  if (row.name == "YOLO8-POSE") model.config.classCount = 1;  // which means 17 key points
  if (row.name == "PaddleOCR" && row.category == "Track") model.config.classNames = {"paddleocr"};
  if (!model.init()) throw std::runtime_error("the model could not be opened");
  const std::vector<std::uint8_t> pcm(19200, 7);
  VsaFrame frame = frameOf(image, {"a", "b"});
  frame.wantedLabels = frame.wantedClasses;
  if (row.work == Work::kSound) frame.kind = kVsaAudioFrame;
  frame.audioData = pcm.data();
  frame.audioFrameSize = static_cast<std::int32_t>(pcm.size());
  const auto call = row.category == "Detect"     ? VsaModelDetect
                    : row.category == "Classify" ? VsaModelClassify
                                                 : VsaModelFeature;
  return repeated(runsOf(row), [&] {
    frame.objects.clear();
    frame.audioObjects.clear();
    if (row.work == Work::kObjects) frame.objects = boxes;
    const bool done = call(&model.context, &frame);
    if (!done || frame.objects.size() + frame.audioObjects.size() == 0) {
      throw std::runtime_error("a run failed or found nothing");
    }
  });
}

Use bareOpenVino(const Row& row, const std::string& network) {
  ov::Core core;
  ov::CompiledModel compiled = core.compile_model(network + ".xml", "CPU");
  ov::InferRequest request = compiled.create_infer_request();
  ov::Tensor input = request.get_input_tensor();
  input.set_shape({1, 3, row.shown[1], row.shown[0]});
  std::fill_n(input.data<float>(), input.get_size(), 0.5F);  // memory counts once it is written
  return repeated(runsOf(row), [&] {
    for (int i = 0; i < (row.work == Work::kObjects ? kLines : 1); ++i) request.infer();
  });
}

Use bareOnnxRuntime(const Row& row, const std::string& network) {
  const Ort::Env environment(ORT_LOGGING_LEVEL_WARNING, "bare");
  Ort::SessionOptions options;
  options.SetGraphOptimizationLevel(ORT_ENABLE_BASIC);
  Ort::Session session(environment, network.c_str(), options);
  const std::array<std::int64_t, 4> shape{1, 3, static_cast<std::int64_t>(row.shown[1]),
                                          static_cast<std::int64_t>(row.shown[0])};
  std::vector<float> planes(3 * row.shown[0] * row.shown[1]);
  const Ort::MemoryInfo place = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  const Ort::AllocatorWithDefaultOptions allocator;
  const auto input = session.GetInputNameAllocated(0, allocator);
  const auto output = session.GetOutputNameAllocated(0, allocator);
  const char* const in = input.get();
  const char* const out = output.get();
  const Ort::Value tensor = Ort::Value::CreateTensor<float>(place, planes.data(), planes.size(),
                                                            shape.data(), shape.size());
  return repeated(runsOf(row), [&] { session.Run({}, &in, &tensor, 1, &out, 1); });
}

/// One of the processes: kind, number of the row, network.
void measure(const std::string& kind, const Row& row, const std::string& network) {
  FLAGS_minloglevel = google::GLOG_WARNING;
  std::vector<VsaObject> boxes;
  cv::Mat image = picture(boxes);
  const Use use = kind == "library"          ? library(row, network, image, boxes)
                  : row.engine == "OpenVINO" ? bareOpenVino(row, network)
                                             : bareOnnxRuntime(row, network);
  std::cout << use.early << " " << use.steady << " " << use.peak << "\n";
}

Use measuredElsewhere(const std::string& kind, std::size_t row, const std::string& network) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::string command =
      "'" + self + "' " + kind + " " + std::to_string(row) + " '" + network + "'";
  FILE* const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("no process could be started");
  Use use;
  const int read = std::fscanf(pipe, "%lf %lf %lf", &use.early, &use.steady, &use.peak);
  if (pclose(pipe) != 0 || read != 3) throw std::runtime_error(command + " failed");
  return use;
}

double median(std::array<double, kRepeats> values) {
  std::sort(values.begin(), values.end());
  return values[kRepeats / 2];
}

/// \param only a modelName, or empty for all models.
void table(const std::string& only) {
  // A spectrogram of one band and two steps, so that the time goes into runs and not into parsing.
  const LoopbackServer service(
      LoopbackServer::ok(R"({"code": 1000, "msg": "", "mel_spec": [[0.5, 0.5]]})"), 9555);
  std::puts(
      "| model | runs | bare engine, MB | library, MB | more, MB | peak, more, MB "
      "| growth of the library, MB | of the engine |\n|---|---|---|---|---|---|---|---|");
  const std::vector<Row> rows = allRows();
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (!only.empty() && rows[i].name != only) continue;
    const std::string network = rows[i].network();
    std::array<Use, kRepeats> bare;
    std::array<Use, kRepeats> ours;
    for (std::size_t k = 0; k < kRepeats; ++k) {
      bare[k] = measuredElsewhere("bare", i, network);
      ours[k] = measuredElsewhere("library", i, network);
    }
    const auto of = [&](const std::function<double(const Use& bare, const Use& ours)>& value) {
      std::array<double, kRepeats> values{};
      for (std::size_t k = 0; k < kRepeats; ++k) values[k] = value(bare[k], ours[k]);
      return median(values);
    };
    std::printf("| %s %s %s | %d | %.1f | %.1f | %+.1f | %+.1f | %+.2f | %+.2f |\n",
                rows[i].engine.c_str(), rows[i].category.c_str(), rows[i].name.c_str(),
                runsOf(rows[i]), of([](const Use& b, const Use&) { return b.steady; }),
                of([](const Use&, const Use& o) { return o.steady; }),
                of([](const Use& b, const Use& o) { return o.steady - b.steady; }),
                of([](const Use& b, const Use& o) { return o.peak - b.peak; }),
                of([](const Use&, const Use& o) { return o.steady - o.early; }),
                of([](const Use& b, const Use&) { return b.steady - b.early; }));
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char** argv) try {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() == 3 && (words[0] == "bare" || words[0] == "library")) {
    measure(words[0], allRows().at(std::stoul(words[1])), words[2]);
  } else if (words.size() == 2 || words.size() == 3) {
    textModels = words[0];
    onnxNetworks = words[1];
    table(words.size() == 3 ? words[2] : "");
  } else {
    std::cerr << "usage: Memory TEXT_MODELS ONNX_NETWORKS [MODEL]\n";
    return 2;
  }
  return 0;
} catch (const std::exception& error) {
  std::cerr << "Memory: " << error.what() << "\n";
  return 1;
}
