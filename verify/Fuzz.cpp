// Fuzz targets for everything that processes numbers or records from outside the library. libFuzzer
// chooses the bytes; --target=NAME selects the function that reads them. A target traps if the
// library does not behave as its headers document. Sanitizer findings and unexpected exceptions
// also end the program.

#include <glog/logging.h>
#include <json/json.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <map>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>
#include <string_view>

#include "Utils/ClassScore.h"
#include "Utils/MaskOutline.h"
#include "Utils/Nms.h"
#include "Utils/PlainReply.h"
#include "Utils/PreProcessUtils.h"
#include "Utils/TextDecode.h"
#include "Utils/TextRegions.h"
#include "Utils/YoloDecode.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"
#include "verify/Fuzz.h"

using namespace TolCompatibleLib;

namespace {

void require(bool holds) {
  if (!holds) __builtin_trap();
}

/// Reads values from the bytes of one input, and then from pseudo-random bytes seeded by it. If one
/// expression reads several values, it uses braces, which fix the order of evaluation.
class Reader {
 public:
  Reader(const std::uint8_t* data, std::size_t size) : next_(data), end_(data + size) {
    for (const std::uint8_t* byte = next_; byte != end_; ++byte) state_ = mix(state_ ^ *byte);
  }
  std::uint8_t byte() {
    if (next_ != end_) return *next_++;
    state_ = mix(state_);
    return static_cast<std::uint8_t>(state_ >> 56);
  }
  std::uint32_t word() {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) value = value << 8 | byte();
    return value;
  }
  int upTo(int max) { return byte() % (max + 1); }
  bool oneIn(int count) { return byte() % count == count - 1; }
  float number() {
    const std::uint8_t kind = byte();
    return kind == 127 ? std::bit_cast<float>(word()) : byteNumbers()[kind];
  }
  std::vector<float> numbers(std::size_t count) {
    std::vector<float> made(count);
    for (float& value : made) value = number();
    return made;
  }
  /// A coordinate: usually inside or near a small image, sometimes any int.
  int edge() {
    const int kind = byte();
    return kind < 240 ? kind - 80
                      : static_cast<int>(kind < 250      ? word()
                                         : kind % 2 == 0 ? 0x7FFFFFFFU
                                                         : 0x80000000U);
  }
  cv::Rect box() { return {edge(), edge(), edge(), edge()}; }
  cv::Size size(int max) { return {1 + upTo(max - 1), 1 + upTo(max - 1)}; }
  std::string text() {
    std::string made(static_cast<std::size_t>(upTo(5)), ' ');
    for (char& c : made) c = static_cast<char>(byte());
    return made;
  }
  std::vector<std::string> names() {
    std::vector<std::string> made(static_cast<std::size_t>(upTo(5)));
    for (std::string& name : made)
      name = oneIn(3) ? text() : std::string(1, static_cast<char>('a' + upTo(2)));
    return made;
  }
  std::string rest() const { return {next_, end_}; }

 private:
  static std::uint64_t mix(std::uint64_t state) {
    return state * 6364136223846793005U + 1442695040888963407U;
  }

  const std::uint8_t* next_;
  const std::uint8_t* end_;
  std::uint64_t state_ = 0;
};

/// Pixels in a heap block of exactly their size, so that the address sanitizer reports reads past
/// them.
struct Pixels {
  Pixels(Reader& in, cv::Size size) : bytes(static_cast<std::size_t>(size.area()) * 3) {
    for (std::uint8_t& b : bytes) b = in.byte();
    image = cv::Mat(size, CV_8UC3, bytes.data());
  }
  std::vector<std::uint8_t> bytes;
  cv::Mat image;
};

void fillConfig(Reader& in, VsaModelConfig& config) {
  config.classNames = in.names();
  config.classCount = in.oneIn(8) ? in.word() : static_cast<std::uint32_t>(in.upTo(6));
  config.scoreThreshold = in.number();
  config.nmsThreshold = in.number();
  config.objThreshold = in.number();
}

