// The YOLO detectors on OpenVINO, through the exported functions.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

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

/// Writes a network with the output [1, rows, columns].
std::string writeRows(const Table& rows) {
  return writeConstant({1, 3, 64, 64}, {1, rows.size(), rows.at(0).size()}, flat(rows));
}

/// One candidate per column instead of one per row.
Table transposed(const Table& rows) {
  Table columns(rows.at(0).size(), std::vector<float>(rows.size()));
  for (std::size_t r = 0; r < rows.size(); ++r) {
    for (std::size_t c = 0; c < columns.size(); ++c) columns[c][r] = rows[r][c];
  }
  return columns;
}

/// A model with an input of 64 x 64 and a frame of twice that size, so the scale is 2.
struct Fixture {
  Fixture(const std::string& name, const std::string& network, std::vector<std::string> classes)
      : model("Detect", name, network), image(randomImage(128, 128)), frame(frameOf(image)) {
    frame.wantedClasses = {classes.begin(), classes.end()};
    model.setInput(64, 64);
    model.setClasses(std::move(classes));
  }
  /// Runs the model, which must succeed, and describes the objects.
  Texts detect() {
    EXPECT_EQ(run(), Texts{});
    return describe(frame.objects);
  }
  /// Runs the model, which must fail with one line of its file, and returns the text of that line.
  std::string fail() {
    static const std::map<std::string, std::string> kFiles = {
        {"YOLO8", "OvDetectYolo8"},          {"YOLO5", "OvDetectYolo5"},
        {"YOLO26", "OvDetectYolo26"},        {"YOLO8-OBB", "OvDetectYolo8Obb"},
        {"YOLO8-POSE", "OvDetectYolo8Pose"}, {"YOLO8-Seg", "OvDetectYolo8Seg"}};
    const std::string file = "Core/OpenVINO/" + kFiles.at(model.config.modelName) + ": ";
    const std::string before = bytesOf(frame);
    const Texts lines = run();
    EXPECT_EQ(bytesOf(frame), before);
    EXPECT_EQ(lines.size(), 1U);
    const std::string line = lines.empty() ? "" : lines[0];
    EXPECT_EQ(line.substr(0, file.size()), file);
    return line.substr(std::min(line.size(), file.size()));
  }

  TestModel model;
  cv::Mat image;
  VsaFrame frame;

 private:
  /// Returns the log lines; a run logs one if it fails and none otherwise.
  Texts run() {
    EXPECT_TRUE(model.context.models != nullptr || model.init());
    LogCapture log;
    const bool succeeded = model.detect(frame);
    Texts lines = log.takeLines();
    EXPECT_EQ(succeeded, lines.empty());
    return lines;
  }
};

TEST(OvDetectYolo8, SuppressesAcrossClassesThenFiltersAndAppends) {
  const Table candidates = {{32, 32, 20, 20, 0.5F, 0},   // suppressed by the next one
                            {33, 32, 20, 20, 0, 0.75F},  // of an unwanted class
                            {1, 1, 10, 10, 0.5F, 0.1F},  // past the border
                            {63, 63, 10, 10, 0.75F, 0},  // past the opposite border
                            {50, 10, 8, 8, 0.25F, 0}};   // score equal to the threshold
  Fixture fixture("YOLO8", writeRows(transposed(candidates)), {"cat", "dog"});
  fixture.image = randomImage(128, 120);
  fixture.frame = frameOf(fixture.image, {"cat", ""});
  const Texts once = {"cat 0 0.75: 116,116 128,120 of 128x120", "cat 0 0.5: 0,0 12,12 of 128x120"};
  EXPECT_EQ(fixture.detect(), once);
  EXPECT_EQ(fixture.detect(), (Texts{once[0], once[1], once[0], once[1]}));
  // A candidate of a class without a name suppresses others, too.
  fixture.model.config.classNames = {"cat"};
  fixture.frame.objects.clear();
  EXPECT_EQ(fixture.detect(), once);
}

TEST(OvDetectYolo8, BadBoxFailsItsFrameOnly) {
  // Red selects the centres of the boxes, green their sizes, blue their scores. A byte of 2 stands
  // for NaN, the others for small numbers.
  Fixture fixture("YOLO8", writeFamilyNetwork(findFamily("OpenVINO", "Detect", "YOLO8")),
                  {"a", "b"});
  fixture.model.setInput(8, 6);
  fixture.image.setTo(cv::Scalar(255, 20, 2));
  EXPECT_TRUE(fixture.fail().starts_with("[E]candidate 0 is out of range: "));
  fixture.image.setTo(cv::Scalar(255, 20, 40));
  EXPECT_EQ(fixture.detect().size(), 1U);
}

