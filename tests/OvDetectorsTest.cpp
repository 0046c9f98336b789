// The YOLO detectors on OpenVINO, through the exported calls.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <openvino/opsets/opset8.hpp>
#include <thread>

#include "Utils/MaskOutline.h"
#include "support/LogCapture.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

using Texts = std::vector<std::string>;
using Table = std::vector<std::vector<float>>;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

std::vector<float> flat(const Table& rows) {
  std::vector<float> numbers;
  for (const auto& row : rows) numbers.insert(numbers.end(), row.begin(), row.end());
  return numbers;
}

/// [1, rows, columns] as given, or turned round: one candidate per column.
std::string rowsNetwork(const Table& rows) {
  return writeConstant({1, 3, 64, 64}, {1, rows.size(), rows.at(0).size()}, flat(rows));
}
Table turned(const Table& rows) {
  Table columns(rows.at(0).size(), std::vector<float>(rows.size()));
  for (std::size_t r = 0; r < rows.size(); ++r) {
    for (std::size_t c = 0; c < columns.size(); ++c) columns[c][r] = rows[r][c];
  }
  return columns;
}

/// A model on a 64 x 64 input, and a frame twice that size, so boxes double.
struct Bench {
  Bench(const std::string& name, const std::string& network, std::vector<std::string> classes)
      : model("Detect", name, network), image(randomImage(128, 128)), frame(frameOf(image)) {
    frame.wantedClasses = {classes.begin(), classes.end()};
    model.setInput(64, 64);
    model.setClasses(std::move(classes));
  }
  bool run() {
    if (model.context.models == nullptr) {
      EXPECT_TRUE(model.init());
    }
    LogCapture log;
    const bool done = model.detect(frame);
    lines = log.texts();
    return done;
  }

  TestModel model;
  cv::Mat image;
  VsaFrame frame;
  Texts lines;
};

TEST(OvDetectYolo8, SuppressesAcrossClassesThenFiltersAndAppends) {
  Bench bench("YOLO8",
              rowsNetwork(turned({{32, 32, 20, 20, 0.5F, 0},  // suppressed by the next, of an unwanted class
                                  {33, 32, 20, 20, 0, 0.75F},
                                  {1, 1, 10, 10, 0.5F, 0.1F},  // over the borders
                                  {63, 63, 10, 10, 0.75F, 0},
                                  {50, 10, 8, 8, 0.25F, 0}})),  // equals the threshold
              {"cat", "dog"});
  bench.image = randomImage(128, 120);
  bench.frame = frameOf(bench.image, {"cat"});
  EXPECT_TRUE(bench.run());
  EXPECT_TRUE(bench.run());
  EXPECT_EQ(bench.lines, Texts{});
  const Boxes once = {{116, 116, 128, 120}, {0, 0, 12, 12}};
  EXPECT_EQ(boxesOf(bench.frame), (Boxes{once[0], once[1], once[0], once[1]}));
  const VsaObject& object = bench.frame.objects.at(2);
  EXPECT_EQ(object.score, 0.75F);
  EXPECT_EQ(object.className, "cat");
  EXPECT_EQ(object.classId, 0);
  EXPECT_EQ(object.angle, -1.0F);
  EXPECT_EQ(object.imageWidth, 128);
  EXPECT_EQ(object.imageHeight, 120);
}

TEST(OvDetectYolo8, ClassesWithoutANameAreLeftOutAfterSuppression) {
  const Table rows = {{32, 32, 20, 20, 0.5F, 0}, {33, 32, 20, 20, 0, 0.75F}, {8, 8, 4, 4, 0.5F, 0}};
  Bench bench("YOLO8", rowsNetwork(turned(rows)), {"cat"});
  bench.model.config.classCount = 2;
  bench.frame.wantedClasses = {"cat", ""};
  EXPECT_TRUE(bench.run());
  EXPECT_EQ(boxesOf(bench.frame), (Boxes{{12, 12, 20, 20}}));
}