struct Scene {
  explicit Scene(Reader& in) : size(in.size(64)), scale(in.number()) {
    fillConfig(in, config);
    frame.width = static_cast<std::uint32_t>(size.width);
    frame.height = static_cast<std::uint32_t>(size.height);
    frame.wantedClasses = {"a", "b", ""};
  }
  cv::Size size;
  float scale;
  VsaModelConfig config;
  VsaFrame frame;
};

void checkObjects(const std::vector<VsaObject>& objects, cv::Size frame) {
  for (const VsaObject& object : objects) {
    require(object.left >= 0 && object.top >= 0 && object.right <= frame.width &&
            object.bottom <= frame.height);
    require(object.classId >= 0);
  }
}

/// Whether NMS rejects the thresholds.
bool areThresholdsInvalid(const VsaModelConfig& config) {
  return !(config.scoreThreshold >= 0.0F && config.nmsThreshold >= 0.0F);
}

/// Runs `work`, which must throw cv::Exception if and only if `isInvalid`.
template <class Work>
void throwsIf(bool isInvalid, Work work) {
  bool thrown = false;
  try {
    work();
  } catch (const cv::Exception&) {
    thrown = true;
  }
  require(thrown == isInvalid);
}

void mapToFrame(const Candidates& candidates, const Scene& scene) {
  if (logBadBox(candidates.badBox)) return;
  throwsIf(areThresholdsInvalid(scene.config), [&] {
    const FrameObjects found = wantedObjects(candidates, scene.scale, scene.config, scene.frame);
    if (!logBadBox(found.badBox)) checkObjects(found.objects, scene.size);
  });
}

void yolo5(Reader& in) {
  const int classes = in.upTo(20);
  const int count = in.upTo(24);
  const Scene scene(in);
  const auto numbers = in.numbers(static_cast<std::size_t>(count * (classes + 5)));
  const FloatGrid rows{numbers.data(), count, classes + 5};
  mapToFrame(decodeYolo5(rows, classes, scene.config.objThreshold, scene.config.scoreThreshold),
             scene);
}

void yolo8(Reader& in) {
  const int classes = in.upTo(6);
  const bool isLong = in.oneIn(16);  // longer than one block of columns
  const int count = in.upTo(24) + (isLong ? 500 : 0);
  const Scene scene(in);
  const auto numbers = in.numbers(static_cast<std::size_t>(count * (classes + 4)));
  const Candidates found =
      decodeYolo8({numbers.data(), classes + 4, count}, classes, scene.config.scoreThreshold);
  if (!isLong) mapToFrame(found, scene);
}

void poseBoxes(Reader& in) {
  const int count = in.upTo(24);
  const Scene scene(in);
  const auto numbers = in.numbers(static_cast<std::size_t>(count * 5));
  const Candidates found =
      decodeYolo8Pose({numbers.data(), 5, count}, scene.config.scoreThreshold, scene.scale);
  if (logBadBox(found.badBox)) return;
  throwsIf(areThresholdsInvalid(scene.config), [&] { keptAfterNms(found, scene.config); });
}

void yolo26(Reader& in) {
  const int columns = kYolo26Columns + in.upTo(2);
  const int count = in.upTo(24);
  const Scene scene(in);
  const auto numbers = in.numbers(static_cast<std::size_t>(count * columns));
  const FrameObjects found =
      decodeYolo26({numbers.data(), count, columns}, scene.scale, scene.config, scene.frame);
  if (!logBadBox(found.badBox)) checkObjects(found.objects, scene.size);
}

/// NMS and mapping of any boxes, with any class ids.
void suppression(Reader& in) {
  const Scene scene(in);
  Candidates found;
  for (int i = in.upTo(12); i > 0; --i) {
    found.boxes.push_back(in.box());
    found.scores.push_back(in.number());
    found.classIds.push_back(in.upTo(7));
    found.outputIndices.push_back(i);
  }
  mapToFrame(found, scene);
}