TEST(OvDetectYolo5, FeedsBlueFirst) {
  // One candidate. Its objectness is the first value of the first plane, its class scores are those
  // of the other planes.
  const auto network = writeNetwork({1, 3, 64, 64}, [](const Value& input) {
    const auto pixel = reshaped(sliced(sliced(input, 2, 0, 1), 3, 0, 1), {1, 1, 3});
    return Values{concatenated({floats({1, 1, 4}, {32, 32, 20, 20}), pixel}, 2)};
  });
  Fixture fixture("YOLO5", network, {"green", "red"});
  fixture.model.config.scoreThreshold = 0.1F;
  fixture.image.setTo(cv::Scalar(204, 51, 102));  // blue 0.8, green 0.2, red 0.4
  EXPECT_EQ(fixture.detect(), Texts{"red 1 0.8: 44,44 84,84 of 128x128"});
}

TEST(OvDetectYolo8Obb, ReportsAngleOfTheSurvivor) {
  const Table candidates = {{9, 9, 9, 9, 0.1F, 0, 3},
                            {32, 32, 20, 10, 0.5F, 0, 0.1F},
                            {33, 32, 20, 10, 0, 0.75F, -7.5F},
                            {8, 8, 4, 4, 0.6F, 0, kNan}};
  Fixture fixture("YOLO8-OBB", writeRows(transposed(candidates)), {"a", "b"});
  // The angle of the network, unchanged.
  EXPECT_EQ(fixture.detect(), (Texts{"b 1 0.75: 46,54 86,74 of 128x128 angle -7.5",
                                     "a 0 0.6: 12,12 20,20 of 128x128 angle nan"}));
}

struct PoseFixture : Fixture {
  PoseFixture(const Table& candidates, std::uint32_t keyPoints)
      : Fixture("YOLO8-POSE", writeRows(transposed(candidates)), {"person", "other"}) {
    model.config.classCount = keyPoints;
    frame.wantedClasses.clear();
  }
};

TEST(OvDetectYolo8Pose, ReportsKeyPointsUnclampedAndUnfiltered) {
  // Two key points of x, y and visibility.
  const std::vector<float> person = {32,    32, 20.6F, 20.6F, 0.5F, -3.3F,
                                     70.7F, 0,  10.4F, 10.6F, kNan};
  const std::vector<float> better = {33, 32, 20, 20, 0.75F, 1, 1, 1, 2, 2, 1};
  const std::vector<float> atThreshold = {60, 60, 20, 20, 0.25F, 0, 0, 0, 0, 0, 0};
  const std::vector<float> badPoint = {32, 32, 20, 20, 0.5F, 1, kNan, 0, 1, 1, 1};
  // The left edge is (32 - 10.3) * 2 = 43.4, the width 41.2.
  EXPECT_EQ(PoseFixture({atThreshold, person}, 2).detect(),
            Texts{"person 0 0.5: 43,43 84,84 of 128x128 shape 5: -6,141 20,21"});
  EXPECT_EQ(PoseFixture({person, better}, 2).detect(),
            Texts{"person 0 0.75: 46,44 86,84 of 128x128 shape 5: 2,2 4,4"});
  // Without key points, the object has an empty list of them.
  EXPECT_EQ(PoseFixture({{32, 32, 20, 20, 0.5F}}, 0).detect(),
            Texts{"person 0 0.5: 44,44 84,84 of 128x128 shape 5:"});
  EXPECT_EQ(PoseFixture({badPoint}, 2).fail(),
            "[E]key point of candidate 0 is out of range:2.000000,nan");
}

/// Prototypes of 16 x 12 that are 10 inside their rectangles and -10 elsewhere.
std::vector<float> prototypesOf(const std::vector<std::vector<cv::Rect>>& masks,
                                std::size_t count = 32) {
  std::vector<float> planes(count * 192, -10.0F);
  for (std::size_t i = 0; i < masks.size(); ++i) {
    cv::Mat plane(12, 16, CV_32FC1, planes.data() + i * 192);
    for (const cv::Rect& part : masks[i]) plane(part).setTo(10.0F);
  }
  return planes;
}

/// Writes a segmentation network with an input of 64 x 48; the mask of candidate i is prototype i.
std::string writeSegmentation(const Table& rows, const std::vector<float>& prototypes) {
  Table columns = rows;
  for (std::size_t i = 0; i < columns.size(); ++i) {
    for (std::size_t k = 0; k < 32; ++k) columns[i].push_back(k == i ? 1.0F : 0.0F);
  }
  columns = transposed(columns);
  return writeNetwork({1, 3, 48, 64}, [&](const Value&) {
    return Values{floats({1, columns.size(), columns[0].size()}, flat(columns)),
                  floats({1, prototypes.size() / 192, 12, 16}, prototypes)};
  });
}

