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

TEST(Yolo8Decode, NoClassesNoColumnsAndANanThresholdGiveNothing) {
  const std::vector<float> output = {1, 1, 1, 1, 1};
  EXPECT_TRUE(decodeYolo8({output.data(), 4, 1}, 0, -1.0F).boxes.empty());
  EXPECT_TRUE(decodeYolo8({output.data(), 5, 0}, 1, 0.1F).boxes.empty());
  EXPECT_TRUE(decodeYolo8({output.data(), 5, 1}, 1, kNan).boxes.empty());
}

TEST(Yolo8Decode, ABoxThatIsNotFiniteIsReportedOnlyWhenItsScorePasses) {
  for (const float bad : {kNan, kInf, -kInf}) {
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
  // Finite numbers that no integer holds end at the largest one.
  const std::vector<float> huge = {0, 0, 1e30F, 1e30F, 1};
  EXPECT_EQ(decodeYolo8({huge.data(), 5, 1}, 1, 0.5F).boxes.at(0).width,
            std::numeric_limits<int>::max());
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