/// NMS of many boxes keeps what cv::dnn::NMSBoxes keeps.
void nms(Reader& in) {
  const bool isAnySize = in.oneIn(16);
  const std::uint32_t offsets = 2U << in.upTo(15);
  const std::uint32_t sides = 2U << in.upTo(14);
  const int minSide = in.oneIn(4) ? -in.upTo(20) : 1;
  const int levels = 1 + in.upTo(250);
  const unsigned divisor = in.oneIn(4) ? 1 : 4;
  std::vector<cv::Rect> boxes(in.byte() / divisor);
  std::vector<float> scores;
  for (cv::Rect& box : boxes) {
    const auto offset = [&] {
      return static_cast<int>(in.word() % offsets) - static_cast<int>(offsets / 2);
    };
    const auto side = [&] { return minSide + static_cast<int>(in.word() % sides); };
    const cv::Rect made{offset(), offset(), side(), side()};
    const bool isCopy = in.oneIn(8);
    box = isAnySize ? in.box() : isCopy ? boxes[in.byte() % boxes.size()] : made;
    scores.push_back(in.oneIn(16)
                         ? in.number()
                         : static_cast<float>(in.upTo(levels)) / static_cast<float>(levels));
  }
  const float scoreThreshold = in.oneIn(4) ? in.number() : 0.25F;
  const float nmsThreshold = in.oneIn(4) ? in.number() : static_cast<float>(in.byte()) / 255.0F;
  const bool isRefused = !(scoreThreshold >= 0.0F && nmsThreshold >= 0.0F);
  std::vector<int> expected;
  std::vector<int> kept;
  throwsIf(isRefused,
           [&] { cv::dnn::NMSBoxes(boxes, scores, scoreThreshold, nmsThreshold, expected); });
  throwsIf(isRefused, [&] { kept = indicesAfterNms(boxes, scores, scoreThreshold, nmsThreshold); });
  require(kept == expected);
}

void outline(Reader& in) {
  const cv::Size mask = in.size(6);
  const cv::Size input =
      in.oneIn(2) ? in.size(64) : cv::Size{mask.width << in.upTo(3), mask.height << in.upTo(3)};
  const cv::Rect box = in.box();
  MaskCoefficients coefficients;
  for (float& value : coefficients) value = in.number();
  const auto numbers = in.numbers(kMaskCoefficients * static_cast<std::size_t>(mask.area()));
  std::vector<std::uint8_t> memory;
  for (const cv::Point& point :
       maskOutline({numbers.data(), mask}, coefficients, box, input, memory)) {
    require(cv::Rect({0, 0}, input).contains(point));
  }
}

void regions(Reader& in) {
  TextBoxParams params;
  params.boxThreshold = in.number();
  const cv::Size size = in.size(20);
  const cv::Size frame = in.size(200);
  const cv::Size resized = in.size(200);
  auto numbers = in.numbers(static_cast<std::size_t>(size.area()));
  const TextRegions found =
      extractTextBoxes(params, cv::Mat(size, CV_32FC1, numbers.data()), frame, resized);
  require(found.regions.size() == found.scores.size());
  for (const TextRegion& region : found.regions) {
    for (const cv::Point2f& corner : region)
      require(corner.x >= 0 && corner.x <= static_cast<float>(frame.width) && corner.y >= 0 &&
              corner.y <= static_cast<float>(frame.height));
  }
}

void polygon(Reader& in) {
  const cv::Size size = in.size(24);
  std::array<cv::Point2f, 4> corners;
  // Corners come from contours of the map. OpenCV takes minutes to fill much larger polygons.
  const auto nearby = [&in] {
    const float value = in.number();
    return std::fabs(value) > 1000.0F ? NAN : value;
  };
  for (cv::Point2f& corner : corners) corner = {nearby(), nearby()};
  auto numbers = in.numbers(static_cast<std::size_t>(size.area()));
  polygonScore(corners, cv::Mat(size, CV_32FC1, numbers.data()));
}

