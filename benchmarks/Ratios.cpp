// Times the library's steps against their reference versions, and its whole calls against inference
// alone, alternately in one process. Run by hand, on an idle machine:
//   build/release/benchmarks/Ratios [--markdown] [--fastest] [part of a row's name]

#include <onnxruntime_cxx_api.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <opencv2/dnn.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "Utils/MaskOutline.h"
#include "Utils/Nms.h"
#include "Utils/Numbers.h"
#include "Utils/PreProcessUtils.h"
#include "Utils/TextDecode.h"
#include "Utils/TextRegions.h"
#include "Utils/YoloDecode.h"
#include "benchmarks/Networks.h"
#include "benchmarks/Reference.h"
#include "support/Measure.h"
#include "support/TestHost.h"

namespace {

using namespace TolCompatibleLib;

/// Whether tables show the fastest times instead of the medians.
bool usesFastest = false;

double summarize(const std::vector<double>& times) {
  return usesFastest ? *std::ranges::min_element(times) : medianOf(times);
}

struct Comparison {
  double baseline;  ///< Milliseconds of the reference version or of inference alone.
  double ours;      ///< Milliseconds of the library.
  double ratio;     ///< Ours divided by the baseline: the median over pairs of adjacent runs.
};

/// Runs both alternately until they have taken `seconds` in total, at least 9 and at most 3,000
/// times each. Clock rates change over time, so only the ratios of adjacent runs are used.
Comparison compare(const std::function<void()>& baseline, const std::function<void()>& ours,
                   double seconds = 1.5) {
  constexpr std::size_t kMinRuns = 9;
  constexpr std::size_t kMaxRuns = 3000;
  baseline();
  ours();
  std::vector<double> baselineTimes;
  std::vector<double> ourTimes;
  double total = 0;
  while (ourTimes.size() < kMinRuns || (total < 1000 * seconds && ourTimes.size() < kMaxRuns)) {
    // Each of the two runs first in every second round.
    const bool isBaselineFirst = ourTimes.size() % 2 == 0;
    if (isBaselineFirst) baselineTimes.push_back(milliseconds(baseline));
    ourTimes.push_back(milliseconds(ours));
    if (!isBaselineFirst) baselineTimes.push_back(milliseconds(baseline));
    total += baselineTimes.back() + ourTimes.back();
  }
  const double baselineTime = summarize(baselineTimes);
  const double ourTime = summarize(ourTimes);
  if (usesFastest) return {baselineTime, ourTime, ourTime / baselineTime};
  std::vector<double> ratios;
  for (std::size_t i = 0; i < ourTimes.size(); ++i)
    ratios.push_back(ourTimes[i] / baselineTimes[i]);
  return {baselineTime, ourTime, medianOf(ratios)};
}

/// Prevents the compiler from removing the computation of a result.
template <class Value>
void keep(const Value& value) {
  asm volatile("" : : "g"(&value) : "memory");
}

/// The ratio that a row shows: the time of the baseline divided by ours, or the time of our whole
/// call divided by that of inference alone.
enum class Kind { kSpeedup, kWholeCall };

struct Row {
  std::string name;
  Kind kind;
  double target;  ///< Minimum speed-up or maximum ratio of the whole call; 0 for none.
  std::function<Comparison()> measure;
};

/// A configuration of `classes` classes, and a frame that wants all of them.
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

std::vector<float> makePlanes(cv::Size size) {
  return std::vector<float>(std::size_t{3} * static_cast<std::size_t>(size.area()));
}

// Whole calls of a detector, compared with inference alone.

Comparison detectOnOpenVino() {
  TestModel model("Detect", "YOLO8", kYolo);
  model.setInput(kSide, kSide);
  model.setClasses(std::vector<std::string>(kClasses, "thing"));
  if (!model.init()) throw std::runtime_error("cannot open the network");
  ov::Core core;
  ov::InferRequest request =
      core.compile_model(std::string(kYolo) + ".xml", "CPU").create_infer_request();
  fillInput(request);
  Setting setting(kClasses);
  return compare([&] { request.infer(); }, [&] { model.detect(setting.frame); }, 10);
}

/// The same on one core, where inference takes about twice as long.
Comparison detectOnOneCore() {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(0, &cores);
  if (sched_setaffinity(0, sizeof cores, &cores) != 0) throw std::runtime_error("no core 0");
  return detectOnOpenVino();
}

Comparison detectOnOnnxRuntime() {
  const std::string file = std::string(kYolo) + ".onnx";
  TestModel model("Detect", "YOLO8", file);
  model.config.engine = "ONNXRuntime";
  model.setInput(kSide, kSide);
  model.setClasses(std::vector<std::string>(kClasses, "thing"));
  if (!model.init()) throw std::runtime_error("cannot open the network");
  const Ort::Env environment(ORT_LOGGING_LEVEL_WARNING, "benchmark");
  Ort::SessionOptions options;
  options.SetGraphOptimizationLevel(ORT_ENABLE_BASIC);
  Ort::Session session(environment, std::filesystem::path(file).c_str(), options);
  std::vector<float> planes = makePlanes({kSide, kSide});
  const std::array<std::int64_t, 4> shape{1, 3, kSide, kSide};
  const auto memory = Ort::MemoryInfo::CreateCpu(OrtDeviceAllocator, OrtMemTypeCPU);
  const auto input = Ort::Value::CreateTensor<float>(memory, planes.data(), planes.size(),
                                                     shape.data(), shape.size());
  const char* const inputName = "images";
  const char* const outputName = "out";
  Setting setting(kClasses);
  return compare(
      [&] { keep(session.Run(Ort::RunOptions{nullptr}, &inputName, &input, 1, &outputName, 1)); },
      [&] { model.detect(setting.frame); }, 10);
}

// Pre- and post-processing of a detector.

Comparison preProcessing(cv::Size frame) {
  const cv::Mat image = randomImage(frame.width, frame.height);
  std::vector<float> planes = makePlanes({kSide, kSide});
  LetterboxWriter writer;
  return compare(
      [&] {
        keep(reference::unitBlob(reference::letterbox(image, {kSide, kSide}).canvas));
      },
      [&] {
        keep(writer.writePlanes(image, {kSide, kSide}, planes.data()));
      });
}

/// Letterboxing of frames that are not in the caches, compared with a loop that only reads one byte
/// of each cache line that has a sampled pixel, and writes as many floats to the planes.
Comparison preProcessingLimit() {
  constexpr std::size_t kFrames = 16;  // 100 MB
  constexpr int kWidth = 1920;
  constexpr int kHeight = 1080;
  constexpr int kStep = kWidth / kSide;
  constexpr std::ptrdiff_t kLine = 64;  // every line of a sampled row has sampled pixels
  constexpr int kRowsAhead = 2;         // the row that is prefetched, as in the library
  std::vector<cv::Mat> images;
  for (std::size_t i = 0; i < kFrames; ++i) images.push_back(randomImage(kWidth, kHeight, i));
  std::vector<float> planes = makePlanes({kSide, kSide});
  LetterboxWriter writer;
  std::size_t next = 0;
  const auto nextImage = [&]() -> const cv::Mat& { return images[next++ % kFrames]; };
  return compare(
      [&] {
        const cv::Mat& image = nextImage();
        constexpr int kRows = kHeight / kStep;
        for (int y = 0; y < kRows; ++y) {
          const volatile uchar* const row = image.ptr<uchar>(y * kStep);
          const uchar* const later = image.ptr<uchar>(std::min(y + kRowsAhead, kRows - 1) * kStep);
          for (std::ptrdiff_t x = 0; x < std::ptrdiff_t{3} * kWidth; x += kLine) {
            __builtin_prefetch(later + x);
            static_cast<void>(row[x]);
          }
          for (std::size_t p = 0; p < 3; ++p) {
            std::fill_n(planes.data() + (p * kSide + static_cast<std::size_t>(y)) * kSide, kSide,
                        0.5F);
          }
        }
        keep(planes);
      },
      [&] {
        keep(writer.writePlanes(nextImage(), {kSide, kSide}, planes.data()));
      },
      4);
}

using Objects = std::vector<VsaObject>;

/// Letterboxing of the frame to planes, then decoding of a network output by `baseline` or `ours`.
Comparison compareDetectors(Setting& setting, cv::Size input,
                            const std::function<Objects(float scale)>& baseline,
                            const std::function<Objects(float scale)>& ours) {
  std::vector<float> planes = makePlanes(input);
  LetterboxWriter writer;
  return compare(
      [&] {
        const reference::Letterboxed boxed = reference::letterbox(setting.image, input);
        keep(reference::unitBlob(boxed.canvas));
        keep(baseline(boxed.scale));
      },
      [&] { keep(ours(*writer.writePlanes(setting.image, input, planes.data()))); });
}

Comparison detectorYolo8(int count) {
  Setting setting(kClasses);
  const std::vector<float> output = makeYolo8Output(kClasses, 0, kCandidates, count);
  const FloatGrid columns{output.data(), kClasses + 4, kCandidates};
  return compareDetectors(
      setting, {kSide, kSide},
      [&](float scale) {
        return reference::wantedObjects(reference::decodeYolo8(columns, kClasses, 0.25F), scale,
                                        setting.config, setting.frame);
      },
      [&](float scale) {
        return wantedObjects(decodeYolo8(columns, kClasses, 0.25F), scale, setting.config,
                             setting.frame)
            .objects;
      });
}

Comparison decodingYolo8(int count, bool withNms) {
  Setting setting(kClasses);
  const std::vector<float> output = makeYolo8Output(kClasses, 0, kCandidates, count);
  const FloatGrid columns{output.data(), kClasses + 4, kCandidates};
  return compare(
      [&] {
        const Candidates found = reference::decodeYolo8(columns, kClasses, 0.25F);
        if (withNms) keep(reference::wantedObjects(found, 3, setting.config, setting.frame));
      },
      [&] {
        const Candidates found = decodeYolo8(columns, kClasses, 0.25F);
        if (withNms) keep(wantedObjects(found, 3, setting.config, setting.frame).objects);
      });
}

/// NMS alone, compared with cv::dnn::NMSBoxes.
Comparison nonMaximumSuppression(const std::vector<cv::Rect>& boxes) {
  cv::RNG random(1);
  std::vector<float> scores(boxes.size());
  for (float& score : scores) score = random.uniform(0.3F, 0.9F);
  std::vector<int> kept;
  return compare(
      [&] {
        cv::dnn::NMSBoxes(boxes, scores, 0.25F, 0.45F, kept);
        keep(kept);
      },
      [&] { keep(indicesAfterNms(boxes, scores, 0.25F, 0.45F)); });
}

/// Boxes as those of makeYolo8Output: sides of 20 to 120 pixels, anywhere in the input.
std::vector<cv::Rect> randomBoxes(int count) {
  cv::RNG random(2);
  std::vector<cv::Rect> boxes;
  for (int i = 0; i < count; ++i) {
    const cv::Size size(random.uniform(20, 120), random.uniform(20, 120));
    boxes.emplace_back(random.uniform(0, kSide) - size.width / 2,
                       random.uniform(0, kSide) - size.height / 2, size.width, size.height);
  }
  return boxes;
}

/// Boxes of 18 x 18 pixels, two pixels apart.
std::vector<cv::Rect> boxesApart(int count) {
  constexpr int kPerRow = 64;
  std::vector<cv::Rect> boxes;
  boxes.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    boxes.emplace_back(i % kPerRow * 20, i / kPerRow * 20, 18, 18);
  }
  return boxes;
}

