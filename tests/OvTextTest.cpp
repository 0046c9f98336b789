// The text detector and the text recogniser through the exported calls, on networks of a few nodes.

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>
#include <openvino/opsets/opset8.hpp>

#include "support/LogCapture.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

using Texts = std::vector<std::string>;

const ov::PartialShape kAnySize{1, 3, -1, -1};

/// A text detector that takes the first plane of its input for the probability.
std::string firstPlaneDetector() {
  return writeNetwork(kAnySize,
                      [](const ov::Output<ov::Node>& input) { return ov::OutputVector{sliced(input, 1, 0, 1)}; });
}

std::vector<int> cornersOf(const VsaObject& o) {
  return {o.left, o.top, o.right, o.bottom, o.cornerX2, o.cornerY2, o.cornerX3, o.cornerY3};
}

TEST(OvDetectPaddleOCR, FindsBlueBecauseBlueIsTheFirstPlane) {
  TestModel model("Detect", "PaddleOCR", firstPlaneDetector());
  model.setClasses({"text"});
  ASSERT_TRUE(model.init());
  cv::Mat image(64, 96, CV_8UC3, cv::Scalar(0, 0, 0));
  image(cv::Rect(20, 30, 40, 10)).setTo(cv::Scalar(255, 0, 0));
  image(cv::Rect(0, 50, 90, 10)).setTo(cv::Scalar(0, 255, 255));
  VsaFrame frame = frameOf(image);  // wants no class, which this detector does not ask
  LogCapture log;
  EXPECT_TRUE(model.detect(frame));
  EXPECT_TRUE(model.detect(frame));
  EXPECT_EQ(log.texts(), Texts{});
  ASSERT_EQ(frame.objects.size(), 2U);
  const VsaObject& object = frame.objects[1];
  EXPECT_EQ(cornersOf(object), (std::vector<int>{13, 23, 66, 23, 66, 46, 13, 46}));
  EXPECT_FLOAT_EQ(object.score, (1.0F - 0.485F) / 0.229F);
  EXPECT_EQ(object.className, "text");
  EXPECT_EQ(object.classId, 0);
  EXPECT_EQ(object.angle, -1.0F);
  EXPECT_EQ(object.imageWidth, 96);
  EXPECT_EQ(object.imageHeight, 64);
}

TEST(OvDetectPaddleOCR, RegionsAtTheBorderEndOnTheLastPixel) {
  TestModel model("Detect", "PaddleOCR", firstPlaneDetector());
  ASSERT_TRUE(model.init());  // no class names: objects have none
  cv::Mat image(64, 64, CV_8UC3, cv::Scalar(255, 255, 255));
  VsaFrame frame = frameOf(image);
  EXPECT_TRUE(model.detect(frame));
  ASSERT_EQ(frame.objects.size(), 1U);
  EXPECT_EQ(cornersOf(frame.objects[0]), (std::vector<int>{0, 0, 63, 0, 63, 63, 0, 63}));
  EXPECT_EQ(frame.objects[0].className, "");
}

TEST(OvDetectPaddleOCR, AScoreThresholdOfZeroMeansSixTenths) {
  const auto regions = [](float probability, float threshold) {
    TestModel model("Detect", "PaddleOCR",
                    writeConstant(kAnySize, {1, 1, 16, 16}, std::vector<float>(256, probability)));
    model.config.scoreThreshold = threshold;
    EXPECT_TRUE(model.init());
    cv::Mat image = randomImage(32, 32);
    VsaFrame frame = frameOf(image);
    EXPECT_TRUE(model.detect(frame));
    return frame.objects.size();
  };
  EXPECT_EQ(regions(0.59F, 0.0F), 0U);
  EXPECT_EQ(regions(0.61F, -1.0F), 1U);
  EXPECT_EQ(regions(0.45F, 0.4F), 1U);
}

