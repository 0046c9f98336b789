// The YOLO decoder on tables typed by hand, and the numbers on their way to an integer.

#include "Utils/YoloDecode.h"

#include <gtest/gtest.h>

#include <limits>

#include "Utils/Numbers.h"

namespace {

using namespace TolCompatibleLib;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

TEST(Numbers, TruncationIsDefinedForEveryFloat) {
  constexpr int kMost = std::numeric_limits<int>::max();
  constexpr int kLeast = std::numeric_limits<int>::min();
  const std::pair<float, int> cases[] = {{2.9F, 2},
                                         {-2.9F, -2},
                                         {-0.5F, 0},
                                         {0.0F, 0},
                                         {2e9F, 2000000000},
                                         {2147483648.0F, kMost},
                                         {-2147483648.0F, kLeast},
                                         {3e38F, kMost},
                                         {-3e38F, kLeast},
                                         {kInf, kMost},
                                         {-kInf, kLeast},
                                         {kNan, 0},
                                         {2147483520.0F, 2147483520}};
  for (const auto& [value, expected] : cases) EXPECT_EQ(truncateToInt(value), expected) << value;
}

TEST(Yolo8Decode, TakesTheFirstBestClassAboveTheThreshold) {
  // Five candidates of three classes, one per column.
  const std::vector<float> output = {10,    10.9F, 20,    30,   40,   // centre x
                                     10,    10,    20,    30,   40,   // centre y
                                     4,     5,     4,     4,    4,    // width
                                     4,     5,     4,     4,    4,    // height
                                     0,     0.5F,  0.25F, kNan, -1,   // class 0
                                     0.75F, 0.5F,  0.25F, 0.5F, -2,   // class 1
                                     0.75F, 0.1F,  0.1F,  kNan, -3};  // class 2
  const Candidates found = decodeYolo8({output.data(), 7, 5}, 3, 0.25F);
  EXPECT_EQ(found.places, (std::vector<int>{0, 1, 3}));    // 0.25 is not above 0.25
  EXPECT_EQ(found.classIds, (std::vector<int>{1, 0, 1}));  // ties go to the lower class
  EXPECT_EQ(found.scores, (std::vector<float>{0.75F, 0.5F, 0.5F}));
  EXPECT_EQ(found.boxes[1], cv::Rect(8, 7, 5, 5));  // 8.4 and 7.5, truncated
  EXPECT_FALSE(found.badBox);
}

TEST(FloatGrid, MaximaAreThoseOfOpenCv) {
  cv::RNG random(3);
  for (const cv::Size size : {cv::Size(1, 1), {700, 3}, {511, 20}, {1537, 80}, {5, 33}}) {
    cv::Mat table(size, CV_32FC1);
    // Few different values, so that there are ties.
    random.fill(table, cv::RNG::UNIFORM, 0, 40);
    table = table / 40.0F;
    const FloatGrid grid{table.ptr<float>(), size.height, size.width};
    const auto found = columnsAbove(grid, 0, size.height, 0.9F);
    std::size_t next = 0;
    for (int c = 0; c < size.width; ++c) {
      double most = 0;
      cv::Point place;
      cv::minMaxLoc(table.col(c), nullptr, &most, nullptr, &place);
      if (!(most > 0.9F)) continue;
      ASSERT_LT(next, found.size());
      EXPECT_EQ(found[next].column, c);
      EXPECT_EQ(found[next].row, place.y);
      EXPECT_EQ(found[next++].value, static_cast<float>(most));
    }
    EXPECT_EQ(next, found.size());
    for (int r = 0; r < size.height; ++r) {
      cv::Point place;
      cv::minMaxLoc(table.row(r), nullptr, nullptr, nullptr, &place);
      EXPECT_EQ(firstMaximum(grid.row(r), size.width), place.x);
    }
  }
}

TEST(FloatGrid, MaximaBelowZeroAndBesideNanAreFound) {
  for (const int count : {1, 16, 17, 31, 33}) {
    std::vector<float> values(static_cast<std::size_t>(count), -2.0F);
    EXPECT_EQ(firstMaximum(values.data(), count), 0);
    values.back() = -1.0F;
    values.front() = count > 1 ? kNan : -1.0F;
    EXPECT_EQ(firstMaximum(values.data(), count), count - 1);
    const FloatGrid column{values.data(), count, 1};
    ASSERT_EQ(columnsAbove(column, count - 1, 1, -1.5F).size(), 1U);
    EXPECT_EQ(columnsAbove(column, 0, count, -1.5F).at(0).row, count - 1);
  }
  EXPECT_EQ(firstMaximum(nullptr, 0), 0);
  const std::vector<float> zeros = {-1.0F, -0.0F, 0.0F};
  EXPECT_EQ(firstMaximum(zeros.data(), 3), 1);
}

TEST(Yolo8Decode, NoClassesNoColumnsAndANanThresholdGiveNothing) {
  const std::vector<float> output = {1, 1, 1, 1, 1};
  EXPECT_TRUE(decodeYolo8({output.data(), 4, 1}, 0, -1.0F).boxes.empty());
  EXPECT_TRUE(decodeYolo8({output.data(), 5, 0}, 1, 0.1F).boxes.empty());
  EXPECT_TRUE(decodeYolo8({output.data(), 5, 1}, 1, kNan).boxes.empty());
}

TEST(Yolo8Decode, ABoxThatNoIntegerHoldsIsReportedOnlyWhenItsScorePasses) {
  for (const float bad : {kNan, kInf, -kInf, 1e30F, -5e9F}) {
    for (std::size_t row = 0; row < 4; ++row) {
      std::vector<float> output = {8, 8, 8, 8, 8, 8, 8, 8, 0.5F, 0.5F};
      output[row * 2 + 1] = bad;
      const Candidates found = decodeYolo8({output.data(), 5, 2}, 1, 0.25F);
      ASSERT_TRUE(found.badBox.has_value());
      EXPECT_EQ(found.badBox->place, 1);
      output[9] = 0.25F;
      EXPECT_FALSE(decodeYolo8({output.data(), 5, 2}, 1, 0.25F).badBox);
    }
  }
  const std::vector<float> largest = {0, 0, 2147483520.0F, 2, 1};
  EXPECT_EQ(decodeYolo8({largest.data(), 5, 1}, 1, 0.5F).boxes.at(0).width, 2147483520);
}

TEST(Yolo5Decode, ObjectnessCountsTwiceAndClassScoresOnce) {
  // centre x, centre y, width, height, objectness, two class scores
  const std::vector<float> output = {10, 10, 5, 5, 0.5F,  0.25F, 0.3F,   // kept: objectness may equal its threshold
                                     10, 10, 5, 5, 0.49F, 0.9F,  0.9F,   // objectness too small
                                     10, 10, 5, 5, 0.9F,  0.25F, 0.1F,   // the best class only equals the threshold
                                     10, 10, 5, 5, kNan,  0.9F,  0.9F,   //
                                     10, 10, 5, 5, 0.9F,  kNan,  kNan,   //
                                     20, 20, 3, 3, 0.6F,  0.7F,  0.7F};  // ties go to the lower class
  const Candidates found = decodeYolo5({output.data(), 6, 7}, 2, 0.5F, 0.25F);
  EXPECT_EQ(found.places, (std::vector<int>{0, 5}));
  EXPECT_EQ(found.classIds, (std::vector<int>{1, 0}));
  EXPECT_EQ(found.scores, (std::vector<float>{0.5F, 0.6F}));  // the objectness alone
  EXPECT_EQ(found.boxes, (std::vector<cv::Rect>{{7, 7, 5, 5}, {18, 18, 3, 3}}));
  EXPECT_TRUE(decodeYolo5({output.data(), 0, 7}, 2, 0.5F, 0.25F).boxes.empty());
  EXPECT_TRUE(decodeYolo5({output.data(), 6, 5}, 0, 0.0F, 0.0F).boxes.empty());
}

TEST(Yolo8PoseDecode, BoxesAreScaledBeforeTheyAreTruncated) {
  const std::vector<float> output = {5.3F, 5.3F, 5.3F, 5.3F, 3, 3, 3, 3, 0.5F, 0.25F};
  const Candidates found = decodeYolo8Pose({output.data(), 5, 2}, 0.25F, 3.0F);
  ASSERT_EQ(found.places, (std::vector<int>{0}));
  EXPECT_EQ(found.boxes[0], cv::Rect(11, 11, 9, 9));  // (5.3 - 1.5) * 3 = 11.4; truncating first would give 9
}

struct Yolo26Case {
  const char* what;
  std::vector<float> row;
  int classId;  ///< Of the object, or -1 for none.
};

TEST(Yolo26Decode, ClassIdsAreTruncatedAndCheckedAndNothingIsSuppressed) {
  VsaModelConfig config;
  config.classNames = {"a", "b", "c"};
  config.classCount = 4;
  config.scoreThreshold = 0.25F;
  VsaFrame frame;
  frame.width = 100;
  frame.height = 120;
  frame.wantedClasses = {"a", "c", ""};
  const Yolo26Case cases[] = {{"kept", {10, 10, 20, 20, 0.5F, 0}, 0},
                              {"the same again", {10, 10, 20, 20, 0.5F, 0}, 0},
                              {"fraction dropped", {10, 10, 20, 20, 0.5F, 2.9F}, 2},
                              {"fraction dropped toward zero", {10, 10, 20, 20, 0.5F, -0.5F}, 0},
                              {"negative class", {10, 10, 20, 20, 0.5F, -1}, -1},
                              {"class without a name", {10, 10, 20, 20, 0.5F, 3}, -1},
                              {"class past the count", {10, 10, 20, 20, 0.5F, 4}, -1},
                              {"unwanted", {kNan, 10, 20, 20, 0.5F, 1}, -1},
                              {"score equal to the threshold", {10, 10, 20, 20, 0.25F, 0}, -1},
                              {"score is no number", {10, 10, 20, 20, kNan, kNan}, -1}};
  std::vector<float> output;
  std::vector<int> expected;
  for (const Yolo26Case& c : cases) {
    output.insert(output.end(), c.row.begin(), c.row.end());
    if (c.classId >= 0) expected.push_back(c.classId);
  }
  const Yolo26Objects found = decodeYolo26({output.data(), static_cast<int>(std::size(cases)), 6}, 1.5F, config, frame);
  EXPECT_FALSE(found.badBox);
  std::vector<int> classIds;
  for (const VsaObject& object : found.objects) classIds.push_back(object.classId);
  EXPECT_EQ(classIds, expected);
  EXPECT_EQ(found.objects.at(0).left, 15);
  EXPECT_EQ(found.objects.at(0).bottom, 30);

  for (const std::vector<float>& bad :
       {std::vector<float>{1, 1, 2, kInf, 0.5F, 0}, {1, 1, 2, 2, 0.5F, kNan}, {1, 1, 2, 2, 0.5F, 1e30F}}) {
    EXPECT_TRUE(decodeYolo26({bad.data(), 1, 6}, 1.0F, config, frame).badBox);
  }
  // Corners the wrong way round are clamped and no more; columns past the sixth are not read.
  const std::vector<float> odd = {90, 80, -5, 300, 0.5F, 0, kNan, kNan};
  const Yolo26Objects inverted = decodeYolo26({odd.data(), 1, 8}, 1.0F, config, frame);
  ASSERT_EQ(inverted.objects.size(), 1U);
  EXPECT_EQ(inverted.objects[0].left, 90);
  EXPECT_EQ(inverted.objects[0].right, -5);
  EXPECT_EQ(inverted.objects[0].bottom, 120);
}

TEST(YoloMapping, TheFarCornerStartsAtTheTruncatedNearCorner) {
  VsaModelConfig config;
  config.classNames = {"a"};
  VsaFrame frame;
  frame.width = 1000;
  frame.height = 1000;
  Candidates found;
  ASSERT_TRUE(found.add(3, 5, 7, 9, 0.5F, 0, 0));
  // 3 * 1.5625 = 4.6875 and 7 * 1.5625 + 4 = 14.9375; scaling the far edge would give 15.625.
  const VsaObject object = frameObject(found, 0, 1.5625F, config, frame);
  EXPECT_EQ(object.left, 4);
  EXPECT_EQ(object.top, 7);
  EXPECT_EQ(object.right, 14);
  EXPECT_EQ(object.bottom, 21);
}

}  // namespace
