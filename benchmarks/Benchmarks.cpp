// What the library adds to the engine's own work. Run by hand, on an idle machine:
//   build/release/benchmarks/Benchmarks

#include <benchmark/benchmark.h>

#include <random>

#include "Networks.h"
#include "Utils/MaskOutline.h"
#include "Utils/PreProcessUtils.h"
#include "Utils/TextDecode.h"
#include "Utils/TextRegions.h"
#include "Utils/YoloDecode.h"
#include "support/TestHost.h"

namespace {

using namespace TolCompatibleLib;

/// Letterbox and blob, as every YOLO detector begins.
void preProcess(benchmark::State& state) {
  const cv::Mat image =
      randomImage(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  std::vector<float> planes(std::size_t{3} * kSide * kSide);
  LetterboxWriter writer;
  for (auto _ : state) {
    benchmark::DoNotOptimize(writer.writePlanes(image, {kSide, kSide}, planes.data()));
  }
}
BENCHMARK(preProcess)
    ->Args({1920, 1080})
    ->Args({3840, 2160})
    ->Args({640, 480})
    ->Unit(benchmark::kMicrosecond);

/// [1, 84, 8400] with so many candidates above the threshold, then suppression.
void decodeYolo8Output(benchmark::State& state) {
  const std::vector<float> output =
      yolo8Output(kClasses, 0, kCandidates, static_cast<int>(state.range(0)));
  VsaModelConfig config;
  config.scoreThreshold = 0.25F;
  config.nmsThreshold = 0.45F;
  std::size_t kept = 0;
  for (auto _ : state) {
    const Candidates found =
        decodeYolo8({output.data(), kClasses + 4, kCandidates}, kClasses, config.scoreThreshold);
    kept = keptAfterNms(found, config).size();
  }
  state.counters["kept"] = static_cast<double>(kept);
}
BENCHMARK(decodeYolo8Output)->Arg(0)->Arg(100)->Arg(2000)->Unit(benchmark::kMicrosecond);

/// [1, 25200, 85] with so many rows above the thresholds, then suppression.
void decodeYolo5Output(benchmark::State& state) {
  const std::vector<float> output = yolo5Output(static_cast<int>(state.range(0)));
  VsaModelConfig config;
  config.scoreThreshold = config.objThreshold = 0.25F;
  config.nmsThreshold = 0.45F;
  for (auto _ : state) {
    const Candidates found = decodeYolo5({output.data(), kYolo5Rows, kClasses + 5}, kClasses,
                                         config.objThreshold, config.scoreThreshold);
    benchmark::DoNotOptimize(keptAfterNms(found, config).size());
  }
}
BENCHMARK(decodeYolo5Output)->Arg(0)->Arg(100)->Arg(2000)->Unit(benchmark::kMicrosecond);

/// [1, 300, 6], every row an object.
void decodeYolo26Output(benchmark::State& state) {
  const std::vector<float> output = yolo26Output(300);
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
  const std::vector<float> output = poseOutput(static_cast<int>(state.range(0)));
  VsaModelConfig config;
  config.scoreThreshold = 0.25F;
  config.nmsThreshold = 0.45F;
  for (auto _ : state) {
    const Candidates found = decodeYolo8Pose({output.data(), 56, kCandidates}, 0.25F, 3.0F);
    benchmark::DoNotOptimize(keptAfterNms(found, config).size());
  }
}
BENCHMARK(decodePoseOutput)->Arg(0)->Arg(100)->Unit(benchmark::kMicrosecond);

/// Outlines of so many objects of 60 to 200 pixels on prototypes of 160 x 160.
void maskOutlines(benchmark::State& state) {
  const Masks masks = randomMasks(static_cast<int>(state.range(0)), 60, 200);
  std::vector<std::uint8_t> memory;
  for (auto _ : state) {
    for (std::size_t i = 0; i < masks.boxes.size(); ++i) {
      benchmark::DoNotOptimize(
          maskOutline(masks.planes(), masks.coefficients[i], masks.boxes[i], {kSide, kSide}, memory)
              .data());
    }
  }
}
BENCHMARK(maskOutlines)->Arg(1)->Arg(10)->Arg(50)->Unit(benchmark::kMicrosecond);

/// A 960 x 544 map with 50 regions, as text detection of a 1920 x 1080 frame gives it.
void textBoxes(benchmark::State& state) {
  const cv::Mat map = textMap(50);
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

/// A whole VsaModelDetect on a 1920 x 1080 frame beside the bare inference of the same network, in
/// turn.
void wholeDetect(benchmark::State& state) {
  TestModel model("Detect", "YOLO8", kYolo);
  model.setInput(kSide, kSide);
  model.setClasses(std::vector<std::string>(kClasses, "thing"));
  if (!model.init()) return state.SkipWithError("the network could not be opened");
  ov::Core core;
  ov::InferRequest bare =
      core.compile_model(std::string(kYolo) + ".xml", "CPU").create_infer_request();
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