Comparison detectorYolo5() {
  Setting setting(kClasses);
  const std::vector<float> output = makeYolo5Output(100);
  const FloatGrid rows{output.data(), kYolo5Rows, kClasses + 5};
  cv::Mat pixels(kSide, kSide, CV_8UC3);
  LetterboxWriter writer;
  return compare(
      [&] {
        const reference::Letterboxed boxed = reference::letterbox(setting.image, {kSide, kSide});
        keep(reference::wantedObjects(reference::decodeYolo5(rows, kClasses, 0.25F, 0.25F),
                                      boxed.scale, setting.config, setting.frame));
      },
      [&] {
        const auto scale = writer.writePixels(setting.image, {kSide, kSide}, pixels.data);
        keep(wantedObjects(decodeYolo5(rows, kClasses, 0.25F, 0.25F), *scale, setting.config,
                           setting.frame)
                 .objects);
      });
}

Comparison detectorYolo26() {
  Setting setting(kClasses);
  const std::vector<float> output = makeYolo26Output(100);
  const FloatGrid rows{output.data(), 300, 6};
  return compareDetectors(
      setting, {kSide, kSide},
      [&](float scale) {
        return reference::decodeYolo26(rows, scale, setting.config, setting.frame);
      },
      [&](float scale) {
        return decodeYolo26(rows, scale, setting.config, setting.frame).objects;
      });
}