void ctc(Reader& in) {
  const CharacterDictionary dictionary =
      in.oneIn(2) ? CharacterDictionary::builtIn() : CharacterDictionary(in.names());
  const cv::Size size{in.upTo(40), in.upTo(12)};
  const auto numbers = in.numbers(static_cast<std::size_t>(size.area()));
  const std::string text = CtcGreedyDecode({numbers.data(), size.height, size.width}, dictionary);
  require(text.size() <= static_cast<std::size_t>(size.height) * 5);
}

void ocr(Reader& in) {
  std::vector<std::size_t> shape(static_cast<std::size_t>(in.upTo(4)));
  std::size_t count = 1;
  for (std::size_t& length : shape) count *= length = static_cast<std::size_t>(in.upTo(9));
  const auto scores = in.numbers(count);
  const OcrLayoutResult found = ocrLayoutOf(shape);
  if (found.error == nullptr) decodeOcr(scores.data(), found.layout, in.names());
}

void score(Reader& in) {
  const auto scores = in.numbers(in.byte());
  const ClassScore best = bestClass(scores);
  require(best.classId >= (scores.empty() ? -1 : 0) &&
          best.classId < static_cast<int>(std::max(scores.size(), 1UL)));
  require(std::isnan(best.score) || (best.score >= 0 && best.score <= 1) ||
          std::ranges::all_of(scores, [](float s) { return !(s > 0); }));
}

void spectrogram(Reader& in) {
  const bool raw = in.oneIn(4);
  const std::string text =
      raw ? in.rest()
          : R"({"code":1000,"msg":"","mels":1,"time_steps":2,"mel_spec":)" + in.rest() + "}";
  try {
    // What the fast path accepts, jsoncpp reads to the same bits.
    const auto rows = parseAnyReply(text);
    const auto plain = parsePlainReply(text);
    require(!plain || (rows && std::ranges::equal(*plain, *rows, haveSameBits)));
    for (const auto& row : rows.value_or(MelSpectrogram())) {
      for (const float value : row) require(std::isfinite(value));
    }
  } catch (const Json::Exception&) {
    require(std::ranges::count_if(text, [](char c) { return c == '[' || c == '{'; }) >
            500);  // nested too deeply
  }
}

void request(Reader& in) {
  VsaFrame frame;
  frame.pts = in.word();
  frame.audioFrameCount = std::int64_t{in.edge()} << 32;
  frame.audioSampleRate = in.edge();
  const std::string rest = in.rest();
  const std::vector<std::uint8_t> audio(rest.begin(), rest.end());
  frame.audioData = audio.empty() ? nullptr : audio.data();
  frame.audioFrameSize = static_cast<std::int32_t>(audio.size());
  require(spectrogramRequest(frame).size() > (audio.size() + 2) / 3 * 4);
}

void letterboxes(Reader& in) {
  const cv::Size input = in.size(48);
  const Pixels pixels(in, in.size(48));
  std::vector<float> planes(static_cast<std::size_t>(input.area()) * 3);
  const auto scale = LetterboxWriter().writePlanes(pixels.image, input, planes.data());
  const auto boxed = letterbox(pixels.image, input);
  require(scale.has_value() == boxed.has_value() && (!scale || *scale == boxed->scale));
}