TEST(Detectors, BoxOutsideInt32FailsTheFrame) {
  // The scale is 2, so 2^30 becomes 2^31.
  constexpr float kLarge = 1073741824.0F;
  const auto failureOf = [](const std::string& name, const std::string& network) {
    Fixture fixture(name, network, {"a"});
    if (name == "YOLO8-POSE") fixture.model.config.classCount = 0;
    if (name == "YOLO8-Seg") fixture.model.setInput(64, 48);
    return fixture.fail();
  };
  const std::string range = "[E]candidate 0 is out of range: ";
  const std::string line = range + "2147483648.000000 16.000000 2147483648.000000 24.000000";
  const Table large = {{kLarge, 10, 4, 4, 0.5F}, {10, 10, 4, 4, 0.9F}};
  const Table largeObb = {{kLarge, 10, 4, 4, 0.5F, 0}, {10, 10, 4, 4, 0.9F, 0}};
  const Table large5 = {{kLarge, 10, 4, 4, 0.5F, 0.9F}, {10, 10, 4, 4, 0.9F, 0.9F}};
  EXPECT_EQ(failureOf("YOLO8", writeRows(transposed(large))), line);
  EXPECT_EQ(failureOf("YOLO8-OBB", writeRows(transposed(largeObb))), line);
  EXPECT_EQ(failureOf("YOLO5", writeRows(large5)), line);
  EXPECT_TRUE(failureOf("YOLO26", writeRows({{1, 2, kNan, 4, 0.5F, 0}})).starts_with(range + "2"));
  // The left edge fits into an int, the right one does not.
  EXPECT_EQ(failureOf("YOLO8-POSE", writeRows(transposed({{kLarge, 10, 512, 4, 0.5F}}))),
            range + "2147483136.000000 16.000000 2147484160.000000 24.000000");
  const Table left = {{2 * kLarge - 256, 10, 512, 4, 0.5F}};
  EXPECT_TRUE(failureOf("YOLO8-Seg", writeSegmentation(left, prototypesOf({}))).starts_with(range));
  const Table wide = {{8, 8, 1.75F * kLarge, 16, 0.5F}};
  const std::vector<float> full = prototypesOf({{{0, 0, 16, 12}}});
  EXPECT_TRUE(failureOf("YOLO8-Seg", writeSegmentation(wide, full)).starts_with(range));
}

TEST(OvDetectYolo8Seg, ReportsOutlineOfLargestPartInsideTheBox) {
  using namespace TolCompatibleLib;
  const std::vector<float> prototypes =
      prototypesOf({{}, {{4, 3, 10, 4}, {6, 8, 1, 1}}, {}, {{13, 9, 3, 3}}, {}});
  Fixture fixture("YOLO8-Seg",
                  writeSegmentation({{9, 9, 9, 9, 0.1F, 0.2F},  // below the threshold
                                     {28.5F, 22.5F, 11, 23, 0,
                                      0.9F},  // a mask that extends past its box, and a dot
                                     {50, 10, 8, 8, 0.8F, 0},    // no mask pixel above one half
                                     {60, 44, 30, 30, 0.7F, 0},  // extends past the corner
                                     {90, 90, 8, 8, 0.6F, 0}},   // outside
                                    prototypes),
                  {"a", "b"});
  fixture.model.setInput(64, 48);
  fixture.image = randomImage(100, 75);
  fixture.frame = frameOf(fixture.image, {"a", "b"});
  const Texts objects = fixture.detect();
  MaskCoefficients coefficients{};
  coefficients[1] = 1.0F;
  std::string outline;
  std::vector<std::uint8_t> memory;
  for (const cv::Point& point : maskOutline({prototypes.data(), {16, 12}}, coefficients,
                                            {23, 11, 11, 23}, {64, 48}, memory)) {
    outline += " " + std::to_string(static_cast<int>(static_cast<float>(point.x) * (100.0F / 48))) +
               "," + std::to_string(static_cast<int>(static_cast<float>(point.y) * (100.0F / 48)));
  }
  // The scale is 100 / 48. The right edge is scaled as a sum: 34 * 2.0833 = 70.8; the scaled width
  // added to the left edge would give 11 * 2.0833 + 47 = 69.9.
  ASSERT_EQ(objects.size(), 2U);
  EXPECT_EQ(objects[0], "b 1 0.9: 47,22 70,70 of 100x75 shape 10:" + outline);
  EXPECT_TRUE(objects[1].starts_with("a 0 0.7: 93,60 100,75 of 100x75 shape 10: "));

  fixture.frame = frameOf(fixture.image);  // wants no class
  EXPECT_EQ(fixture.detect(), Texts{});
}

TEST(OvDetectYolo8Seg, RefusesOtherNumbersOfPrototypes) {
  const Table candidates = {{24, 28, 16, 16, 0.9F}};
  for (const std::size_t count : {16U, 64U}) {
    Fixture fixture("YOLO8-Seg", writeSegmentation(candidates, prototypesOf({}, count)), {"a"});
    fixture.model.setInput(64, 48);
    EXPECT_EQ(fixture.fail(), "[E]Yolo8-Seg mask coeffs dimensions error:" + std::to_string(count));
    // The detection output is checked first.
    fixture.model.setClasses({"a", "b"});
    EXPECT_EQ(fixture.fail(), "[E]Yolo8-Seg dimensions error:37");
  }
}

}  // namespace