Comparison detectorOriented() {
  constexpr int kOrientedSide = 1024;
  constexpr int kOrientedClasses = 15;
  constexpr int kOrientedCandidates = 21504;
  Setting setting(kOrientedClasses);
  const std::vector<float> output = makeYolo8Output(kOrientedClasses, 1, kOrientedCandidates, 100);
  const FloatGrid columns{output.data(), kOrientedClasses + 5, kOrientedCandidates};
  return compareDetectors(
      setting, {kOrientedSide, kOrientedSide},
      [&](float scale) {
        return reference::wantedObjects(reference::decodeYolo8(columns, kOrientedClasses, 0.25F),
                                        scale, setting.config, setting.frame);
      },
      [&](float scale) {
        return wantedObjects(decodeYolo8(columns, kOrientedClasses, 0.25F), scale, setting.config,
                             setting.frame)
            .objects;
      });
}

/// Key points are read after NMS; the reference version reads those of all candidates before it.
Comparison detectorPose() {
  Setting setting(1);
  const std::vector<float> output = makePoseOutput(100);
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
  return compareDetectors(
      setting, {kSide, kSide},
      [&](float scale) {
        const Candidates found = reference::decodeYolo8Pose(columns, 0.25F, scale);
        std::vector<VsaShape> shapes;
        shapes.reserve(found.outputIndices.size());
        for (const int index : found.outputIndices) shapes.push_back(keyPoints(index, scale));
        return objectsOf(found, [&](int i) { return shapes[static_cast<std::size_t>(i)]; });
      },
      [&](float scale) {
        const Candidates found = decodeYolo8Pose(columns, 0.25F, scale);
        return objectsOf(found, [&](int i) {
          return keyPoints(found.outputIndices[static_cast<std::size_t>(i)], scale);
        });
      });
}