TEST(OvDetectYolo8, ABadBoxFailsItsFrameOnly) {
  // Centre x is red over red: 1 where the frame is red, NaN where it is black.
  Bench bench("YOLO8",
              writeNetwork({1, 3, 64, 64},
                           [](const ov::Output<ov::Node>& input) {
                             const auto red = reshaped(sliced(reshaped(input, {3 * 64 * 64}), 0, 0, 1), {1, 1, 1});
                             const auto one = std::make_shared<ov::opset8::Divide>(red, red);
                             return ov::OutputVector{std::make_shared<ov::opset8::Concat>(
                                 ov::OutputVector{one, floats({1, 4, 1}, {4, 2, 2, 0.5F})}, 1)};
                           }),
              {"a"});
  bench.image.setTo(cv::Scalar::all(0));
  EXPECT_FALSE(bench.run());
  ASSERT_EQ(bench.lines.size(), 1U);
  EXPECT_TRUE(bench.lines[0].starts_with("[E]candidate 0 is out of range: ")) << bench.lines[0];
  bench.image.setTo(cv::Scalar::all(255));
  EXPECT_TRUE(bench.run());
  EXPECT_EQ(bench.frame.objects.size(), 1U);
}

TEST(OvDetectYolo8, TwoContextsRunAtOnce) {
  cv::Mat image = randomImage(200, 100);
  const auto work = [&image](int place) {
    TestModel model("Detect", "YOLO8", rowsNetwork(turned({{static_cast<float>(place), 8, 4, 4, 1}})));
    model.setInput(64, 64);
    model.setClasses({"a"});
    ASSERT_TRUE(model.init());
    for (int i = 0; i < 50; ++i) {
      VsaFrame frame = frameOf(image, {"a"});
      ASSERT_TRUE(model.detect(frame));
      ASSERT_EQ(frame.objects.size(), 1U);
      ASSERT_EQ(frame.objects[0].left, static_cast<int>(static_cast<float>(place - 2) * 3.125F));
    }
  };
  std::thread other(work, 40);
  work(10);
  other.join();
}

TEST(OvDetectYolo5, ReportsTheObjectnessAndSuppressesByIt) {
  Bench bench("YOLO5",
              rowsNetwork({{32, 32, 20, 20, 0.5F, 0.9F, 0},
                           {33, 32, 20, 20, 0.6F, 0, 0.3F},
                           {8, 8, 4, 4, 0.25F, 0.9F, 0},
                           {60, 60, 20, 20, 0.7F, 0.9F, 0}}),
              {"a", "b"});
  bench.model.config.objThreshold = 0.25F;
  EXPECT_TRUE(bench.run());
  // The third is above the thresholds, but its objectness only equals the class threshold that
  // suppression applies.
  EXPECT_EQ(boxesOf(bench.frame), (Boxes{{100, 100, 128, 128}, {46, 44, 86, 84}}));
  EXPECT_EQ(bench.frame.objects.at(1).score, 0.6F);
  EXPECT_EQ(bench.frame.objects.at(1).className, "b");

  bench.frame.objects.clear();
  bench.frame.wantedClasses = {"a"};
  EXPECT_TRUE(bench.run());
  EXPECT_EQ(boxesOf(bench.frame), (Boxes{{100, 100, 128, 128}}));
}

TEST(OvDetectYolo5, ShowsTheNetworkBlueFirst) {
  // One row whose objectness is the first plane's first value, and whose class scores are those of
  // the others.
  const auto network = writeNetwork({1, 3, 64, 64}, [](const ov::Output<ov::Node>& input) {
    const auto corner = reshaped(sliced(sliced(input, 2, 0, 1), 3, 0, 1), {1, 1, 3});
    return ov::OutputVector{
        std::make_shared<ov::opset8::Concat>(ov::OutputVector{floats({1, 1, 4}, {32, 32, 20, 20}), corner}, 2)};
  });
  Bench bench("YOLO5", network, {"green", "red"});
  bench.model.config.scoreThreshold = 0.1F;
  bench.image.setTo(cv::Scalar(204, 51, 102));  // blue 0.8, green 0.2, red 0.4
  EXPECT_TRUE(bench.run());
  ASSERT_EQ(bench.frame.objects.size(), 1U);
  EXPECT_NEAR(bench.frame.objects[0].score, 0.8F, 0.003F);
  EXPECT_EQ(bench.frame.objects[0].className, "red");
}

TEST(OvDetectYolo26, ScalesEachCornerAndKeepsRowOrder) {
  Bench bench(
      "YOLO26",
      rowsNetwork(
          {{1.4F, 2.6F, 10.3F, 20.2F, 0.5F, 1}, {1.4F, 2.6F, 10.3F, 20.2F, 0.9F, 0}, {-5, -5, 80, 80, 0.7F, 1}}),
      {"a", "b"});
  EXPECT_TRUE(bench.run());
  EXPECT_EQ(boxesOf(bench.frame), (Boxes{{2, 5, 20, 40}, {2, 5, 20, 40}, {0, 0, 128, 128}}));
  Bench bad("YOLO26", rowsNetwork({{1, 2, kNan, 4, 0.5F, 0}}), {"a"});
  EXPECT_FALSE(bad.run());
  ASSERT_EQ(bad.lines.size(), 1U);
  EXPECT_TRUE(bad.lines[0].starts_with("[E]candidate 0 is out of range: 2.0")) << bad.lines[0];
}

