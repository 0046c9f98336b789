// Configurations that make little sense: what becomes of each is decided, and none does harm.

#include <gtest/gtest.h>

#include <functional>

#include "support/LogCapture.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

constexpr std::uint32_t kHuge = 0xFFFFFFFFU;

/// A frame's outcome: an "[E]" line, cv::Exception, or so many objects.
constexpr char kThrows[] = "cv::Exception";

struct OddCase {
  const char* category;
  const char* modelName;
  const char* what;
  std::function<void(VsaModelConfig&)> change;
  std::string outcome;
};

using Config = VsaModelConfig;

std::string networkOf(const std::string& modelName, const std::string& category) {
  const ov::PartialShape image{1, 3, 64, 64};
  if (modelName == "YOLO8") return writeConstant(image, {1, 5, 1}, {32, 32, 20, 20, 0.9F});
  if (modelName == "YOLO5") return writeConstant(image, {1, 1, 6}, {32, 32, 20, 20, 0.9F, 0.9F});
  if (modelName == "YOLO26") return writeConstant(image, {1, 1, 6}, {20, 20, 40, 40, 0.9F, 0});
  if (modelName == "YOLO8-POSE")
    return writeConstant(image, {1, 11, 1}, {32, 32, 20, 20, 0.9F, 1, 1, 1, 2, 2, 1});
  if (modelName == "ResNet") return writeConstant(image, {1, 2}, {1, 3});
  if (category == "Track") return writeConstant(image, {1, 2, 3}, {0, 9, 0, 0, 0, 9});
  cv::Mat map = cv::Mat::zeros(64, 64, CV_32FC1);
  map(cv::Rect(10, 20, 40, 20)).setTo(0.9F);
  return writeConstant({1, 3, -1, -1}, {1, 1, 64, 64}, map.reshape(1, 1));
}

TEST(Configuration, OddValuesHaveOneOutcomeEach) {
  const OddCase cases[] = {
      {"Detect", "YOLO8", "as it should be", [](Config&) {}, "1"},
      {"Detect", "YOLO8", "no class, though the network has one",
       [](Config& c) { c.classCount = 0; }, "[E]Yolo8 dimensions error:5"},
      {"Detect", "YOLO8", "no names", [](Config& c) { c.classNames.clear(); }, "0"},
      {"Detect", "YOLO8", "an empty name that nobody wants", [](Config& c) { c.classNames = {""}; },
       "0"},
      {"Detect", "YOLO8", "no input size", [](Config& c) { c.inputWidth = c.inputHeight = 0; },
       "[E]network input is f32[1,3,64,64],expected f32[1,3,0,0]"},
      {"Detect", "YOLO8", "an endless input", [](Config& c) { c.inputWidth = kHuge; },
       "[E]network input is f32[1,3,64,64],expected f32[1,3,64,4294967295]"},
      {"Detect", "YOLO8", "score threshold -1", [](Config& c) { c.scoreThreshold = -1; }, kThrows},
      {"Detect", "YOLO8", "score threshold NaN", [](Config& c) { c.scoreThreshold = kNan; },
       kThrows},
      {"Detect", "YOLO8", "score threshold infinite", [](Config& c) { c.scoreThreshold = kInf; },
       "0"},
      {"Detect", "YOLO8", "overlap -0.5", [](Config& c) { c.nmsThreshold = -0.5F; }, kThrows},
      {"Detect", "YOLO8", "overlap NaN", [](Config& c) { c.nmsThreshold = kNan; }, kThrows},
      {"Detect", "YOLO8", "overlap infinite", [](Config& c) { c.nmsThreshold = kInf; }, "1"},
      {"Detect", "YOLO5", "objectness NaN", [](Config& c) { c.objThreshold = kNan; }, "0"},
      {"Detect", "YOLO5", "objectness -infinite", [](Config& c) { c.objThreshold = -kInf; }, "1"},
      {"Detect", "YOLO26", "score threshold NaN", [](Config& c) { c.scoreThreshold = kNan; }, "0"},
      {"Detect", "YOLO26", "score threshold -infinite", [](Config& c) { c.scoreThreshold = -kInf; },
       "1"},
      {"Detect", "YOLO26", "no class", [](Config& c) { c.classCount = 0; }, "0"},
      {"Detect", "YOLO8-POSE", "no names",
       [](Config& c) { c.classNames.clear(), c.classCount = 2; }, "0"},
      {"Detect", "PaddleOCR", "no names", [](Config& c) { c.classNames.clear(); }, "1"},
      {"Detect", "PaddleOCR", "no input size", [](Config& c) { c.inputWidth = c.inputHeight = 0; },
       "1"},
      {"Detect", "PaddleOCR", "score threshold NaN means 0.6",
       [](Config& c) { c.scoreThreshold = kNan; }, "1"},
      {"Detect", "PaddleOCR", "score threshold infinite",
       [](Config& c) { c.scoreThreshold = kInf; }, "0"},
      {"Classify", "ResNet", "no class", [](Config& c) { c.classCount = 0; }, "0"},
      {"Classify", "ResNet", "more classes than outputs", [](Config& c) { c.classCount = kHuge; },
       "[E]network output is f32[1,2],expected f32 of at least 4294967295"},
      {"Classify", "ResNet", "a score threshold NaN lets all pass",
       [](Config& c) { c.scoreThreshold = kNan; }, "1"},
      {"Classify", "ResNet", "score threshold infinite", [](Config& c) { c.scoreThreshold = kInf; },
       "0"},
      {"Track", "PaddleOCR", "an empty dictionary", [](Config& c) { c.classNames.clear(); }, "1:"},
      {"Track", "VsOCR", "an empty alphabet", [](Config& c) { c.classNames.clear(); }, "1:"},
      {"Track", "VsOCR", "no input size", [](Config& c) { c.inputWidth = c.inputHeight = 0; },
       "[E]network input is f32[1,3,64,64],expected f32[1,3,0,0]"},
  };
  cv::Mat image = randomImage(64, 64);
  for (const OddCase& c : cases) {
    const std::string where = std::string(c.modelName) + ": " + c.what;
    TestModel model(c.category, c.modelName, networkOf(c.modelName, c.category));
    model.setInput(64, 64);
    model.setClasses({"a"});
    if (c.modelName == std::string("ResNet")) model.setClasses({"b", "a"});
    c.change(model.config);
    ASSERT_TRUE(model.init()) << where;
    VsaFrame frame = frameOf(image, {"a"});
    frame.wantedLabels = {"a"};
    if (c.category != std::string("Detect"))
      frame.objects = {VsaObject(64, 64, 4, 4, 60, 60, 0.5F, 0, "a")};
    const std::size_t before = frame.objects.size();
    LogCapture log;
    std::string outcome;
    try {
      if (model.run(&frame)) {
        outcome = std::to_string(frame.objects.size());
        if (c.category == std::string("Track")) outcome += ":" + frame.objects.at(0).text;
      }
    } catch (const cv::Exception&) {
      outcome = kThrows;
    }
    for (const std::string& line : log.takeTexts()) outcome += line;
    EXPECT_EQ(outcome, c.outcome) << where;
    const bool isRefused = c.outcome == kThrows || c.outcome.starts_with("[E]");
    EXPECT_TRUE(!isRefused || frame.objects.size() == before) << where;
    if (outcome != kThrows) continue;
    model.config.scoreThreshold = model.config.nmsThreshold = 0.5F;
    EXPECT_TRUE(model.run(&frame) && frame.objects.size() == 1) << where;
  }
}

}  // namespace