void preparations(Reader& in) {
  const cv::Size size = in.size(32);
  const Pixels pixels(in, in.size(32));
  VsaObject object;
  for (int* edge : {&object.left, &object.top, &object.right, &object.bottom}) *edge = in.edge();
  const auto inside = [](int from, int to, int length) {
    return from >= 0 && to >= from && to <= length;
  };
  cv::Mat region;
  throwsIf(!inside(object.left, object.right, pixels.image.cols) ||
               !inside(object.top, object.bottom, pixels.image.rows),
           [&] { region = regionOf(pixels.image, object); });
  if (region.empty()) region = pixels.image;
  std::vector<float> planes(static_cast<std::size_t>(size.area()) * 3);
  fillClassifierPlanes(region, size, planes.data());
  fillTextPlanes(region, size, planes.data());
  PrepareTextLine(region, size, planes.data());
  PrepareOcrInput(region, size, planes.data());
  const float ratio =
      static_cast<float>(size.width) / static_cast<float>(std::max(region.cols, region.rows));
  const auto side = [&](int length) {
    return static_cast<int>(std::round(static_cast<float>(length) * ratio));
  };
  const bool isInvalid =
      side(region.rows) > size.height || side(region.rows) < 1 || side(region.cols) < 1;
  throwsIf(isInvalid, [&] { FitToInput(region, size, planes.data()); });
  throwsIf(isInvalid, [&] { FitToInputNormalized(region, size, planes.data()); });
  const cv::Size frame = in.size(256);
  const cv::Size shrunk = textInputSize(frame, in.word() >> in.upTo(31));
  require(shrunk.width % 32 == 0 && shrunk.height % 32 == 0 && shrunk.width >= 32 &&
          shrunk.height >= 32);
}

/// The model of a family on OpenVINO, opened at the first call.
TestModel& openModel(const Family& family) {
  static std::map<std::string, std::unique_ptr<TestModel>> models;
  std::unique_ptr<TestModel>& model = models[titleOf(family)];
  if (!model) {
    model = std::make_unique<TestModel>(family.category, family.name, writeFamilyNetwork(family));
    model->setInput(static_cast<std::uint32_t>(family.input.width),
                    static_cast<std::uint32_t>(family.input.height));
    require(model->init());
  }
  return *model;
}

VsaObject object(Reader& in) {
  VsaObject made{64,          64,          in.upTo(40), in.upTo(40), in.upTo(60),
                 in.upTo(60), in.number(), in.edge(),   in.text()};
  for (int* edge : {&made.left, &made.top, &made.right, &made.bottom})
    *edge = in.oneIn(8) ? in.edge() : *edge;
  for (int* edge : {&made.cornerX2, &made.cornerY2, &made.cornerX3, &made.cornerY3})
    *edge = in.upTo(40) - 1;
  return made;
}

/// Runs the model of a family on a frame. If `isValid`, the frame and the calls are valid;
/// otherwise some of their fields may be arbitrary. The buffer has the size that the frame states,
/// unless the frame must be rejected.
void record(Reader& in, const Family& family, bool isValid) {
  TestModel& model = openModel(family);
  fillConfig(in, model.config);
  if (isValid) model.config.classCount = 2;
  const bool isText = family.outputs.empty();
  if (isText) model.config.inputWidth = in.word() >> in.upTo(31);
  VsaFrame frame;
  const cv::Size size = in.oneIn(2) && !isText ? family.input : in.size(40);
  const Pixels pixels(in, size);
  frame.data = const_cast<std::uint8_t*>(pixels.bytes.data());
  frame.width = static_cast<std::uint32_t>(size.width);
  frame.height = static_cast<std::uint32_t>(size.height);
  frame.wantedClasses = {"a", "b", "", in.text()};
  frame.wantedLabels = frame.wantedClasses;
  for (int i = in.upTo(3); i > 0; --i) frame.objects.push_back(object(in));
  // The service must not be called, so a block of audio has either no length or no bytes.
  frame.audioFrameSize = in.oneIn(2) ? -1 - in.upTo(200) : 1 + in.upTo(200);
  VsaModelContext* context = &model.context;
  VsaFrame* framePointer = &frame;
  VsaModelContext other;
  if (!isValid) {
    if (in.oneIn(4)) frame.kind = in.oneIn(2) ? in.word() : kVsaAudioFrame;
    if (in.oneIn(8)) frame.data = nullptr;
    if (in.oneIn(8)) {
      const std::uint32_t width = in.word();
      const std::uint32_t height = in.word();
      // Only sizes that are rejected: the buffer would be too small for the others.
      const std::uint32_t longest = 0x7FFFFFFF;
      if (width == 0 || height == 0 || width > longest / 3 || height > longest) {
        frame.width = width;
        frame.height = height;
      }
    }
    if (in.oneIn(16)) framePointer = nullptr;
    if (in.oneIn(16)) context = in.oneIn(2) ? nullptr : &other;
    VsaModelConfig none;
    none.engine = in.oneIn(2) ? "TensorRT" : in.text();
    other.version = in.oneIn(2) ? kVsaInterfaceVersion : in.text();
    other.config = in.oneIn(2) ? nullptr : &none;
    require(!VsaModelInit(&other));
  }
  const std::size_t before = frame.objects.size();
  const bool isDetector = family.category == "Detect";
  const bool mayThrow = !isDetector || areThresholdsInvalid(model.config);
  bool done = false;
  try {
    for (const auto run : {VsaModelDetect, VsaModelClassify, VsaModelFeature}) {
      if (run(context, framePointer)) done = true;
    }
  } catch (const cv::Exception&) {
    require(mayThrow);  // by NMS, or for a box outside the image
  }
  require(done ? isDetector || frame.objects.size() <= before : frame.objects.size() == before);
  if (isDetector && !isText) {
    checkObjects({frame.objects.begin() + static_cast<std::ptrdiff_t>(before), frame.objects.end()},
                 size);
  }
  VsaModelRelease(&other);
}