TEST(OvDetectYolo8Obb, CarriesTheAngleOfTheSurvivor) {
  Bench bench("YOLO8-OBB",
              rowsNetwork(turned({{9, 9, 9, 9, 0.1F, 0, 3},
                                  {32, 32, 20, 10, 0.5F, 0, 0.1F},
                                  {33, 32, 20, 10, 0, 0.75F, -7.5F},
                                  {8, 8, 4, 4, 0.6F, 0, kNan}})),
              {"a", "b"});
  EXPECT_TRUE(bench.run());
  EXPECT_EQ(boxesOf(bench.frame), (Boxes{{46, 54, 86, 74}, {12, 12, 20, 20}}));
  EXPECT_EQ(bench.frame.objects.at(0).angle, -7.5F);  // as the network gave it
  EXPECT_TRUE(std::isnan(bench.frame.objects.at(1).angle));
}

TEST(OvDetectYolo8Pose, ReportsKeyPointsUnclampedAndWithoutAFilter) {
  // Two key points: x, y, visibility each.
  const Table rows = {{32, 32, 20.6F, 20.6F, 0.5F, -3.3F, 70.7F, 0, 10.4F, 10.6F, kNan},
                      {33, 32, 20, 20, 0.75F, 1, 1, 1, 2, 2, 1},
                      {60, 60, 20, 20, 0.25F, 0, 0, 0, 0, 0, 0}};
  Bench bench("YOLO8-POSE", rowsNetwork(turned({rows[2], rows[0]})), {"person", "other"});
  bench.model.config.classCount = 2;
  bench.frame.wantedClasses.clear();
  EXPECT_TRUE(bench.run());
  ASSERT_EQ(bench.frame.objects.size(), 1U);
  const VsaObject& object = bench.frame.objects[0];
  EXPECT_EQ(boxOf(object), (std::vector<int>{43, 43, 84, 84}));  // (32 - 10.3) * 2 = 43.4, 41.2 wide
  EXPECT_EQ(object.className, "person");
  EXPECT_EQ(object.classId, 0);
  ASSERT_EQ(object.shapes.size(), 1U);
  EXPECT_EQ(object.shapes[0].tag, 5);
  ASSERT_EQ(object.shapes[0].points.size(), 2U);
  EXPECT_EQ(object.shapes[0].points[0].x, -6);
  EXPECT_EQ(object.shapes[0].points[0].y, 141);
  EXPECT_EQ(object.shapes[0].points[1].x, 20);

  Bench both("YOLO8-POSE", rowsNetwork(turned(rows)), {"person"});
  both.model.config.classCount = 2;
  EXPECT_TRUE(both.run());
  ASSERT_EQ(both.frame.objects.size(), 1U);
  EXPECT_EQ(both.frame.objects[0].score, 0.75F);

  // Without key points the list is there and empty.
  Bench none("YOLO8-POSE", rowsNetwork(turned({{32, 32, 20, 20, 0.5F}})), {"thing"});
  none.model.config.classCount = 0;
  EXPECT_TRUE(none.run());
  EXPECT_TRUE(none.frame.objects.at(0).shapes.at(0).points.empty());
  Bench bad("YOLO8-POSE", rowsNetwork(turned({{32, 32, 20, 20, 0.5F, 1, kNan, 0, 1, 1, 1}})), {"thing"});
  bad.model.config.classCount = 2;
  EXPECT_FALSE(bad.run());
  EXPECT_EQ(bad.lines.size(), 1U);
}

/// Prototypes of 16 x 12, each 10 inside its rectangles and -10 elsewhere.
std::vector<float> prototypesOf(const std::vector<std::vector<cv::Rect>>& masks, std::size_t count = 32) {
  std::vector<float> planes(count * 192, -10.0F);
  for (std::size_t i = 0; i < masks.size(); ++i) {
    cv::Mat plane(12, 16, CV_32FC1, planes.data() + i * 192);
    for (const cv::Rect& part : masks[i]) plane(part).setTo(10.0F);
  }
  return planes;
}

