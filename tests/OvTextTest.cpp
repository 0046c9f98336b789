// The text detector and the text recogniser through the exported functions, on tiny networks.

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "support/LogCapture.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

const ov::PartialShape kAnySize{1, 3, -1, -1};

/// Writes a text detector whose output is the first plane of its input.
std::string writeFirstPlaneDetector() {
  return writeNetwork(kAnySize, [](const Value& input) { return Values{sliced(input, 1, 0, 1)}; });
}

/// Describes the objects that a text detector appends.
Texts detect(TestModel& model, cv::Mat image) {
  EXPECT_TRUE(model.context.models != nullptr || model.init());
  VsaFrame frame = frameOf(image);  // wants no class, which this detector ignores
  frame.objects = {boxObject(0, 0, 1, 1, "before")};
  LogCapture log;
  EXPECT_TRUE(model.detect(frame));
  EXPECT_EQ(log.takeTexts(), Texts{});
  EXPECT_EQ(frame.objects.at(0).className, "before");
  frame.objects.erase(frame.objects.begin());
  return describe(frame.objects);
}

TEST(OvDetectPaddleOCR, RegionsAtTheBorderEndAtTheLastPixel) {
  TestModel model("Detect", "PaddleOCR",
                  writeFirstPlaneDetector());  // without class names, objects have none
  EXPECT_EQ(detect(model, cv::Mat(64, 64, CV_8UC3, cv::Scalar(255, 255, 255))),
            Texts{" 0 2.24891: 0,0 63,0 of 64x64 corners 63,63 0,63"});
}

TEST(OvDetectPaddleOCR, ScoreThresholdOfZeroMeansSixTenths) {
  const std::tuple<float, float, std::size_t> cases[] = {
      {0.59F, 0.0F, 0U}, {0.61F, -1.0F, 1U}, {0.45F, 0.4F, 1U}};
  for (const auto& [probability, threshold, count] : cases) {
    TestModel model("Detect", "PaddleOCR",
                    writeConstant(kAnySize, {1, 1, 16, 16}, std::vector<float>(256, probability)));
    model.config.scoreThreshold = threshold;
    EXPECT_EQ(detect(model, randomImage(32, 32)).size(), count) << probability;
  }
}

TEST(OvDetectPaddleOCR, ShrinksToConfiguredWidthAndScoresEachRegion) {
  std::vector<float> map(32 * 64, 0.0F);
  cv::Mat plane(32, 64, CV_32FC1, map.data());
  plane(cv::Rect(4, 4, 20, 6)).setTo(0.875F);
  plane(cv::Rect(40, 20, 20, 6)).setTo(0.75F);
  TestModel model("Detect", "PaddleOCR", writeConstant(kAnySize, {1, 1, 32, 64}, map));
  model.setInput(64, 7);  // the height is ignored
  // The lowest region comes first. 19 x 5 grows by 19 * 5 * 2 / 48 = 3.958 on each side; one pixel
  // of the map is three pixels of the frame.
  EXPECT_EQ(detect(model, randomImage(192, 96)),
            (Texts{" 0 0.75: 108,48 189,48 of 192x96 corners 189,87 108,87",
                   " 0 0.875: 0,0 81,0 of 192x96 corners 81,39 0,39"}));
}

TEST(OvDetectPaddleOCR, EngineRefusesOtherSizesForFixedInput) {
  TestModel model("Detect", "PaddleOCR",
                  writeConstant({1, 3, 32, 32}, {1, 1, 32, 32}, std::vector<float>(1024, 0.9F)));
  ASSERT_TRUE(model.init());
  EXPECT_THROW(detect(model, randomImage(64, 64)), ov::Exception);
  EXPECT_EQ(detect(model, randomImage(32, 32)).size(), 1U);
  // The default limit of the longer side is 960.
  TestModel wide("Detect", "PaddleOCR",
                 writeConstant({1, 3, 32, 960}, {1, 1, 32, 960}, std::vector<float>(30720)));
  EXPECT_EQ(detect(wide, randomImage(1000, 32)), Texts{});
}

/// A recogniser of three classes. The scores at step x are blue, green and red of column x in the
/// first row of its input.
struct ColourReader : TestModel {
  explicit ColourReader(std::vector<std::string> names = {"blank", "g", "r"})
      : TestModel("Track", "PaddleOCR", writeNetwork({1, 3, 48, 320}, [](const Value& input) {
                    const auto line = reshaped(sliced(input, 2, 0, 1), {1, 3, 320});
                    return Values{transposed(line, {0, 2, 1})};
                  })) {
    setClasses(std::move(names));  // the default size is 320 x 48
    EXPECT_TRUE(init());
  }
};