Comparison maskOutlines(int minSide, int maxSide) {
  const Masks masks = randomMasks(50, minSide, maxSide);
  std::vector<std::uint8_t> memory;
  const auto forEachMask = [&](auto outline, auto&... buffer) {
    for (std::size_t i = 0; i < masks.boxes.size(); ++i) {
      keep(outline(masks.planes(), masks.coefficients[i], masks.boxes[i], cv::Size(kSide, kSide),
                   buffer...));
    }
  };
  return compare([&] { forEachMask(reference::maskOutline); },
                 [&] { forEachMask(maskOutline, memory); }, 4);
}

Comparison textDetector() {
  const cv::Mat image = randomImage(1280, 720);
  const cv::Mat map = makeTextMap(30);
  const cv::Size size = map.size();
  std::vector<float> planes = makePlanes(size);
  const auto both = [&](auto fill, auto extract) {
    fill(image, size, planes.data());
    keep(extract(TextBoxParams(), map, image.size(), size));
  };
  return compare([&] { both(reference::fillTextPlanes, reference::extractTextBoxes); },
                 [&] { both(fillTextPlanes, extractTextBoxes); });
}

// Models that run on each of 30 objects of a frame.

constexpr int kObjectCount = 30;

struct ObjectModel {
  const char* category;
  const char* name;
  std::string network;  ///< Without ".xml".
  cv::Size input;
  cv::Size minObject, maxObject;
  std::vector<std::string> names;
  void (*referenceFill)(const cv::Mat&, cv::Size, float*);
  void (*fill)(const cv::Mat&, cv::Size, float*);
  /// Decode the output for one object; empty if the library only copies it.
  std::function<void(const ov::Tensor&)> referenceRead, read;
};