/// A segmentation network of 64 x 48; candidate i's mask is prototype i.
std::string segmentationNetwork(const Table& rows, const std::vector<float>& prototypes) {
  Table columns = rows;
  for (std::size_t i = 0; i < columns.size(); ++i) {
    for (std::size_t k = 0; k < 32; ++k) columns[i].push_back(k == i ? 1.0F : 0.0F);
  }
  columns = turned(columns);
  return writeNetwork({1, 3, 48, 64}, [&](const ov::Output<ov::Node>&) {
    return ov::OutputVector{floats({1, columns.size(), columns[0].size()}, flat(columns)),
                            floats({1, prototypes.size() / 192, 12, 16}, prototypes)};
  });
}

TEST(OvDetectYolo8Seg, ReportsTheOutlineOfTheLargestPartInsideTheBox) {
  using namespace TolCompatibleLib;
  const std::vector<float> prototypes = prototypesOf({{}, {{4, 3, 10, 4}, {6, 8, 1, 1}}, {}, {{13, 9, 3, 3}}, {}});
  Bench bench("YOLO8-Seg",
              segmentationNetwork({{9, 9, 9, 9, 0.1F, 0.2F},         // below the threshold
                                   {28.5F, 22.5F, 11, 23, 0, 0.9F},  // a mask that goes on outside its box, and a dot
                                   {50, 10, 8, 8, 0.8F, 0},          // no mask pixel above one half
                                   {60, 44, 30, 30, 0.7F, 0},        // over the corner
                                   {90, 90, 8, 8, 0.6F, 0}},         // outside
                                  prototypes),
              {"a", "b"});
  bench.model.setInput(64, 48);
  bench.image = randomImage(100, 75);
  const VsaFrame fresh = frameOf(bench.image, {"a", "b"});
  bench.frame = fresh;
  EXPECT_TRUE(bench.run());
  // The scale is 100 / 48; edges are scaled as a whole: 34 * 2.0833 = 70.8, where 11 * 2.0833 + 47
  // would be 69.9.
  ASSERT_EQ(boxesOf(bench.frame), (Boxes{{47, 22, 70, 70}, {93, 60, 100, 75}}));
  const VsaObject& object = bench.frame.objects[0];
  EXPECT_EQ(object.className, "b");
  EXPECT_EQ(object.classId, 1);
  EXPECT_EQ(object.score, 0.9F);
  ASSERT_EQ(object.shapes.size(), 1U);
  EXPECT_EQ(object.shapes[0].tag, 10);
  MaskCoefficients coefficients{};
  coefficients[1] = 1.0F;
  std::vector<cv::Point> expected =
      maskOutline({prototypes.data(), {16, 12}}, coefficients, {23, 11, 11, 23}, {64, 48});
  EXPECT_FALSE(expected.empty());
  for (cv::Point& point : expected) {
    point = {static_cast<int>(static_cast<float>(point.x) * (100.0F / 48)),
             static_cast<int>(static_cast<float>(point.y) * (100.0F / 48))};
  }
  std::vector<cv::Point> outline;
  for (const VsaPoint& point : object.shapes[0].points) outline.emplace_back(point.x, point.y);
  EXPECT_EQ(outline, expected);

  bench.frame = fresh;
  bench.frame.wantedClasses.clear();
  EXPECT_TRUE(bench.run());
  EXPECT_TRUE(bench.frame.objects.empty());
}

TEST(OvDetectYolo8Seg, RefusesOtherNumbersOfPrototypes) {
  const Table rows = {{24, 28, 16, 16, 0.9F}};
  const std::pair<std::size_t, const char*> cases[] = {{16, "[E]Yolo8-Seg mask coeffs dimensions error:16"},
                                                       {64, "[E]Yolo8-Seg mask coeffs dimensions error:64"}};
  for (const auto& [count, line] : cases) {
    Bench bench("YOLO8-Seg", segmentationNetwork(rows, prototypesOf({}, count)), {"a"});
    bench.model.setInput(64, 48);
    EXPECT_FALSE(bench.run());
    EXPECT_EQ(bench.lines, Texts{line});
    // The detection output is looked at first.
    bench.model.setClasses({"a", "b"});
    EXPECT_FALSE(bench.run());
    EXPECT_EQ(bench.lines, Texts{"[E]Yolo8-Seg dimensions error:37"});
  }
}

}  // namespace
