// The YOLO detectors on OpenVINO, through the exported calls.

#include <gtest/gtest.h>

#include <algorithm>
#include <openvino/opsets/opset8.hpp>

#include "Utils/MaskOutline.h"
#include "support/LogCapture.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

using Table = std::vector<std::vector<float>>;

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
  /// The lines of a run, which fails where there is one.
  Texts run() {
    EXPECT_TRUE(model.context.models != nullptr || model.init());
    LogCapture log;
    const bool done = model.detect(frame);
    Texts lines = log.takeTexts();
    EXPECT_EQ(lines.size(), done ? 0U : 1U);
    return lines;
  }

  TestModel model;
  cv::Mat image;
  VsaFrame frame;
};

TEST(OvDetectYolo8, SuppressesAcrossClassesThenFiltersAndAppends) {
  Bench bench("YOLO8",
              rowsNetwork(turned(
                  {{32, 32, 20, 20, 0.5F, 0},  // suppressed by the next, of an unwanted class
                   {33, 32, 20, 20, 0, 0.75F},
                   {1, 1, 10, 10, 0.5F, 0.1F},  // over the borders
                   {63, 63, 10, 10, 0.75F, 0},
                   {50, 10, 8, 8, 0.25F, 0}})),  // equals the threshold
              {"cat", "dog"});
  bench.image = randomImage(128, 120);
  bench.frame = frameOf(bench.image, {"cat", ""});
  const Texts once = {"cat 0 0.75: 116,116 128,120 of 128x120", "cat 0 0.5: 0,0 12,12 of 128x120"};
  EXPECT_EQ(bench.run(), Texts{});
  EXPECT_EQ(bench.run(), Texts{});
  EXPECT_EQ(describe(bench.frame.objects), (Texts{once[0], once[1], once[0], once[1]}));
  // A class without a name suppresses like any other.
  bench.model.config.classNames = {"cat"};
  bench.frame.objects.clear();
  EXPECT_EQ(bench.run(), Texts{});
  EXPECT_EQ(describe(bench.frame.objects), once);
}

TEST(OvDetectYolo8, ABadBoxFailsItsFrameOnly) {
  // Red is where the boxes are, green how large, blue their scores; a byte of 2 stands for NaN, the
  // others for small numbers.
  Bench bench("YOLO8", writeFamilyNetwork(findFamily("OpenVINO", "Detect", "YOLO8")), {"a", "b"});
  bench.model.setInput(8, 6);
  bench.image.setTo(cv::Scalar(255, 20, 2));
  EXPECT_TRUE(bench.run().at(0).starts_with("[E]candidate 0 is out of range: "));
  bench.image.setTo(cv::Scalar(255, 20, 40));
  EXPECT_EQ(bench.run(), Texts{});
  EXPECT_EQ(bench.frame.objects.size(), 1U);
}

TEST(OvDetectYolo5, ShowsTheNetworkBlueFirst) {
  // One row whose objectness is the first plane's first value, and whose class scores are those of
  // the others.
  const auto network = writeNetwork({1, 3, 64, 64}, [](const ov::Output<ov::Node>& input) {
    const auto corner = reshaped(sliced(sliced(input, 2, 0, 1), 3, 0, 1), {1, 1, 3});
    return ov::OutputVector{std::make_shared<ov::opset8::Concat>(
        ov::OutputVector{floats({1, 1, 4}, {32, 32, 20, 20}), corner}, 2)};
  });
  Bench bench("YOLO5", network, {"green", "red"});
  bench.model.config.scoreThreshold = 0.1F;
  bench.image.setTo(cv::Scalar(204, 51, 102));  // blue 0.8, green 0.2, red 0.4
  EXPECT_EQ(bench.run(), Texts{});
  EXPECT_EQ(describe(bench.frame.objects), Texts{"red 1 0.8: 44,44 84,84 of 128x128"});
}

