// The models that work on the objects of a frame: image classifier, embeddings, VsOCR.

#include <gtest/gtest.h>

#include <cmath>

#include "Utils/ClassScore.h"
#include "Utils/PreProcessUtils.h"
#include "support/LogCapture.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

using namespace TolCompatibleLib;

TEST(BestClass, IsFirstMaximumAndItsShareOfPositiveScores) {
  struct Case {
    std::vector<float> scores;
    int classId;
    float score;
  };
  const Case cases[] = {{{kNan, 1, 3}, 2, 0.75F}, {{kNan, kNan}, 0, 1.0F}, {{}, -1, 1.0F}};
  for (const Case& c : cases) {
    const ClassScore best = bestClass(c.scores);
    EXPECT_EQ(best.classId, c.classId);
    EXPECT_EQ(best.score, c.score);
  }
  EXPECT_TRUE(std::isnan(bestClass(std::vector<float>{kInf, 1}).score));
}

/// A frame with a blue, a green and a red third and an object on each of them.
struct Thirds {
  Thirds() : image(40, 60, CV_8UC3), frame(frameOf(image)) {
    const cv::Scalar colours[] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}};
    for (int i = 0; i < 3; ++i) {
      image(cv::Rect(20 * i, 0, 20, 40)).setTo(colours[i]);
      frame.objects.push_back(boxObject(20 * i + 2, 2, 20 * i + 18, 38, std::string(1, "bgr"[i])));
    }
  }
  cv::Mat image;
  VsaFrame frame;
};

TEST(OvClassifyResNet, KeepsScoreEqualToThreshold) {
  struct Case {
    std::vector<float> scores;
    float threshold;
    std::vector<std::string> names;
    std::size_t kept;
  };
  const Case cases[] = {{{1, 3}, 0.75F, {"a", "b"}, 3U},
                        {{1, 3}, 0.76F, {"a", "b"}, 0U},
                        {{-1, -3}, 1.0F, {"a", "b"}, 3U},
                        {{1, kInf}, 0.0F, {"a", "b"}, 0U},  // the share of infinity is NaN
                        {{1, 3}, 0.0F, {"a"}, 0U}};         // the best class has no name
  for (const Case& c : cases) {
    TestModel model("Classify", "ResNet", writeConstant({1, 3, 8, 8}, {1, 2}, c.scores));
    model.setInput(8, 8);
    model.setClasses(c.names);
    model.config.classCount = 2;
    model.config.scoreThreshold = c.threshold;
    ASSERT_TRUE(model.init());
    Thirds thirds;
    thirds.frame.wantedLabels = {"a", "b"};
    EXPECT_TRUE(model.run(&thirds.frame));
    EXPECT_EQ(thirds.frame.objects.size(), c.kept) << c.scores[0] << c.threshold;
  }
}

TEST(ObjectModels, RegionOutsideTheImageLeavesObjectsUnchanged) {
  const std::string network = writeConstant({1, 3, 8, 8}, {1, 1, 300}, std::vector<float>(300, 1));
  for (const std::string name : {"ResNet", "DeepSort", "VsFaceNet", "VsOCR"}) {
    TestModel model(name == "ResNet" ? "Classify" : "Track", name, network);
    model.setInput(8, 8);
    model.setClasses({"a", "b", "c"});
    ASSERT_TRUE(model.init());
    Thirds thirds;
    thirds.frame.wantedLabels = {"a"};
    thirds.frame.objects.push_back(boxObject(50, 0, 70, 20));
    const std::string before = bytesOf(thirds.frame);
    EXPECT_THROW(model.run(&thirds.frame), cv::Exception) << name;
    EXPECT_EQ(bytesOf(thirds.frame), before) << name;
    thirds.frame.objects.pop_back();
    EXPECT_TRUE(model.run(&thirds.frame)) << name;
    EXPECT_EQ(thirds.frame.objects.size(), 3U) << name;
  }
}

