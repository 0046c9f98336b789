// What the library adds to the engine's own work. Run by hand, on an idle machine:
//   build/release/benchmarks/Benchmarks

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <opencv2/imgproc.hpp>
#include <openvino/opsets/opset8.hpp>
#include <random>

#include "Utils/MaskOutline.h"
#include "Utils/PreProcessUtils.h"
#include "Utils/TextDecode.h"
#include "Utils/TextRegions.h"
#include "Utils/YoloDecode.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

using namespace TolCompatibleLib;
namespace op = ov::opset8;

constexpr int kSide = 640;
constexpr int kCandidates = 8400;
constexpr int kClasses = 80;

/// Letterbox and blob, as every YOLO detector begins.
void preProcess(benchmark::State& state) {
  const cv::Mat image =
      randomImage(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  std::vector<float> planes(std::size_t{3} * kSide * kSide);
  for (auto _ : state) {
    benchmark::DoNotOptimize(letterboxPlanes(image, {kSide, kSide}, planes.data()));
  }
}
BENCHMARK(preProcess)
    ->Args({1920, 1080})
    ->Args({3840, 2160})
    ->Args({640, 480})
    ->Unit(benchmark::kMicrosecond);

/// [1, 84, 8400] with so many candidates above the threshold, then suppression.
void decodeYolo8Output(benchmark::State& state) {
  std::mt19937 random(1);
  std::uniform_real_distribution<float> unit(0.0F, 1.0F);
  std::vector<float> output(static_cast<std::size_t>(kClasses + 4) * kCandidates);
  for (float& value : output) value = 0.2F * unit(random);
  for (int i = 0; i < kCandidates; ++i) {
    const auto at = [&](int row) -> float& {
      return output[static_cast<std::size_t>(row) * kCandidates + static_cast<std::size_t>(i)];
    };
    for (int row = 0; row < 2; ++row) at(row) = 640.0F * unit(random);
    for (int row = 2; row < 4; ++row) at(row) = 20.0F + 100.0F * unit(random);
    if (i < state.range(0))
      at(4 + static_cast<int>(random() % kClasses)) = 0.3F + 0.6F * unit(random);
  }
  VsaModelConfig config;
  config.scoreThreshold = 0.25F;
  config.nmsThreshold = 0.45F;
  std::size_t kept = 0;
  for (auto _ : state) {
    const Candidates found =
        decodeYolo8({output.data(), kClasses + 4, kCandidates}, kClasses, config.scoreThreshold);
    kept = suppressed(found, config).size();
  }
  state.counters["kept"] = static_cast<double>(kept);
}
BENCHMARK(decodeYolo8Output)->Arg(0)->Arg(100)->Arg(2000)->Unit(benchmark::kMicrosecond);

/// [1, 25200, 85] with so many rows above the thresholds, then suppression.
void decodeYolo5Output(benchmark::State& state) {
  constexpr int kRows = 25200;
  constexpr int kColumns = kClasses + 5;
  std::mt19937 random(1);
  std::uniform_real_distribution<float> unit(0.0F, 1.0F);
  std::vector<float> output(static_cast<std::size_t>(kRows) * kColumns);
  for (float& value : output) value = 0.2F * unit(random);
  for (int i = 0; i < state.range(0); ++i) {
    float* const row = output.data() + std::ptrdiff_t{12} * i * kColumns;
    row[0] = 640.0F * unit(random);
    row[1] = 640.0F * unit(random);
    row[2] = row[3] = 20.0F + 100.0F * unit(random);
    row[4] = row[5 + random() % kClasses] = 0.3F + 0.6F * unit(random);
  }
  VsaModelConfig config;
  config.scoreThreshold = config.objThreshold = 0.25F;
  config.nmsThreshold = 0.45F;
  for (auto _ : state) {
    const Candidates found = decodeYolo5({output.data(), kRows, kColumns}, kClasses,
                                         config.objThreshold, config.scoreThreshold);
    benchmark::DoNotOptimize(suppressed(found, config).size());
  }
}
BENCHMARK(decodeYolo5Output)->Arg(0)->Arg(100)->Arg(2000)->Unit(benchmark::kMicrosecond);

/// [1, 300, 6], every row an object.
void decodeYolo26Output(benchmark::State& state) {
  std::vector<float> output;
  for (int i = 0; i < 300; ++i) {
    const auto place = static_cast<float>(i);
    output.insert(output.end(),
                  {place, place, place + 50, place + 50, 0.5F, static_cast<float>(i % kClasses)});
  }
  VsaModelConfig config;
  config.classNames.assign(kClasses, "thing");
  config.classCount = kClasses;
  config.scoreThreshold = 0.25F;
  VsaFrame frame;
  frame.width = 1920;
  frame.height = 1080;
  frame.wantedClasses = {"thing"};
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        decodeYolo26({output.data(), 300, 6}, 3.0F, config, frame).objects.data());
  }
}
BENCHMARK(decodeYolo26Output)->Unit(benchmark::kMicrosecond);