/// A valid frame, for a detector.
template <const char* name>
void detectorRecord(Reader& in) {
  record(in, findFamily("OpenVINO", "Detect", name), true);
}

/// Any record, for any family.
void anyRecord(Reader& in) {
  static const std::vector<Family> kFamilies = familiesOn("OpenVINO");
  record(in, kFamilies[in.byte() % kFamilies.size()], false);
}

constexpr char kObb[] = "YOLO8-OBB";
constexpr char kPose[] = "YOLO8-POSE";
constexpr char kSeg[] = "YOLO8-Seg";

struct Target {
  std::string_view name;
  void (*run)(Reader& in);
};
constexpr Target kTargets[] = {{"yolo5", yolo5},
                               {"yolo8", yolo8},
                               {"pose-boxes", poseBoxes},
                               {"yolo26", yolo26},
                               {"suppression", suppression},
                               {"nms", nms},
                               {"outline", outline},
                               {"regions", regions},
                               {"polygon", polygon},
                               {"ctc", ctc},
                               {"ocr", ocr},
                               {"score", score},
                               {"spectrogram", spectrogram},
                               {"request", request},
                               {"letterbox", letterboxes},
                               {"preparation", preparations},
                               {"oriented", detectorRecord<kObb>},
                               {"pose", detectorRecord<kPose>},
                               {"segments", detectorRecord<kSeg>},
                               {"records", anyRecord}};

const Target* chosen = nullptr;

}  // namespace

bool chooseTarget(std::string_view name) {
  const auto* const found = std::ranges::find(kTargets, name, &Target::name);
  chosen = found == std::end(kTargets) ? nullptr : found;
  if (chosen != nullptr) return true;
  for (const Target& target : kTargets) std::puts(target.name.data());
  return false;
}

void prepareTargets() {
  FLAGS_minloglevel = google::FATAL;
  cv::setNumThreads(1);
  cv::redirectError([](int, const char*, const char*, const char*, int, void*) { return 0; });
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  prepareTargets();
  constexpr std::string_view kOption = "--target=";
  std::string_view name;
  for (int i = 1; i < *argc; ++i) {
    const std::string_view argument = (*argv)[i];
    if (argument.starts_with(kOption)) name = argument.substr(kOption.size());
  }
  if (!chooseTarget(name)) std::exit(2);
  return 0;
}

/// Between two executions, memory that only the engine's threads refer to would be reported as
/// leaked.
extern "C" const char* __lsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
  return "leak:libopenvino.so\nleak:libtbb.so\n";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Reader in(data, size);
  chosen->run(in);
  return 0;
}
