// The library's steps beside the plainest way to do them, and its calls beside the engine's bare
// work, in turn in one run. Run by hand, on an idle machine:
//   build/release/benchmarks/Ratios [--markdown] [--fastest] [part of a row's name]

#include <onnxruntime_cxx_api.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "Networks.h"
#include "Utils/MaskOutline.h"
#include "Utils/Numbers.h"
#include "Utils/PreProcessUtils.h"
#include "Utils/TextDecode.h"
#include "Utils/TextRegions.h"
#include "Utils/YoloDecode.h"
#include "support/Literal.h"
#include "support/TestHost.h"

namespace {

using namespace TolCompatibleLib;

/// The fastest of each instead of the medians.
bool wantsFastest = false;

double summaryOf(const std::vector<double>& times) {
  return wantsFastest ? *std::ranges::min_element(times) : medianOf(times);
}

struct Pair {
  double beside;  ///< Milliseconds of the literal steps or the bare engine.
  double ours;
  double ratio;  ///< Ours over theirs: the median over neighbours in time, as the clock may change.
};

Pair inTurn(const std::function<void()>& beside, const std::function<void()>& ours,
            double seconds = 1.5) {
  constexpr std::size_t kLeast = 9;
  constexpr std::size_t kMost = 3000;
  beside();
  ours();
  std::vector<double> theirTimes;
  std::vector<double> ourTimes;
  double total = 0;
  while (theirTimes.size() < kLeast || (total < 1000 * seconds && theirTimes.size() < kMost)) {
    // Each goes first every other time.
    if (theirTimes.size() % 2 == 0) theirTimes.push_back(milliseconds(beside));
    ourTimes.push_back(milliseconds(ours));
    if (theirTimes.size() < ourTimes.size()) theirTimes.push_back(milliseconds(beside));
    total += theirTimes.back() + ourTimes.back();
  }
  const double theirs = summaryOf(theirTimes);
  const double our = summaryOf(ourTimes);
  if (wantsFastest) return {theirs, our, our / theirs};
  std::vector<double> ratios;
  for (std::size_t i = 0; i < ourTimes.size(); ++i) ratios.push_back(ourTimes[i] / theirTimes[i]);
  return {theirs, our, medianOf(ratios)};
}

/// A result that the compiler must not leave out.
template <class Value>
void keep(const Value& value) {
  asm volatile("" : : "g"(&value) : "memory");
}

/// Whether a ratio is how many times less time we take, or how many times the bare engine's.
enum class Kind { kLess, kCall };

struct Row {
  std::string work;
  Kind kind;
  double target;
  std::function<Pair()> measure;
};

/// A configuration and a frame whose classes are all wanted.
struct Setting {
  explicit Setting(int classes, cv::Size size = {1920, 1080})
      : image(randomImage(size.width, size.height)) {
    for (int c = 0; c < classes; ++c) config.classNames.push_back("class " + std::to_string(c));
    config.classCount = static_cast<std::uint32_t>(classes);
    config.scoreThreshold = config.objThreshold = 0.25F;
    config.nmsThreshold = 0.45F;
    frame = frameOf(image, {config.classNames.begin(), config.classNames.end()});
  }
  cv::Mat image;
  VsaModelConfig config;
  VsaFrame frame;
};

std::vector<float> planesOf(cv::Size size) {
  return std::vector<float>(std::size_t{3} * static_cast<std::size_t>(size.area()));
}

// Whole calls beside the bare engine.

/// Puts numbers into the input of a bare request, as a caller would. Memory that was never written
/// is one and the same page of zeros to the processor, and read faster than any picture.
void fillInput(ov::InferRequest& bare) {
  ov::Tensor input = bare.get_input_tensor();
  cv::Mat numbers(1, static_cast<int>(input.get_size()), CV_32FC1, input.data<float>());
  cv::randu(numbers, 0.0, 1.0);
}

Pair detectOnOpenVino() {
  TestModel model("Detect", "YOLO8", kYolo);
  model.setInput(kSide, kSide);
  model.setClasses(std::vector<std::string>(kClasses, "thing"));
  if (!model.init()) throw std::runtime_error("the network could not be opened");
  ov::Core core;
  ov::InferRequest bare =
      core.compile_model(std::string(kYolo) + ".xml", "CPU").create_infer_request();
  fillInput(bare);
  Setting setting(kClasses);
  return inTurn([&] { bare.infer(); }, [&] { model.detect(setting.frame); }, 10);
}

Pair detectOnOnnxRuntime() {
  const std::string file = std::string(kYolo) + ".onnx";
  TestModel model("Detect", "YOLO8", file);
  model.config.engine = "ONNXRuntime";
  model.setInput(kSide, kSide);
  model.setClasses(std::vector<std::string>(kClasses, "thing"));
  if (!model.init()) throw std::runtime_error("the network could not be opened");
  const Ort::Env environment(ORT_LOGGING_LEVEL_WARNING, "bare");
  Ort::SessionOptions options;
  options.SetGraphOptimizationLevel(ORT_ENABLE_BASIC);
  Ort::Session session(environment, std::filesystem::path(file).c_str(), options);
  std::vector<float> planes = planesOf({kSide, kSide});
  const std::array<std::int64_t, 4> shape{1, 3, kSide, kSide};
  const auto memory = Ort::MemoryInfo::CreateCpu(OrtDeviceAllocator, OrtMemTypeCPU);
  const auto input = Ort::Value::CreateTensor<float>(memory, planes.data(), planes.size(),
                                                     shape.data(), shape.size());
  const char* const inputName = "images";
  const char* const outputName = "out";
  Setting setting(kClasses);
  return inTurn(
      [&] { keep(session.Run(Ort::RunOptions{nullptr}, &inputName, &input, 1, &outputName, 1)); },
      [&] { model.detect(setting.frame); }, 10);
}

// Everything round one inference of a detector.

Pair preProcessing(cv::Size frame) {
  const cv::Mat image = randomImage(frame.width, frame.height);
  std::vector<float> planes = planesOf({kSide, kSide});
  LetterboxWriter writer;
  return inTurn(
      [&] {
        keep(literal::unitBlob(literal::letterbox(image, {kSide, kSide}).canvas));
      },
      [&] {
        keep(writer.writePlanes(image, {kSide, kSide}, planes.data()));
      });
}

using Objects = std::vector<VsaObject>;

/// Pre-processing of the frame to planes, and what `plain` and `ours` make of the network's output.
Pair outside(Setting& setting, cv::Size input, const std::function<Objects(float scale)>& plain,
             const std::function<Objects(float scale)>& ours) {
  std::vector<float> planes = planesOf(input);
  LetterboxWriter writer;
  return inTurn(
      [&] {
        const literal::Boxed boxed = literal::letterbox(setting.image, input);
        keep(literal::unitBlob(boxed.canvas));
        keep(plain(boxed.scale));
      },
      [&] { keep(ours(*writer.writePlanes(setting.image, input, planes.data()))); });
}

Pair outsideYolo8(int count) {
  Setting setting(kClasses);
  const std::vector<float> output = yolo8Output(kClasses, 0, kCandidates, count);
  const FloatGrid columns{output.data(), kClasses + 4, kCandidates};
  return outside(
      setting, {kSide, kSide},
      [&](float scale) {
        return literal::objectsOf(literal::decodeYolo8(columns, kClasses, 0.25F), scale,
                                  setting.config, setting.frame);
      },
      [&](float scale) {
        return wantedObjects(decodeYolo8(columns, kClasses, 0.25F), scale, setting.config,
                             setting.frame)
            .objects;
      });
}

Pair decodingYolo8(int count, bool withSuppression) {
  Setting setting(kClasses);
  const std::vector<float> output = yolo8Output(kClasses, 0, kCandidates, count);
  const FloatGrid columns{output.data(), kClasses + 4, kCandidates};
  return inTurn(
      [&] {
        const Candidates found = literal::decodeYolo8(columns, kClasses, 0.25F);
        if (withSuppression) keep(literal::objectsOf(found, 3, setting.config, setting.frame));
      },
      [&] {
        const Candidates found = decodeYolo8(columns, kClasses, 0.25F);
        if (withSuppression) keep(wantedObjects(found, 3, setting.config, setting.frame).objects);
      });
}

Pair outsideYolo5() {
  Setting setting(kClasses);
  const std::vector<float> output = yolo5Output(100);
  const FloatGrid rows{output.data(), kYolo5Rows, kClasses + 5};
  cv::Mat pixels(kSide, kSide, CV_8UC3);
  LetterboxWriter writer;
  return inTurn(
      [&] {
        const literal::Boxed boxed = literal::letterbox(setting.image, {kSide, kSide});
        keep(literal::objectsOf(literal::decodeYolo5(rows, kClasses, 0.25F, 0.25F), boxed.scale,
                                setting.config, setting.frame));
      },
      [&] {
        const auto scale = writer.writePixels(setting.image, {kSide, kSide}, pixels.data);
        keep(wantedObjects(decodeYolo5(rows, kClasses, 0.25F, 0.25F), *scale, setting.config,
                           setting.frame)
                 .objects);
      });
}

Pair outsideYolo26() {
  Setting setting(kClasses);
  const std::vector<float> output = yolo26Output(100);
  const FloatGrid rows{output.data(), 300, 6};
  return outside(
      setting, {kSide, kSide},
      [&](float scale) {
        return literal::decodeYolo26(rows, scale, setting.config, setting.frame);
      },
      [&](float scale) {
        return decodeYolo26(rows, scale, setting.config, setting.frame).objects;
      });
}

Pair outsideOriented() {
  constexpr int kOrientedSide = 1024;
  constexpr int kOrientedClasses = 15;
  constexpr int kOrientedCandidates = 21504;
  Setting setting(kOrientedClasses);
  const std::vector<float> output = yolo8Output(kOrientedClasses, 1, kOrientedCandidates, 100);
  const FloatGrid columns{output.data(), kOrientedClasses + 5, kOrientedCandidates};
  return outside(
      setting, {kOrientedSide, kOrientedSide},
      [&](float scale) {
        return literal::objectsOf(literal::decodeYolo8(columns, kOrientedClasses, 0.25F), scale,
                                  setting.config, setting.frame);
      },
      [&](float scale) {
        return wantedObjects(decodeYolo8(columns, kOrientedClasses, 0.25F), scale, setting.config,
                             setting.frame)
            .objects;
      });
}

/// Key points of the candidates left; those of all candidates in the literal way.
Pair outsidePose() {
  Setting setting(1);
  const std::vector<float> output = poseOutput(100);
  const FloatGrid columns{output.data(), 56, kCandidates};
  const auto keyPoints = [&](int candidate, float scale) {
    VsaShape shape;
    for (int row = 5; row < 56; row += 3) {
      shape.points.push_back({truncateToInt(columns.row(row)[candidate] * scale),
                              truncateToInt(columns.row(row + 1)[candidate] * scale)});
    }
    return shape;
  };
  const auto objectsOf = [&](const Candidates& found, const std::function<VsaShape(int)>& shapeOf) {
    Objects objects;
    for (const int i : keptAfterNms(found, setting.config)) {
      const cv::Rect& box = found.boxes[static_cast<std::size_t>(i)];
      objects.emplace_back(1920, 1080, box.x, box.y, box.x + box.width, box.y + box.height,
                           found.scores[static_cast<std::size_t>(i)], 0,
                           setting.config.classNames.front());
      objects.back().shapes.push_back(shapeOf(i));
    }
    return objects;
  };
  return outside(
      setting, {kSide, kSide},
      [&](float scale) {
        const Candidates found = literal::decodeYolo8Pose(columns, 0.25F, scale);
        std::vector<VsaShape> shapes;
        shapes.reserve(found.places.size());
        for (const int place : found.places) shapes.push_back(keyPoints(place, scale));
        return objectsOf(found, [&](int i) { return shapes[static_cast<std::size_t>(i)]; });
      },
      [&](float scale) {
        const Candidates found = decodeYolo8Pose(columns, 0.25F, scale);
        return objectsOf(found, [&](int i) {
          return keyPoints(found.places[static_cast<std::size_t>(i)], scale);
        });
      });
}

Pair masks(int least, int most) {
  const Masks masks = randomMasks(50, least, most);
  std::vector<std::uint8_t> memory;
  const auto outlines = [&](auto outline, auto&... memories) {
    for (std::size_t i = 0; i < masks.boxes.size(); ++i) {
      keep(outline(masks.planes(), masks.coefficients[i], masks.boxes[i], cv::Size(kSide, kSide),
                   memories...));
    }
  };
  return inTurn([&] { outlines(literal::maskOutline); }, [&] { outlines(maskOutline, memory); }, 4);
}

Pair outsideTextDetector() {
  const cv::Mat image = randomImage(1280, 720);
  const cv::Mat map = textMap(30);
  const cv::Size size = map.size();
  std::vector<float> planes = planesOf(size);
  const auto both = [&](auto fill, auto extract) {
    fill(image, size, planes.data());
    keep(extract(TextBoxParams(), map, image.size(), size));
  };
  return inTurn([&] { both(literal::fillTextPlanes, literal::extractTextBoxes); },
                [&] { both(fillTextPlanes, extractTextBoxes); });
}

// Models that work on 30 objects of a frame.

constexpr int kObjects = 30;

struct ObjectModel {
  const char* category;
  const char* name;
  std::string network;  ///< Without ".xml".
  cv::Size input;
  cv::Size least, most;  ///< Of the objects.
  std::vector<std::string> names;
  void (*plainFill)(const cv::Mat&, cv::Size, float*);
  void (*fill)(const cv::Mat&, cv::Size, float*);
  /// What becomes of the output of one object; nothing where it is only copied.
  std::function<void(const ov::Tensor&)> plainRead, read;
};

void setObjects(VsaFrame& frame, const ObjectModel& model) {
  cv::RNG random(1);
  frame.objects.clear();
  for (int i = 0; i < kObjects; ++i) {
    const cv::Size size(random.uniform(model.least.width, model.most.width),
                        random.uniform(model.least.height, model.most.height));
    VsaObject object;
    object.left = random.uniform(0, static_cast<int>(frame.width) - size.width);
    object.top = random.uniform(0, static_cast<int>(frame.height) - size.height);
    object.right = object.left + size.width;
    object.bottom = object.top + size.height;
    frame.objects.push_back(object);
  }
}

Pair wholeObjects(const ObjectModel& objects) {
  TestModel model(objects.category, objects.name, objects.network);
  model.setInput(static_cast<std::uint32_t>(objects.input.width),
                 static_cast<std::uint32_t>(objects.input.height));
  model.setClasses(objects.names);
  model.config.scoreThreshold = 0;
  if (!model.init()) throw std::runtime_error("the network could not be opened");
  ov::Core core;
  ov::InferRequest bare =
      core.compile_model(objects.network + ".xml", "CPU").create_infer_request();
  const ov::Shape shape{1, 3, static_cast<std::size_t>(objects.input.height),
                        static_cast<std::size_t>(objects.input.width)};
  bare.set_input_tensor(ov::Tensor(ov::element::f32, shape));
  fillInput(bare);
  Setting setting(1);
  setting.frame.wantedLabels = {objects.names.begin(), objects.names.end()};
  setObjects(setting.frame, objects);
  return inTurn(
      [&] {
        for (int i = 0; i < kObjects; ++i) bare.infer();
      },
      [&] {
        const bool done = objects.category == std::string_view("Classify")
                              ? VsaModelClassify(&model.context, &setting.frame)
                              : model.feature(setting.frame);
        if (!done || setting.frame.objects.size() != kObjects) {
          throw std::runtime_error("the call failed");
        }
      },
      12);
}

Pair outsideObjects(const ObjectModel& objects) {
  ov::Core core;
  ov::InferRequest request =
      core.compile_model(objects.network + ".xml", "CPU").create_infer_request();
  const ov::Shape shape{1, 3, static_cast<std::size_t>(objects.input.height),
                        static_cast<std::size_t>(objects.input.width)};
  request.set_input_tensor(ov::Tensor(ov::element::f32, shape));
  request.infer();
  const ov::Tensor output = request.get_output_tensor();
  Setting setting(1);
  setObjects(setting.frame, objects);
  std::vector<float> planes = planesOf(objects.input);
  const auto all = [&](auto fill, const std::function<void(const ov::Tensor&)>& read) {
    for (const VsaObject& object : setting.frame.objects) {
      fill(regionOf(setting.image, object), objects.input, planes.data());
      if (read) read(output);
    }
  };
  return inTurn([&] { all(objects.plainFill, objects.plainRead); },
                [&] { all(objects.fill, objects.read); });
}

ObjectModel recogniser() {
  static const CharacterDictionary dictionary = CharacterDictionary::builtIn();
  const auto grid = [](const ov::Tensor& output) {
    return FloatGrid{output.data<const float>(), static_cast<int>(output.get_shape()[1]),
                     static_cast<int>(output.get_shape()[2])};
  };
  return {"Track",
          "PaddleOCR",
          TOL_MODELS "/text/recognition",
          {320, 48},
          {80, 16},
          {400, 48},
          {"paddleocr"},
          literal::prepareTextLine,
          PrepareTextLine,
          [grid](const ov::Tensor& output) {
            keep(literal::ctcGreedyDecode(grid(output), dictionary));
          },
          [grid](const ov::Tensor& output) { keep(CtcGreedyDecode(grid(output), dictionary)); }};
}

ObjectModel secondRecogniser() {
  static const std::vector<std::string> alphabet(40, "x");
  return {"Track",
          "VsOCR",
          writePlainNetwork({{128, 32}, 96, 4, {1, 32, 40}}),
          {128, 32},
          {60, 16},
          {200, 60},
          alphabet,
          literal::prepareOcrInput,
          PrepareOcrInput,
          [](const ov::Tensor& output) {
            keep(literal::decodeOcr(output.data<const float>(), 32, 40, false, alphabet));
          },
          [](const ov::Tensor& output) {
            const ov::Shape& shape = output.get_shape();
            keep(decodeOcr(output.data<const float>(), ocrLayoutOf(shape).layout, alphabet));
          }};
}

ObjectModel classifier() {
  return {"Classify",
          "ResNet",
          writePlainNetwork({{224, 224}, 64, 4, {1, 100}}),
          {224, 224},
          {60, 60},
          {300, 400},
          std::vector<std::string>(100, "label"),
          literal::fillClassifierPlanes,
          fillClassifierPlanes,
          {},
          {}};
}

ObjectModel reIdentification() {
  return {"Track",
          "DeepSort",
          writePlainNetwork({{128, 256}, 48, 3, {1, 256}}),
          {128, 256},
          {50, 150},
          {120, 400},
          {},
          literal::fitToInputNormalized,
          FitToInputNormalized,
          {},
          {}};
}

ObjectModel face() {
  return {"Track",
          "VsFaceNet",
          writePlainNetwork({{160, 160}, 40, 3, {1, 128}}),
          {160, 160},
          {30, 40},
          {160, 200},
          {},
          literal::fitToInput,
          FitToInput,
          {},
          {}};
}

std::vector<Row> allRows() {
  std::vector<Row> rows = {
      {"whole YOLOv8 call, OpenVINO, beside bare infer", Kind::kCall, 1.02, detectOnOpenVino},
      {"whole YOLOv8 call, outside infer", Kind::kLess, 10, [] { return outsideYolo8(0); }},
      {"whole YOLOv8 call, outside infer, 100 candidates", Kind::kLess, 0,
       [] { return outsideYolo8(100); }},
      {"whole YOLOv8 call, ONNX Runtime, beside bare run", Kind::kCall, 1.03, detectOnOnnxRuntime},
      {"pre-processing of 1920x1080", Kind::kLess, 5,
       [] {
         return preProcessing({1920, 1080});
       }},
      {"pre-processing of 3840x2160", Kind::kLess, 4,
       [] {
         return preProcessing({3840, 2160});
       }},
      {"pre-processing of 640x480", Kind::kLess, 6,
       [] {
         return preProcessing({640, 480});
       }},
      {"YOLOv8 decoding, no candidates", Kind::kLess, 20, [] { return decodingYolo8(0, false); }},
      {"YOLOv8 decoding, 850 candidates", Kind::kLess, 6, [] { return decodingYolo8(850, false); }},
      {"YOLOv8 decoding, 4200 candidates", Kind::kLess, 2,
       [] { return decodingYolo8(4200, false); }},
      {"YOLOv8 decoding and suppression, 850 candidates", Kind::kLess, 0,
       [] { return decodingYolo8(850, true); }},
      {"YOLOv8 decoding and suppression, 4200 candidates", Kind::kLess, 0,
       [] { return decodingYolo8(4200, true); }},
      {"50 masks of 20-60 pixels", Kind::kLess, 50, [] { return masks(20, 60); }},
      {"50 masks of 60-200 pixels", Kind::kLess, 20, [] { return masks(60, 200); }},
      {"50 masks of 200-500 pixels", Kind::kLess, 4, [] { return masks(200, 500); }},
      {"YOLOv5, outside infer", Kind::kLess, 4, outsideYolo5},
      {"YOLO26, outside infer", Kind::kLess, 4, outsideYolo26},
      {"oriented boxes, outside infer", Kind::kLess, 4, outsideOriented},
      {"pose, outside infer", Kind::kLess, 4, outsidePose},
      {"text detector, outside infer", Kind::kLess, 2, outsideTextDetector}};
  const std::pair<const char*, ObjectModel (*)()> models[] = {
      {"recogniser", recogniser},
      {"second recogniser", secondRecogniser},
      {"classifier", classifier},
      {"re-identification", reIdentification},
      {"face embedding", face}};
  for (const auto& [name, make] : models) {
    rows.push_back({std::string(name) + ", 30 regions, outside infer", Kind::kLess, 3,
                    [make = make] { return outsideObjects(make()); }});
    rows.push_back({std::string(name) + ", 30 regions, whole call beside bare infer", Kind::kCall,
                    1.02, [make = make] { return wholeObjects(make()); }});
  }
  return rows;
}

void print(const Row& row, bool isMarkdown) {
  const Pair pair = row.measure();
  const bool isCall = row.kind == Kind::kCall;
  const double ratio = isCall ? pair.ratio : 1 / pair.ratio;
  const bool met = isCall ? ratio <= row.target : ratio >= row.target;
  char target[16] = "";
  if (row.target > 0)
    std::snprintf(target, sizeof target, isCall ? "<= %.2f" : ">= %.0f", row.target);
  std::printf(isMarkdown ? "| %s | %.3f | %.3f | %.*f | %s | %s |\n"
                         : "%-60s %11.3f %10.3f %8.*f %8s %5s\n",
              row.work.c_str(), pair.beside, pair.ours, isCall ? 3 : 1, ratio, target,
              row.target <= 0 ? ""
              : met           ? "yes"
                              : "no");
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  bool isMarkdown = false;
  std::string part;
  for (const std::string_view argument : std::vector<std::string_view>(argv + 1, argv + argc)) {
    if (argument == "--markdown") {
      isMarkdown = true;
    } else if (argument == "--fastest") {
      wantsFastest = true;
    } else {
      part = argument;
    }
  }
  if (isMarkdown) {
    std::puts(
        "| work | literal or bare ms | ours ms | ratio | target | met "
        "|\n|---|---|---|---|---|---|");
  } else {
    std::printf("%-60s %11s %10s %8s %8s %5s\n", "work", "literal ms", "ours ms", "ratio", "target",
                "met");
  }
  std::fflush(stdout);
  bool isComplete = true;
  for (const Row& row : allRows()) {
    if (row.work.find(part) == std::string::npos) continue;
    // A process for each: how long memory takes to come by depends on what was freed before.
    const pid_t child = fork();
    if (child == 0) {
      try {
        print(row, isMarkdown);
      } catch (const std::exception& error) {
        std::cerr << row.work << ": " << error.what() << "\n";
        std::exit(1);
      }
      std::exit(0);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0) isComplete = false;
  }
  return isComplete ? 0 : 1;
}