/// [1, 56, 8400] with so many candidates above the threshold, then suppression.
void decodePoseOutput(benchmark::State& state) {
  std::mt19937 random(1);
  std::uniform_real_distribution<float> unit(0.0F, 1.0F);
  std::vector<float> output(std::size_t{56} * kCandidates);
  for (float& value : output) value = 300.0F * unit(random);
  float* const scores = output.data() + std::ptrdiff_t{4} * kCandidates;
  for (int i = 0; i < kCandidates; ++i)
    scores[i] = i < state.range(0) ? 0.5F + 0.4F * unit(random) : 0.1F;
  VsaModelConfig config;
  config.scoreThreshold = 0.25F;
  config.nmsThreshold = 0.45F;
  for (auto _ : state) {
    const Candidates found = decodeYolo8Pose({output.data(), 56, kCandidates}, 0.25F, 3.0F);
    benchmark::DoNotOptimize(suppressed(found, config).size());
  }
}
BENCHMARK(decodePoseOutput)->Arg(0)->Arg(100)->Unit(benchmark::kMicrosecond);

/// Outlines of so many objects of 60 to 200 pixels on prototypes of 160 x 160.
void maskOutlines(benchmark::State& state) {
  constexpr int kMask = 160;
  std::mt19937 random(1);
  std::uniform_real_distribution<float> unit(-1.0F, 1.0F);
  std::vector<float> prototypes(kMaskCoefficients * kMask * kMask);
  for (std::size_t k = 0; k < kMaskCoefficients; ++k) {
    cv::Mat coarse(8, 8, CV_32FC1);
    for (float& value : cv::Mat_<float>(coarse)) value = unit(random);
    cv::Mat plane(kMask, kMask, CV_32FC1, prototypes.data() + k * kMask * kMask);
    cv::resize(coarse, plane, {kMask, kMask}, 0, 0, cv::INTER_CUBIC);
  }
  std::vector<cv::Rect> boxes;
  std::vector<MaskCoefficients> coefficients(static_cast<std::size_t>(state.range(0)));
  for (MaskCoefficients& list : coefficients) {
    for (float& value : list) value = unit(random);
    const int side = 60 + static_cast<int>(random() % 140);
    boxes.emplace_back(static_cast<int>(random() % 440), static_cast<int>(random() % 440), side,
                       side);
  }
  for (auto _ : state) {
    for (std::size_t i = 0; i < boxes.size(); ++i) {
      benchmark::DoNotOptimize(maskOutline({prototypes.data(), {kMask, kMask}}, coefficients[i],
                                           boxes[i], {kSide, kSide})
                                   .data());
    }
  }
}
BENCHMARK(maskOutlines)->Arg(1)->Arg(10)->Arg(50)->Unit(benchmark::kMicrosecond);