void setObjects(VsaFrame& frame, const ObjectModel& model) {
  cv::RNG random(1);
  frame.objects.clear();
  for (int i = 0; i < kObjectCount; ++i) {
    const cv::Size size(random.uniform(model.minObject.width, model.maxObject.width),
                        random.uniform(model.minObject.height, model.maxObject.height));
    VsaObject object;
    object.left = random.uniform(0, static_cast<int>(frame.width) - size.width);
    object.top = random.uniform(0, static_cast<int>(frame.height) - size.height);
    object.right = object.left + size.width;
    object.bottom = object.top + size.height;
    frame.objects.push_back(object);
  }
}

Comparison regionsWholeCall(const ObjectModel& objects) {
  TestModel model(objects.category, objects.name, objects.network);
  model.setInput(static_cast<std::uint32_t>(objects.input.width),
                 static_cast<std::uint32_t>(objects.input.height));
  model.setClasses(objects.names);
  model.config.scoreThreshold = 0;
  if (!model.init()) throw std::runtime_error("cannot open the network");
  ov::Core core;
  ov::InferRequest request =
      core.compile_model(objects.network + ".xml", "CPU").create_infer_request();
  const ov::Shape shape{1, 3, static_cast<std::size_t>(objects.input.height),
                        static_cast<std::size_t>(objects.input.width)};
  request.set_input_tensor(ov::Tensor(ov::element::f32, shape));
  fillInput(request);
  Setting setting(1);
  setting.frame.wantedLabels = {objects.names.begin(), objects.names.end()};
  setObjects(setting.frame, objects);
  return compare(
      [&] {
        for (int i = 0; i < kObjectCount; ++i) request.infer();
      },
      [&] {
        const bool done = objects.category == std::string_view("Classify")
                              ? VsaModelClassify(&model.context, &setting.frame)
                              : model.feature(setting.frame);
        if (!done || setting.frame.objects.size() != kObjectCount) {
          throw std::runtime_error("the call failed");
        }
      },
      12);
}