const cv::Scalar kBlue(255, 0, 0), kGreen(0, 255, 0), kRed(0, 0, 255);

/// Vertical bands of 20 columns and 48 rows; the input has the same height, so they are not scaled.
cv::Mat bands(const std::vector<cv::Scalar>& colours) {
  cv::Mat image(49, 20 * static_cast<int>(colours.size()) + 1, CV_8UC3, cv::Scalar::all(0));
  for (std::size_t i = 0; i < colours.size(); ++i) {
    image(cv::Rect(20 * static_cast<int>(i), 0, 20, 49)).setTo(colours[i]);
  }
  return image;
}

/// Recognises the text of each region; returns class name and text of each object.
Texts read(ColourReader& model, cv::Mat image, const std::vector<VsaObject>& regions) {
  VsaFrame frame = frameOf(image);
  frame.objects = regions;
  LogCapture log;
  EXPECT_TRUE(model.feature(frame));
  EXPECT_EQ(log.takeTexts(), Texts{});
  Texts texts;
  for (const VsaObject& object : frame.objects) {
    EXPECT_EQ(std::tie(object.textId, object.textScore), std::tuple(0, 1.0F));
    texts.push_back(object.className + object.text);
  }
  return texts;
}

TEST(OvFeaturePaddleOCR, UsesCornersOnlyIfAllAreSet) {
  ColourReader model;
  VsaObject quadrilateral = boxObject(2, 0, 59, 3);
  quadrilateral.cornerX2 = 60;
  quadrilateral.cornerY2 = 48;
  quadrilateral.cornerX3 = 0;
  quadrilateral.cornerY3 = 47;
  VsaObject incomplete = quadrilateral;
  incomplete.cornerY3 = -1;
  incomplete.right = 20;
  // The second region is the box: columns 2 to 19, rows 0 to 2.
  EXPECT_EQ(read(model, bands({kGreen, kRed, kGreen}), {quadrilateral, incomplete}),
            (Texts{"grg", "g"}));
}

TEST(OvFeaturePaddleOCR, RegionsEndBeforeLastPixelOfTheFrame) {
  // The last of 41 columns is red. A region up to the right border ends before it, so no red is
  // read.
  ColourReader model;
  cv::Mat image = bands({kGreen, kGreen});
  image.col(40).setTo(kRed);
  EXPECT_EQ(read(model, image, {boxObject(0, 0, 41, 49)}), Texts{"g"});
  EXPECT_EQ(read(model, cv::Mat(), {}), Texts{});  // without objects, the pixels are not checked
}

TEST(OvFeaturePaddleOCR, DropsRegionsWithoutPixels) {
  ColourReader model;
  constexpr int kMax = std::numeric_limits<int>::max();
  constexpr int kMin = std::numeric_limits<int>::min();
  std::vector<VsaObject> regions;
  Texts expected;
  for (const VsaObject& degenerate :
       {boxObject(5, 5, 5, 20), boxObject(20, 20, 5, 5), boxObject(500, 0, 600, 40),
        boxObject(-40, 0, 0, 40), boxObject(0, 0, 40, -3), boxObject(kMax, kMax, kMin, kMin)}) {
    regions.push_back(degenerate);
    regions.push_back(boxObject(kMin, 0, kMax, kMax, std::to_string(expected.size())));
    expected.push_back(regions.back().className + "rg");
  }
  EXPECT_EQ(read(model, bands({kRed, kGreen}), regions), expected);
}

TEST(OvFeaturePaddleOCR, SingleNamePaddleocrSelectsBuiltInDictionary) {
  const std::tuple<std::vector<std::string>, std::string, std::string> cases[] = {
      {{"paddleocr"}, "hardcoded PaddleOCR character dictionary with 6624", "'\xC1\xC6"},
      {{"paddleocr2"}, "custom character dictionary with 1", ""},
      {{"paddleocr", "a"}, "custom character dictionary with 2", "a"}};
  for (const auto& [names, line, text] : cases) {
    LogCapture log;
    ColourReader model(names);
    EXPECT_EQ(log.takeLines().at(2),
              "Core/OpenVINO/OvFeaturePaddleOCR: [I]Using " + line + " characters");
    EXPECT_EQ(read(model, bands({kGreen, kRed}), {boxObject(0, 0, 40, 48)}), Texts{text});
  }
}

}  // namespace