/// Writes a network whose output is its input without the first `begin` floats.
std::string writeEcho(int width, int height, int begin, bool dynamic = false) {
  const ov::PartialShape shape =
      dynamic ? ov::PartialShape{-1, 3, -1, -1} : ov::PartialShape{1, 3, height, width};
  return writeNetwork(shape, [&](const Value& input) {
    return Values{sliced(reshaped(input, {1, 3 * width * height}), 1, begin, 3 * width * height)};
  });
}

TEST(Embeddings, AreTheFirstFloatsOfTheOutput) {
  struct Case {
    const char* name;
    void (*fit)(const cv::Mat&, cv::Size, float*);
    std::size_t length;
  };
  const cv::Size input(16, 24);  // 1152 floats; the network returns all but the first 700
  for (const Case& c :
       {Case{"DeepSort", FitToInputNormalized, 256}, {"VsFaceNet", FitToInput, 128}}) {
    for (const bool dynamic : {false, true}) {
      TestModel model("Track", c.name, writeEcho(input.width, input.height, 700, dynamic));
      model.setInput(16, 24);
      ASSERT_TRUE(model.init());
      cv::Mat image = randomImage(60, 50, 23);
      VsaFrame frame = frameOf(image);
      frame.objects = {boxObject(1, 2, 21, 30, "first"), boxObject(0, 0, 60, 50),
                       boxObject(5, 5, 9, 7)};
      frame.objects[1].feature.assign(1000, 5.0F);
      const float* const kept = frame.objects[1].feature.data();
      for (int run = 0; run < 2; ++run) {
        EXPECT_TRUE(model.feature(frame));
        ASSERT_EQ(frame.objects.size(), 3U);
        for (const VsaObject& object : frame.objects) {
          std::vector<float> planes(static_cast<std::size_t>(3 * input.area()));
          c.fit(regionOf(image, object), input, planes.data());
          const std::vector<float> expected(
              planes.begin() + 700, planes.begin() + 700 + static_cast<std::ptrdiff_t>(c.length));
          EXPECT_EQ(object.feature, expected);
        }
        EXPECT_EQ(frame.objects[1].feature.data(), kept) << "the memory of the vector is kept";
        EXPECT_EQ(frame.objects[1].feature.capacity(), 1000U);
      }
      EXPECT_EQ(frame.objects[0].className, "first");
      frame.objects.clear();
      EXPECT_TRUE(model.feature(frame));
    }
  }
}

TEST(OvFeatureVsOCR, UsesLayoutOfOutputOrLeavesTextEmpty) {
  // Three steps with the classes 2, 2 and 1, and the same transposed.
  const std::vector<float> rows = {0, 0, 1, 0, 0, 0, 1, 0, 0, 1, 0, 0};
  const std::vector<float> columns = {0, 0, 0, 0, 0, 1, 1, 1, 0, 0, 0, 0};
  const std::string file = "Core/OpenVINO/OvFeatureVsOCR: ";
  struct Case {
    ov::Shape shape;
    const std::vector<float>& values;
    std::string text;
    Texts lines;  ///< One per object.
  };
  const Case cases[] = {{{1, 3, 4}, rows, "ba", {}},
                        {{1, 4, 3}, columns, "ba", {}},
                        {{2, 3, 2}, rows, "", Texts(2, file + "[E]Unknown output format!")},
                        {{12}, rows, "", Texts(2, file + "[E]Unsupported shape!")}};
  for (const Case& c : cases) {
    TestModel model("Track", "VsOCR", writeConstant({1, 3, 8, 8}, c.shape, c.values));
    model.setInput(8, 8);
    model.setClasses({"-", "a", "b", "c"});
    ASSERT_TRUE(model.init());
    cv::Mat image = randomImage(60, 50);
    VsaFrame frame = frameOf(image);
    frame.objects = {boxObject(0, 0, 60, 50), boxObject(3, 3, 9, 9)};
    frame.objects[1].text = "old";
    LogCapture log;
    EXPECT_TRUE(model.feature(frame));
    EXPECT_EQ(log.takeLines(), c.lines);
    for (const VsaObject& object : frame.objects) {
      EXPECT_EQ(object.text, c.text) << c.shape;
      EXPECT_EQ(object.textId, 0);
      EXPECT_EQ(object.textScore, 1.0F);
    }
  }
}

}  // namespace