TEST(OvDetectYolo8Obb, CarriesTheAngleOfTheSurvivor) {
  Bench bench("YOLO8-OBB",
              rowsNetwork(turned({{9, 9, 9, 9, 0.1F, 0, 3},
                                  {32, 32, 20, 10, 0.5F, 0, 0.1F},
                                  {33, 32, 20, 10, 0, 0.75F, -7.5F},
                                  {8, 8, 4, 4, 0.6F, 0, kNan}})),
              {"a", "b"});
  EXPECT_EQ(bench.run(), Texts{});
  // As the network gave it.
  EXPECT_EQ(describe(bench.frame.objects), (Texts{"b 1 0.75: 46,54 86,74 of 128x128 angle -7.5",
                                                  "a 0 0.6: 12,12 20,20 of 128x128 angle nan"}));
}

TEST(OvDetectYolo8Pose, ReportsKeyPointsUnclampedAndWithoutAFilter) {
  // Two key points: x, y, visibility each.
  const std::vector<float> person = {32,    32, 20.6F, 20.6F, 0.5F, -3.3F,
                                     70.7F, 0,  10.4F, 10.6F, kNan};
  const std::vector<float> better = {33, 32, 20, 20, 0.75F, 1, 1, 1, 2, 2, 1};
  const std::vector<float> atThreshold = {60, 60, 20, 20, 0.25F, 0, 0, 0, 0, 0, 0};
  const std::vector<float> badPoint = {32, 32, 20, 20, 0.5F, 1, kNan, 0, 1, 1, 1};
  const auto outcome = [](const Table& rows, std::uint32_t keyPoints) {
    Bench bench("YOLO8-POSE", rowsNetwork(turned(rows)), {"person", "other"});
    bench.model.config.classCount = keyPoints;
    bench.frame.wantedClasses.clear();
    const Texts lines = bench.run();
    return lines.empty() ? describe(bench.frame.objects) : lines;
  };
  // (32 - 10.3) * 2 = 43.4, 41.2 wide.
  EXPECT_EQ(outcome({atThreshold, person}, 2),
            Texts{"person 0 0.5: 43,43 84,84 of 128x128 shape 5: -6,141 20,21"});
  EXPECT_EQ(outcome({person, better}, 2),
            Texts{"person 0 0.75: 46,44 86,84 of 128x128 shape 5: 2,2 4,4"});
  // Without key points the list is there and empty.
  EXPECT_EQ(outcome({{32, 32, 20, 20, 0.5F}}, 0),
            Texts{"person 0 0.5: 44,44 84,84 of 128x128 shape 5:"});
  EXPECT_EQ(outcome({badPoint}, 2),
            Texts{"[E]key point of candidate 0 is out of range:2.000000,nan"});
}