/// A 960 x 544 map with 50 regions, as text detection of a 1920 x 1080 frame gives it.
void textBoxes(benchmark::State& state) {
  cv::Mat map = cv::Mat::zeros(544, 960, CV_32FC1);
  for (int i = 0; i < 50; ++i) {
    const int column = i % 5;
    const int row = i / 5;
    const cv::Point2f centre(100.0F + 185.0F * static_cast<float>(column),
                             30.0F + 52.0F * static_cast<float>(row));
    const cv::RotatedRect line(centre, {140, 18}, static_cast<float>(i % 7) - 3.0F);
    cv::Point2f corners[4];
    line.points(corners);
    cv::fillPoly(map, std::vector<std::vector<cv::Point>>{{corners, corners + 4}}, cv::Scalar(0.9));
  }
  std::size_t regions = 0;
  for (auto _ : state) {
    regions = extractTextBoxes({}, map, {1920, 1080}, {960, 544}).regions.size();
  }
  state.counters["regions"] = static_cast<double>(regions);
}
BENCHMARK(textBoxes)->Unit(benchmark::kMicrosecond);

void textLine(benchmark::State& state) {
  const cv::Mat region = randomImage(400, 32);
  std::vector<float> planes(std::size_t{3} * 48 * 640);
  for (auto _ : state) {
    PrepareTextLine(region, {640, 48}, planes.data());
    benchmark::DoNotOptimize(planes.data());
  }
}
BENCHMARK(textLine)->Unit(benchmark::kMicrosecond);