TEST(OvDetectPaddleOCR, ShrinksToTheConfiguredWidthAndScoresEachRegion) {
  std::vector<float> map(32 * 64, 0.0F);
  cv::Mat plane(32, 64, CV_32FC1, map.data());
  plane(cv::Rect(4, 4, 20, 6)).setTo(0.875F);
  plane(cv::Rect(30, 20, 20, 6)).setTo(0.75F);
  TestModel model("Detect", "PaddleOCR", writeConstant(kAnySize, {1, 1, 32, 64}, map));
  model.setInput(64, 7);  // the height is not asked for
  ASSERT_TRUE(model.init());
  cv::Mat image = randomImage(192, 96);
  VsaFrame frame = frameOf(image);
  EXPECT_TRUE(model.detect(frame));
  ASSERT_EQ(frame.objects.size(), 2U);
  // Found from the bottom. 19 x 5 grows by 19 * 5 * 2 / 48 = 3.958 on each side; three frame pixels
  // a map pixel.
  EXPECT_EQ(cornersOf(frame.objects[0]), (std::vector<int>{78, 48, 159, 48, 159, 87, 78, 87}));
  EXPECT_EQ(frame.objects[0].score, 0.75F);
  EXPECT_EQ(frame.objects[1].score, 0.875F);
  EXPECT_EQ(frame.objects[1].top, 0);
}

TEST(OvDetectPaddleOCR, ANetworkOfAFixedSizeIsTheEnginesToRefuse) {
  TestModel model("Detect", "PaddleOCR", writeConstant({1, 3, 32, 32}, {1, 1, 32, 32}, std::vector<float>(1024, 0.9F)));
  ASSERT_TRUE(model.init());
  cv::Mat large = randomImage(64, 64);
  VsaFrame frame = frameOf(large);
  EXPECT_THROW(model.detect(frame), ov::Exception);
  cv::Mat small = randomImage(32, 32);
  VsaFrame next = frameOf(small);
  EXPECT_TRUE(model.detect(next));
  EXPECT_EQ(next.objects.size(), 1U);
}

/// A recogniser of three classes whose scores at step x are blue, green and red of column x, first row of its input.
struct ColourReader : TestModel {
  explicit ColourReader(std::vector<std::string> names = {"blank", "g", "r"})
      : TestModel("Track", "PaddleOCR", writeNetwork({1, 3, 48, 320}, [](const ov::Output<ov::Node>& input) {
                    const auto line = reshaped(sliced(input, 2, 0, 1), {1, 3, 320});
                    return ov::OutputVector{transposed(line, {0, 2, 1})};
                  })) {
    setClasses(std::move(names));  // sizes of 0 mean 320 x 48
    EXPECT_TRUE(init());
  }
};

const cv::Scalar kBlue(255, 0, 0), kGreen(0, 255, 0), kRed(0, 0, 255);

/// Bands of 20 columns over the whole height, 48 rows: as wide in the frame as in a network of that
/// height.
cv::Mat bands(const std::vector<cv::Scalar>& colours) {
  cv::Mat image(49, 20 * static_cast<int>(colours.size()) + 1, CV_8UC3, cv::Scalar::all(0));
  for (std::size_t i = 0; i < colours.size(); ++i) {
    image(cv::Rect(20 * static_cast<int>(i), 0, 20, 49)).setTo(colours[i]);
  }
  return image;
}

TEST(OvFeaturePaddleOCR, ReadsTheRegionLeftToRightInTheFramesOwnChannelOrder) {
  LogCapture log;
  ColourReader model;
  const Texts lines = log.texts();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[2], "[I]Using custom character dictionary with 3 characters");

  cv::Mat image = bands({kGreen, kBlue, kGreen, kRed, kRed, kBlue});
  VsaFrame frame = frameOf(image);
  frame.objects = {boxObject(0, 0, 200, 48), boxObject(-5, -5, 40, 48), boxObject(40, 0, 200, 60)};
  EXPECT_TRUE(model.feature(frame));
  ASSERT_EQ(frame.objects.size(), 3U);
  EXPECT_EQ(frame.objects[0].text, "ggr");
  EXPECT_EQ(frame.objects[1].text, "g");
  EXPECT_EQ(frame.objects[2].text, "gr");
  for (const VsaObject& object : frame.objects) {
    EXPECT_EQ(object.textId, 0);
    EXPECT_EQ(object.textScore, 1.0F);
  }
  EXPECT_EQ(log.texts(), Texts{});
}