Comparison regionsWithoutInference(const ObjectModel& objects) {
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
  std::vector<float> planes = makePlanes(objects.input);
  const auto forEachObject = [&](auto fill, const std::function<void(const ov::Tensor&)>& read) {
    for (const VsaObject& object : setting.frame.objects) {
      fill(regionOf(setting.image, object), objects.input, planes.data());
      if (read) read(output);
    }
  };
  return compare([&] { forEachObject(objects.referenceFill, objects.referenceRead); },
                 [&] { forEachObject(objects.fill, objects.read); });
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
          reference::prepareTextLine,
          PrepareTextLine,
          [grid](const ov::Tensor& output) {
            keep(reference::ctcGreedyDecode(grid(output), dictionary));
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
          reference::prepareOcrInput,
          PrepareOcrInput,
          [](const ov::Tensor& output) {
            keep(reference::decodeOcr(output.data<const float>(), 32, 40, false, alphabet));
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
          reference::fillClassifierPlanes,
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
          reference::fitToInputNormalized,
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
          reference::fitToInput,
          FitToInput,
          {},
          {}};
}

// Single steps of text recognition and of the audio classifier.

Comparison ctcDecoding(int steps, int characters) {
  cv::Mat scores(steps, characters, CV_32FC1);
  cv::RNG(1).fill(scores, cv::RNG::UNIFORM, 0.0, 1.0);
  const FloatGrid grid{scores.ptr<float>(), steps, characters};
  const CharacterDictionary dictionary = CharacterDictionary::builtIn();
  return compare([&] { keep(reference::ctcGreedyDecode(grid, dictionary)); },
                 [&] { keep(CtcGreedyDecode(grid, dictionary)); });
}

/// The request for one second of audio: 48 kHz, two channels, 16 bits.
Comparison audioRequest() {
  const std::vector<std::uint8_t> pcm(192000, 7);
  VsaFrame frame;
  frame.kind = kVsaAudioFrame;
  frame.audioData = pcm.data();
  frame.audioFrameSize = static_cast<std::int32_t>(pcm.size());
  return compare([&] { keep(reference::spectrogramRequest(frame)); },
                 [&] { keep(spectrogramRequest(frame)); });
}

/// The reply for one second of audio, read by jsoncpp alone and by the library.
Comparison audioReply() {
  constexpr int kBands = 128;
  constexpr int kSteps = 100;
  cv::RNG random(1);
  std::string text = R"({"code": 1000, "msg": "", "mels": 128, "time_steps": 100, "mel_spec": [)";
  for (int i = 0; i < kBands * kSteps; ++i) {
    char number[32];
    std::snprintf(number, sizeof number, "%.16g", random.uniform(-80.0, 0.0));
    const bool isFirst = i % kSteps == 0;
    text += std::string(!isFirst ? ", " : i == 0 ? "[" : "], [") + number;
  }
  text += "]]}";
  return compare([&] { keep(parseAnyReply(text)); }, [&] { keep(parseSpectrogram(text)); });
}

Comparison base64(std::size_t size) {
  const std::vector<std::uint8_t> bytes(size, 7);
  return compare([&] { keep(reference::base64(bytes.data(), bytes.size())); },
                 [&] {
                   std::string text;
                   Base64Encode(bytes.data(), bytes.size(), text);
                   keep(text);
                 });
}

std::vector<Row> allRows() {
  std::vector<Row> rows = {
      {"YOLOv8 on OpenVINO, whole call vs. inference alone", Kind::kWholeCall, 1.02,
       detectOnOpenVino},
      {"YOLOv8 on OpenVINO, one core, whole call vs. inference alone", Kind::kWholeCall, 1.01,
       detectOnOneCore},
      {"YOLOv8, pre- and post-processing, no candidates", Kind::kSpeedup, 10,
       [] { return detectorYolo8(0); }},
      {"YOLOv8, pre- and post-processing, 100 candidates", Kind::kSpeedup, 0,
       [] { return detectorYolo8(100); }},
      {"YOLOv8 on ONNX Runtime, whole call vs. inference alone", Kind::kWholeCall, 1.03,
       detectOnOnnxRuntime},
      {"pre-processing, 1920x1080", Kind::kSpeedup, 5,
       [] {
         return preProcessing({1920, 1080});
       }},
      {"pre-processing, 3840x2160", Kind::kSpeedup, 4,
       [] {
         return preProcessing({3840, 2160});
       }},
      {"pre-processing, 640x480", Kind::kSpeedup, 6,
       [] {
         return preProcessing({640, 480});
       }},
      {"pre-processing, 1920x1080 from memory, vs. reading and writing alone", Kind::kWholeCall, 1,
       preProcessingLimit},
      {"YOLOv8 decoding, no candidates", Kind::kSpeedup, 20,
       [] { return decodingYolo8(0, false); }},
      {"YOLOv8 decoding, 850 candidates", Kind::kSpeedup, 6,
       [] { return decodingYolo8(850, false); }},
      {"YOLOv8 decoding, 4200 candidates", Kind::kSpeedup, 2,
       [] { return decodingYolo8(4200, false); }},
      {"YOLOv8 decoding and NMS, 850 candidates", Kind::kSpeedup, 0,
       [] { return decodingYolo8(850, true); }},
      {"YOLOv8 decoding and NMS, 4200 candidates", Kind::kSpeedup, 0,
       [] { return decodingYolo8(4200, true); }},
      {"NMS, 10 candidates", Kind::kSpeedup, 1,
       [] { return nonMaximumSuppression(randomBoxes(10)); }},
      {"NMS, 50 candidates", Kind::kSpeedup, 1,
       [] { return nonMaximumSuppression(randomBoxes(50)); }},
      {"NMS, 850 candidates", Kind::kSpeedup, 4,
       [] { return nonMaximumSuppression(randomBoxes(850)); }},
      {"NMS, 4200 candidates", Kind::kSpeedup, 10,
       [] { return nonMaximumSuppression(randomBoxes(4200)); }},
      {"NMS, 20000 candidates", Kind::kSpeedup, 15,
       [] { return nonMaximumSuppression(randomBoxes(20000)); }},
      {"NMS, 3000 candidates apart", Kind::kSpeedup, 10,
       [] { return nonMaximumSuppression(boxesApart(3000)); }},
      {"50 mask outlines, 20-60 pixels", Kind::kSpeedup, 50, [] { return maskOutlines(20, 60); }},
      {"50 mask outlines, 60-200 pixels", Kind::kSpeedup, 20, [] { return maskOutlines(60, 200); }},
      {"50 mask outlines, 200-500 pixels", Kind::kSpeedup, 4,
       [] { return maskOutlines(200, 500); }},
      {"YOLOv5, pre- and post-processing", Kind::kSpeedup, 4, detectorYolo5},
      {"YOLO26, pre- and post-processing", Kind::kSpeedup, 4, detectorYolo26},
      {"oriented boxes, pre- and post-processing", Kind::kSpeedup, 4, detectorOriented},
      {"pose, pre- and post-processing", Kind::kSpeedup, 4, detectorPose},
      {"text detector, pre- and post-processing", Kind::kSpeedup, 2, textDetector},
      {"CTC decoding, 80 steps of 6625 characters", Kind::kSpeedup, 0,
       [] { return ctcDecoding(80, 6625); }},
      {"audio request, 1 s of 48 kHz stereo", Kind::kSpeedup, 0, audioRequest},
      {"audio reply, 128 x 100 numbers", Kind::kSpeedup, 4, audioReply},
      {"Base64, 1 MB", Kind::kSpeedup, 0, [] { return base64(std::size_t{1} << 20U); }}};
  const std::pair<const char*, ObjectModel (*)()> models[] = {
      {"recogniser", recogniser},
      {"second recogniser", secondRecogniser},
      {"classifier", classifier},
      {"re-identification", reIdentification},
      {"face embedding", face}};
  for (const auto& [name, make] : models) {
    rows.push_back({std::string(name) + ", 30 regions, pre- and post-processing", Kind::kSpeedup, 3,
                    [make = make] { return regionsWithoutInference(make()); }});
    rows.push_back({std::string(name) + ", 30 regions, whole call vs. inference alone",
                    Kind::kWholeCall, 1.02, [make = make] { return regionsWholeCall(make()); }});
  }
  return rows;
}

void print(const Row& row, bool isMarkdown) {
  const Comparison comparison = row.measure();
  const bool isCall = row.kind == Kind::kWholeCall;
  const double ratio = isCall ? comparison.ratio : 1 / comparison.ratio;
  const bool met = isCall ? ratio <= row.target : ratio >= row.target;
  char target[16] = "";
  if (row.target > 0)
    std::snprintf(target, sizeof target, isCall ? "<= %.2f" : ">= %.0f", row.target);
  std::printf(isMarkdown ? "| %s | %.3f | %.3f | %.*f | %s | %s |\n"
                         : "%-60s %12.3f %10.3f %8.*f %8s %5s\n",
              row.name.c_str(), comparison.baseline, comparison.ours, isCall ? 3 : 1, ratio, target,
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
      usesFastest = true;
    } else {
      part = argument;
    }
  }
  if (isMarkdown) {
    std::puts(
        "| work | reference or inference ms | ours ms | ratio | target | met "
        "|\n|---|---|---|---|---|---|");
  } else {
    std::printf("%-60s %12s %10s %8s %8s %5s\n", "work", "reference ms", "ours ms", "ratio",
                "target", "met");
  }
  std::fflush(stdout);
  bool isComplete = true;
  for (const Row& row : allRows()) {
    if (row.name.find(part) == std::string::npos) continue;
    // A process for each row, because the time of an allocation depends on what was freed before.
    const pid_t child = fork();
    if (child == 0) {
      try {
        print(row, isMarkdown);
      } catch (const std::exception& error) {
        std::cerr << row.name << ": " << error.what() << "\n";
        std::exit(1);
      }
      std::exit(0);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0) isComplete = false;
  }
  return isComplete ? 0 : 1;
}