/// What each model that works on objects does to one region before it infers.
template <void prepare(const cv::Mat&, cv::Size, float*)>
void object(benchmark::State& state) {
  const cv::Mat region = randomImage(120, 200);
  const cv::Size size(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  std::vector<float> planes(static_cast<std::size_t>(size.area()) * 3);
  for (auto _ : state) {
    prepare(region, size, planes.data());
    benchmark::DoNotOptimize(planes.data());
  }
}
BENCHMARK(object<fillClassifierPlanes>)->Args({224, 224})->Unit(benchmark::kMicrosecond);
BENCHMARK(object<FitToInputNormalized>)->Args({128, 256})->Unit(benchmark::kMicrosecond);
BENCHMARK(object<FitToInput>)->Args({112, 112})->Unit(benchmark::kMicrosecond);
BENCHMARK(object<PrepareOcrInput>)->Args({320, 48})->Unit(benchmark::kMicrosecond);

/// The request for 1 s of sound, 48 kHz, two channels of 16 bits; and the Base64 in it.
void audioRequest(benchmark::State& state) {
  const std::vector<std::uint8_t> pcm(192000, 7);
  VsaFrame frame;
  frame.kind = kVsaAudioFrame;
  frame.audioData = pcm.data();
  frame.audioFrameSize = static_cast<std::int32_t>(pcm.size());
  for (auto _ : state) benchmark::DoNotOptimize(spectrogramRequest(frame).data());
}
BENCHMARK(audioRequest)->Unit(benchmark::kMicrosecond);

void base64(benchmark::State& state) {
  const std::vector<std::uint8_t> bytes(std::size_t{1} << 20, 7);
  for (auto _ : state) {
    std::string text;
    Base64Encode(bytes.data(), bytes.size(), text);
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
}
BENCHMARK(base64)->Unit(benchmark::kMicrosecond);

void ctcDecode(benchmark::State& state) {
  constexpr int kSteps = 80;
  constexpr int kCharacters = 6625;
  std::vector<float> scores(static_cast<std::size_t>(kSteps) * kCharacters);
  std::mt19937 random(1);
  for (float& score : scores) score = static_cast<float>(random() % 1000);
  const CharacterDictionary dictionary = CharacterDictionary::builtIn();
  for (auto _ : state) {
    benchmark::DoNotOptimize(CtcGreedyDecode({scores.data(), kSteps, kCharacters}, dictionary));
  }
}
BENCHMARK(ctcDecode)->Unit(benchmark::kMicrosecond);

/// A detector of about the cost of YOLOv8n at 640 x 640 (3.8 billion multiply-adds, random
/// weights), with its [1, 84, 8400] output and nothing above the threshold.
class YoloLike {
 public:
  std::string write() {
    return writeNetwork({1, 3, kSide, kSide}, [this](const ov::Output<ov::Node>& input) {
      auto x = repeated(convolved(convolved(input, 3, 16, 2), 16, 32, 2), 32, 2);
      const auto fine = repeated(convolved(x, 32, 64, 2), 64, 4);
      const auto middle = repeated(convolved(fine, 64, 128, 2), 128, 4);
      const auto coarse = repeated(convolved(middle, 128, 256, 2), 256, 2);
      return ov::OutputVector{std::make_shared<op::Concat>(
          ov::OutputVector{head(fine, 64), head(middle, 128), head(coarse, 256)}, 2)};
    });
  }

 private:
  using Node = ov::Output<ov::Node>;

  Node weighted(const Node& x, std::size_t in, std::size_t out, std::size_t kernel,
                std::size_t stride) {
    std::vector<float> weights(out * in * kernel * kernel);
    std::uniform_real_distribution<float> small(-0.05F, 0.05F);
    for (float& weight : weights) weight = small(random_);
    const auto pad = static_cast<std::ptrdiff_t>(kernel / 2);
    return std::make_shared<op::Convolution>(
        x, floats({out, in, kernel, kernel}, weights), ov::Strides{stride, stride},
        ov::CoordinateDiff{pad, pad}, ov::CoordinateDiff{pad, pad}, ov::Strides{1, 1});
  }
  Node convolved(const Node& x, std::size_t in, std::size_t out, std::size_t stride) {
    return std::make_shared<op::Swish>(weighted(x, in, out, 3, stride));
  }
  Node repeated(Node x, std::size_t channels, int times) {
    for (int i = 0; i < times; ++i) x = convolved(x, channels, channels, 1);
    return x;
  }
  Node head(const Node& x, std::size_t channels) {
    const Node logits = weighted(convolved(x, channels, 64, 1), 64, kClasses + 4, 1, 1);
    const Node scores =
        std::make_shared<op::Sigmoid>(std::make_shared<op::Subtract>(logits, floats({1}, {9.0F})));
    return reshaped(scores, {1, kClasses + 4, -1});
  }

  std::mt19937 random_{1};
};

double milliseconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

double medianOf(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

/// A whole VsaModelDetect on a 1920 x 1080 frame beside the bare inference of the same network, in
/// turn.
void wholeDetect(benchmark::State& state) {
  const std::string network = YoloLike().write();
  TestModel model("Detect", "YOLO8", network);
  model.setInput(kSide, kSide);
  model.setClasses(std::vector<std::string>(kClasses, "thing"));
  if (!model.init()) return state.SkipWithError("the network could not be opened");
  ov::Core core;
  ov::InferRequest bare = core.compile_model(network + ".xml", "CPU").create_infer_request();
  cv::Mat image = randomImage(1920, 1080);
  VsaFrame frame = frameOf(image, {"thing"});
  std::vector<double> calls;
  std::vector<double> inferences;
  for (auto _ : state) {
    calls.push_back(milliseconds([&] { model.detect(frame); }));
    inferences.push_back(milliseconds([&] { bare.infer(); }));
    state.SetIterationTime(calls.back() / 1000.0);
  }
  const double call = medianOf(calls);
  const double inference = medianOf(inferences);
  state.counters["infer_ms"] = inference;
  state.counters["outside_ms"] = call - inference;
  state.counters["ratio"] = call / inference;
}
BENCHMARK(wholeDetect)->UseManualTime()->Iterations(100)->Unit(benchmark::kMillisecond);

}  // namespace
