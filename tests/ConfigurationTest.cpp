// Unusual configurations: each has a defined outcome, and the model accepts the next frame.

#include <gtest/gtest.h>

#include <functional>
#include <ostream>

#include "support/LogCapture.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

constexpr std::uint32_t kHuge = 0xFFFFFFFFU;

/// The outcome of a run on a frame.
struct Outcome {
  bool throws = false;      ///< cv::Exception
  std::string line = {};    ///< Empty: the run succeeds.
  std::size_t objects = 0;  ///< Objects in the frame of a run that succeeds.

  bool operator==(const Outcome&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  return out << "throws " << outcome.throws << " line " << outcome.line << " objects "
             << outcome.objects;
}
Outcome reports(std::size_t objects) {
  return {.objects = objects};
}
Outcome refuses(const std::string& line) {
  return {.line = line};
}
const Outcome kThrows{.throws = true};

struct ConfigurationCase {
  const char* category;
  const char* modelName;
  const char* name;
  std::function<void(VsaModelConfig&)> change;
  Outcome outcome;
};

using Config = VsaModelConfig;

std::string networkOf(const std::string& modelName, const std::string& category) {
  const ov::PartialShape image{1, 3, 64, 64};
  if (modelName == "YOLO8") return writeConstant(image, {1, 5, 1}, {32, 32, 20, 20, 0.9F});
  if (modelName == "YOLO5") return writeConstant(image, {1, 1, 6}, {32, 32, 20, 20, 0.9F, 0.9F});
  if (modelName == "YOLO26") return writeConstant(image, {1, 1, 6}, {20, 20, 40, 40, 0.9F, 0});
  if (modelName == "YOLO8-POSE") {
    return writeConstant(image, {1, 11, 1}, {32, 32, 20, 20, 0.9F, 1, 1, 1, 2, 2, 1});
  }
  if (modelName == "ResNet") return writeConstant(image, {1, 2}, {1, 3});
  if (category == "Track") return writeConstant(image, {1, 2, 3}, {0, 9, 0, 0, 0, 9});
  cv::Mat map = cv::Mat::zeros(64, 64, CV_32FC1);
  map(cv::Rect(10, 20, 40, 20)).setTo(0.9F);
  return writeConstant({1, 3, -1, -1}, {1, 1, 64, 64}, map.reshape(1, 1));
}

TEST(Configuration, UnusualValuesHaveDefinedOutcomes) {
  const ConfigurationCase cases[] = {
      {"Detect", "YOLO8", "usual values", [](Config&) {}, reports(1)},
      {"Detect", "YOLO8", "no class, but a network with one", [](Config& c) { c.classCount = 0; },
       refuses("[E]Yolo8 dimensions error:5")},
      {"Detect", "YOLO8", "no names", [](Config& c) { c.classNames.clear(); }, reports(0)},
      {"Detect", "YOLO8", "an unwanted empty name", [](Config& c) { c.classNames = {""}; },
       reports(0)},
      {"Detect", "YOLO8", "no input size", [](Config& c) { c.inputWidth = c.inputHeight = 0; },
       refuses("[E]network input is f32[1,3,64,64],expected f32[1,3,0,0]")},
      {"Detect", "YOLO8", "huge input width", [](Config& c) { c.inputWidth = kHuge; },
       refuses("[E]network input is f32[1,3,64,64],expected f32[1,3,64,4294967295]")},
      {"Detect", "YOLO8", "score threshold -1", [](Config& c) { c.scoreThreshold = -1; }, kThrows},
      {"Detect", "YOLO8", "score threshold NaN", [](Config& c) { c.scoreThreshold = kNan; },
       kThrows},
      {"Detect", "YOLO8", "score threshold infinite", [](Config& c) { c.scoreThreshold = kInf; },
       reports(0)},
      {"Detect", "YOLO8", "NMS threshold -0.5", [](Config& c) { c.nmsThreshold = -0.5F; }, kThrows},
      {"Detect", "YOLO8", "NMS threshold NaN", [](Config& c) { c.nmsThreshold = kNan; }, kThrows},
      {"Detect", "YOLO8", "NMS threshold infinite", [](Config& c) { c.nmsThreshold = kInf; },
       reports(1)},
      {"Detect", "YOLO5", "objectness threshold NaN", [](Config& c) { c.objThreshold = kNan; },
       reports(0)},
      {"Detect", "YOLO5", "objectness threshold -infinite",
       [](Config& c) { c.objThreshold = -kInf; }, reports(1)},
      {"Detect", "YOLO26", "score threshold NaN", [](Config& c) { c.scoreThreshold = kNan; },
       reports(0)},
      {"Detect", "YOLO26", "score threshold -infinite", [](Config& c) { c.scoreThreshold = -kInf; },
       reports(1)},
      {"Detect", "YOLO26", "no class", [](Config& c) { c.classCount = 0; }, reports(0)},
      {"Detect", "YOLO8-POSE", "no names",
       [](Config& c) {
         c.classNames.clear();
         c.classCount = 2;
       },
       reports(0)},
      {"Detect", "PaddleOCR", "no names", [](Config& c) { c.classNames.clear(); }, reports(1)},
      {"Detect", "PaddleOCR", "no input size", [](Config& c) { c.inputWidth = c.inputHeight = 0; },
       reports(1)},
      {"Detect", "PaddleOCR", "score threshold NaN means 0.6",
       [](Config& c) { c.scoreThreshold = kNan; }, reports(1)},
      {"Detect", "PaddleOCR", "score threshold infinite",
       [](Config& c) { c.scoreThreshold = kInf; }, reports(0)},
      {"Classify", "ResNet", "no class", [](Config& c) { c.classCount = 0; }, reports(0)},
      {"Classify", "ResNet", "more classes than outputs", [](Config& c) { c.classCount = kHuge; },
       refuses("[E]network output is f32[1,2],expected f32 of at least 4294967295")},
      {"Classify", "ResNet", "score threshold NaN keeps all",
       [](Config& c) { c.scoreThreshold = kNan; }, reports(1)},
      {"Classify", "ResNet", "score threshold infinite", [](Config& c) { c.scoreThreshold = kInf; },
       reports(0)},
      {"Track", "PaddleOCR", "empty dictionary", [](Config& c) { c.classNames.clear(); },
       reports(1)},
      {"Track", "VsOCR", "empty alphabet", [](Config& c) { c.classNames.clear(); }, reports(1)},
      {"Track", "VsOCR", "no input size", [](Config& c) { c.inputWidth = c.inputHeight = 0; },
       refuses("[E]network input is f32[1,3,64,64],expected f32[1,3,0,0]")},
  };
  cv::Mat image = randomImage(64, 64);
  for (const ConfigurationCase& c : cases) {
    SCOPED_TRACE(std::string(c.modelName) + ": " + c.name);
    TestModel model(c.category, c.modelName, networkOf(c.modelName, c.category));
    model.setInput(64, 64);
    model.setClasses({"a"});
    if (c.modelName == std::string("ResNet")) model.setClasses({"b", "a"});
    c.change(model.config);
    ASSERT_TRUE(model.init());
    VsaFrame frame = frameOf(image, {"a"});
    frame.wantedLabels = {"a"};
    const bool isDetector = c.category == std::string("Detect");
    const bool isRecogniser = c.category == std::string("Track");
    if (!isDetector) frame.objects = {VsaObject(64, 64, 4, 4, 60, 60, 0.5F, 0, "a")};
    if (isRecogniser) frame.objects[0].text = "old";
    const std::string before = bytesOf(frame);
    LogCapture log;
    Outcome outcome;
    bool succeeded = false;
    try {
      succeeded = model.run(&frame);
    } catch (const cv::Exception&) {
      outcome.throws = true;
    }
    for (const std::string& line : log.takeTexts()) outcome.line += line;
    if (succeeded) outcome.objects = frame.objects.size();
    EXPECT_EQ(outcome, c.outcome);
    EXPECT_EQ(succeeded, !outcome.throws && outcome.line.empty());
    if (!succeeded) {
      EXPECT_EQ(bytesOf(frame), before);
    } else if (isRecogniser) {
      EXPECT_EQ(frame.objects.at(0).text, "");
    }
    if (!outcome.throws) continue;
    model.config.scoreThreshold = model.config.nmsThreshold = 0.5F;
    EXPECT_TRUE(model.run(&frame));
    EXPECT_EQ(frame.objects.size(), 1U);
  }
}

}  // namespace