/// Prototypes of 16 x 12, each 10 inside its rectangles and -10 elsewhere.
std::vector<float> prototypesOf(const std::vector<std::vector<cv::Rect>>& masks,
                                std::size_t count = 32) {
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

TEST(Detectors, RefuseTheFrameIfABoxLeavesInt32) {
  // In a frame twice the size of the input, 2^30 becomes 2^31.
  constexpr float kLarge = 1073741824.0F;
  const auto linesOf = [](const std::string& name, const std::string& network) {
    Bench bench(name, network, {"a"});
    if (name == "YOLO8-POSE") bench.model.config.classCount = 0;
    if (name == "YOLO8-Seg") bench.model.setInput(64, 48);
    const Texts lines = bench.run();
    EXPECT_TRUE(bench.frame.objects.empty()) << name;
    return lines;
  };
  const Table large = {{kLarge, 10, 4, 4, 0.5F}, {10, 10, 4, 4, 0.9F}};
  const Texts line = {
      "[E]candidate 0 is out of range: 2147483648.000000 16.000000 2147483648.000000 24.000000"};
  EXPECT_EQ(linesOf("YOLO8", rowsNetwork(turned(large))), line);
  EXPECT_EQ(linesOf("YOLO8-OBB",
                    rowsNetwork(turned({{kLarge, 10, 4, 4, 0.5F, 0}, {10, 10, 4, 4, 0.9F, 0}}))),
            line);
  EXPECT_EQ(
      linesOf("YOLO5", rowsNetwork({{kLarge, 10, 4, 4, 0.5F, 0.9F}, {10, 10, 4, 4, 0.9F, 0.9F}})),
      line);
  EXPECT_EQ(linesOf("YOLO26", rowsNetwork({{1, 2, kNan, 4, 0.5F, 0}})).at(0).substr(0, 33),
            "[E]candidate 0 is out of range: 2");
  // The left edge fits, the right one does not.
  EXPECT_EQ(linesOf("YOLO8-POSE", rowsNetwork(turned({{kLarge, 10, 512, 4, 0.5F}}))),
            Texts{"[E]candidate 0 is out of range: 2147483136.000000 16.000000 2147484160.000000 "
                  "24.000000"});
  EXPECT_EQ(linesOf("YOLO8-Seg",
                    segmentationNetwork({{2 * kLarge - 256, 10, 512, 4, 0.5F}}, prototypesOf({})))
                .size(),
            1U);
  EXPECT_EQ(linesOf("YOLO8-Seg", segmentationNetwork({{8, 8, 1.75F * kLarge, 16, 0.5F}},
                                                     prototypesOf({{{0, 0, 16, 12}}})))
                .size(),
            1U);
}

TEST(OvDetectYolo8Seg, ReportsTheOutlineOfTheLargestPartInsideTheBox) {
  using namespace TolCompatibleLib;
  const std::vector<float> prototypes =
      prototypesOf({{}, {{4, 3, 10, 4}, {6, 8, 1, 1}}, {}, {{13, 9, 3, 3}}, {}});
  Bench bench("YOLO8-Seg",
              segmentationNetwork({{9, 9, 9, 9, 0.1F, 0.2F},  // below the threshold
                                   {28.5F, 22.5F, 11, 23, 0,
                                    0.9F},  // a mask that goes on outside its box, and a dot
                                   {50, 10, 8, 8, 0.8F, 0},    // no mask pixel above one half
                                   {60, 44, 30, 30, 0.7F, 0},  // over the corner
                                   {90, 90, 8, 8, 0.6F, 0}},   // outside
                                  prototypes),
              {"a", "b"});
  bench.model.setInput(64, 48);
  bench.image = randomImage(100, 75);
  bench.frame = frameOf(bench.image, {"a", "b"});
  EXPECT_EQ(bench.run(), Texts{});
  MaskCoefficients coefficients{};
  coefficients[1] = 1.0F;
  std::string outline;
  std::vector<std::uint8_t> memory;
  for (const cv::Point& point : maskOutline({prototypes.data(), {16, 12}}, coefficients,
                                            {23, 11, 11, 23}, {64, 48}, memory)) {
    outline += " " + std::to_string(static_cast<int>(static_cast<float>(point.x) * (100.0F / 48))) +
               "," + std::to_string(static_cast<int>(static_cast<float>(point.y) * (100.0F / 48)));
  }
  // The scale is 100 / 48; edges are scaled as a whole: 34 * 2.0833 = 70.8, where 11 * 2.0833 + 47
  // would be 69.9.
  ASSERT_EQ(bench.frame.objects.size(), 2U);
  EXPECT_EQ(describe(bench.frame.objects[0]), "b 1 0.9: 47,22 70,70 of 100x75 shape 10:" + outline);
  EXPECT_TRUE(
      describe(bench.frame.objects[1]).starts_with("a 0 0.7: 93,60 100,75 of 100x75 shape 10: "));

  bench.frame = frameOf(bench.image);
  EXPECT_EQ(bench.run(), Texts{});
  EXPECT_EQ(describe(bench.frame.objects), Texts{});
}

TEST(OvDetectYolo8Seg, RefusesOtherNumbersOfPrototypes) {
  const Table rows = {{24, 28, 16, 16, 0.9F}};
  const std::pair<std::size_t, const char*> cases[] = {
      {16, "[E]Yolo8-Seg mask coeffs dimensions error:16"},
      {64, "[E]Yolo8-Seg mask coeffs dimensions error:64"}};
  for (const auto& [count, line] : cases) {
    Bench bench("YOLO8-Seg", segmentationNetwork(rows, prototypesOf({}, count)), {"a"});
    bench.model.setInput(64, 48);
    EXPECT_EQ(bench.run(), Texts{line});
    // The detection output is looked at first.
    bench.model.setClasses({"a", "b"});
    EXPECT_EQ(bench.run(), Texts{"[E]Yolo8-Seg dimensions error:37"});
  }
}

}  // namespace