TEST(OvFeaturePaddleOCR, CornersGiveTheRegionOnlyWhenAllAreThere) {
  ColourReader model;
  cv::Mat image = bands({kGreen, kRed, kGreen});
  VsaObject quadrilateral = boxObject(2, 0, 59, 3);
  quadrilateral.cornerX2 = 60, quadrilateral.cornerY2 = 48;
  quadrilateral.cornerX3 = 0, quadrilateral.cornerY3 = 47;
  VsaObject partly = quadrilateral;
  partly.cornerY3 = -1;
  partly.right = 20;
  VsaFrame frame = frameOf(image);
  frame.objects = {quadrilateral, partly};
  EXPECT_TRUE(model.feature(frame));
  ASSERT_EQ(frame.objects.size(), 2U);
  EXPECT_EQ(frame.objects[0].text, "grg");
  EXPECT_EQ(frame.objects[1].text, "g");  // the box alone: columns 2 to 19, rows 0 to 2
}

TEST(OvFeaturePaddleOCR, RegionsEndBeforeTheLastPixelOfTheFrame) {
  // 41 columns, the last one red: a region to the right border ends before it, so no red is read.
  ColourReader model;
  cv::Mat image = bands({kGreen, kGreen});
  image.col(40).setTo(kRed);
  VsaFrame frame = frameOf(image);
  frame.objects = {boxObject(0, 0, 41, 49)};
  EXPECT_TRUE(model.feature(frame));
  EXPECT_EQ(frame.objects.at(0).text, "g");
  // Without objects not even the pixels are looked at.
  frame.objects.clear();
  frame.data = nullptr;
  EXPECT_TRUE(model.feature(frame));
}

TEST(OvFeaturePaddleOCR, RegionsWithoutPixelsAreDropped) {
  ColourReader model;
  cv::Mat image = bands({kRed, kGreen});
  VsaFrame frame = frameOf(image);
  const int most = std::numeric_limits<int>::max();
  const int least = std::numeric_limits<int>::min();
  for (const VsaObject& degenerate :
       {boxObject(5, 5, 5, 20), boxObject(20, 20, 5, 5), boxObject(500, 0, 600, 40), boxObject(-40, 0, 0, 40),
        boxObject(0, 0, 40, -3), boxObject(most, most, least, least)}) {
    frame.objects.push_back(degenerate);
    frame.objects.push_back(boxObject(least, 0, most, most));
  }
  frame.objects[3].className = "kept";
  EXPECT_TRUE(model.feature(frame));
  ASSERT_EQ(frame.objects.size(), 6U);
  for (const VsaObject& object : frame.objects) EXPECT_EQ(object.text, "rg");
  EXPECT_EQ(frame.objects[1].className, "kept");
}

TEST(OvFeaturePaddleOCR, OneNameChoosesTheBuiltInDictionary) {
  LogCapture log;
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"paddleocr"}, "hardcoded PaddleOCR character dictionary with 6624"},
      {{"PaddleOCR"}, "custom character dictionary with 1"},
      {{"paddleocr", "a"}, "custom character dictionary with 2"},
      {{}, "custom character dictionary with 0"}};
  for (const auto& [names, text] : cases) {
    log.take();
    ColourReader model(names);
    EXPECT_EQ(log.texts().at(2), "[I]Using " + text + " characters");
    cv::Mat image = bands({kGreen, kRed});
    VsaFrame frame = frameOf(image);
    frame.objects = {boxObject(0, 0, 40, 48)};
    EXPECT_TRUE(model.feature(frame));
    const bool builtIn = names.size() == 1 && names[0] == "paddleocr";
    EXPECT_EQ(frame.objects.at(0).text, builtIn ? "'\xC1\xC6" : names.size() == 2 ? "a" : "");
  }
}

}  // namespace
