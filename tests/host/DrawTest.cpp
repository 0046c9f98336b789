// What is drawn into images, pixel by pixel.
#include "Draw.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

namespace vsa {
namespace {

cv::Mat painted(const std::vector<VsaObject>& objects, const cv::Size& size = {600, 400},
                int grey = 0) {
  static const Painter painter("");
  cv::Mat image(size, CV_8UC3, cv::Scalar::all(grey));
  painter.paint(&image, objects);
  return image;
}

VsaObject box(int left, int top, int right, int bottom, int classId = 0,
              const std::string& name = "thing") {
  VsaObject object;
  object.left = left;
  object.top = top;
  object.right = right;
  object.bottom = bottom;
  object.score = 0.5F;
  object.classId = classId;
  object.className = name;
  return object;
}

// Pixels of exactly the colour of a class.
cv::Mat pixelsOf(int classId, const cv::Mat& image) {
  cv::Mat mask;
  cv::inRange(image, classColour(classId), classColour(classId), mask);
  return mask;
}

double luminance(const cv::Vec3b& colour) {
  double sum = 0.0;
  for (const auto& [channel, weight] : {std::pair(0, 0.0722), {1, 0.7152}, {2, 0.2126}}) {
    const double value = colour[channel] / 255.0;
    sum += weight * (value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4));
  }
  return sum;
}

TEST(DrawTest, ColoursDifferAndLabelsAreLegible) {
  cv::Mat colours(1, kColourCount, CV_8UC3);
  for (int i = 0; i < kColourCount; ++i) {
    const cv::Scalar colour = classColour(i);
    EXPECT_EQ(colour, classColour(i - 2 * kColourCount));
    const cv::Vec3b pixel = colours.at<cv::Vec3b>(i) =
        cv::Vec3b(cv::saturate_cast<uchar>(colour[0]), cv::saturate_cast<uchar>(colour[1]),
                  cv::saturate_cast<uchar>(colour[2]));
    const cv::Mat label = Font("").label("HEM", 30, 500, colour);
    double contrast = 1.0;
    for (const cv::Vec3b& shown : cv::Mat_<cv::Vec3b>(label)) {
      const auto [darker, lighter] = std::minmax({luminance(pixel), luminance(shown)});
      contrast = std::max(contrast, (lighter + 0.05) / (darker + 0.05));
    }
    EXPECT_GE(contrast, 4.5) << i;
  }
  colours.convertTo(colours, CV_32F, 1.0 / 255.0);
  cv::cvtColor(colours, colours, cv::COLOR_BGR2Lab);
  for (int i = 0; i < kColourCount; ++i) {
    for (int j = 0; j < i; ++j) {
      EXPECT_GT(cv::norm(colours.at<cv::Vec3f>(i), colours.at<cv::Vec3f>(j)), 40.0)
          << i << " " << j;
    }
  }
}

TEST(DrawTest, FontGrowsWithImageOnly) {
  // Rows of the label's left edge, which has no text.
  const auto labelHeight = [](int width, int height, const VsaObject& object) {
    const cv::Mat pixels = pixelsOf(0, painted({object}, {width, height}));
    return cv::boundingRect(pixels.col(object.left + 1).rowRange(0, object.top)).height;
  };
  EXPECT_EQ(labelHeight(640, 480, box(100, 200, 120, 210)), Font::labelHeight(12));
  EXPECT_EQ(labelHeight(640, 480, box(100, 200, 600, 400)), Font::labelHeight(12));
  EXPECT_EQ(labelHeight(3840, 2160, box(100, 200, 120, 210)), Font::labelHeight(54));
}

TEST(DrawTest, LabelsDoNotCoverEachOther) {
  const std::string name = "a long name of a class";
  const VsaObject boxes[] = {box(100, 100, 120, 120, 0, name), box(130, 100, 150, 120, 1, name),
                             box(160, 100, 180, 120, 2, name)};
  const cv::Mat together = painted({boxes[0], boxes[1], boxes[2]});
  for (int i = 0; i < 3; ++i) {
    // The label of another box may cover a few pixels of the box itself.
    EXPECT_GT(cv::countNonZero(pixelsOf(i, together)),
              cv::countNonZero(pixelsOf(i, painted({boxes[i]}))) * 9 / 10);
  }
  // A label for which there is no free place is omitted.
  std::vector<VsaObject> crowd(300, box(250, 150, 350, 250));
  crowd.push_back(box(250, 150, 350, 250, 1));
  cv::Mat pixels = pixelsOf(1, painted(crowd));
  cv::rectangle(pixels, {250, 150}, {350, 250}, cv::Scalar(0), 10);
  EXPECT_EQ(cv::countNonZero(pixels), 0);
}

TEST(DrawTest, BoxesWithoutVisibleAreaAreNotDrawn) {
  for (const VsaObject& object :
       {box(50, 50, 50, 90), box(50, 50, 90, 40), box(601, 50, 700, 90), box(50, -90, 90, -10)}) {
    EXPECT_EQ(cv::norm(painted({object})), 0.0) << object.left << "," << object.top;
  }
  EXPECT_GT(cv::norm(painted({box(590, 50, 700, 90)})), 0.0);
}

TEST(DrawTest, LabelsOfOrientedBoxesTouchThem) {
  VsaObject object = box(100, 190, 500, 210);
  object.angle = static_cast<float>(CV_PI / 4);
  cv::Mat image = painted({object});
  // The label at the upper left corner of the box, which is at (166, 52) or a little further down.
  const cv::Rect drawn = cv::boundingRect(pixelsOf(0, image));
  EXPECT_LE(drawn.y, 52);
  const cv::Mat top = pixelsOf(0, image).rowRange(drawn.y, drawn.y + 10);
  const cv::Rect label = cv::boundingRect(top);
  EXPECT_NEAR(label.x + label.width / 2.0, 166.0, 10.0);
  EXPECT_LT(label.br().x, 260);
  // Only the upper half of the box is in the image, and another object is above it.
  image = painted({object, box(100, 10, 250, 50, 1)}, {600, 180});
  EXPECT_LT(cv::boundingRect(pixelsOf(0, image)).br().x, 310);
}

TEST(DrawTest, MasksAreTranslucentAndLimbsDiffer) {
  VsaObject object = box(100, 100, 300, 300);
  object.shapes = {{kVsaOutlineTag, {{100, 100}, {300, 100}, {300, 300}, {100, 300}}}};
  cv::Mat image = painted({object}, {600, 400}, 100);
  const cv::Scalar colour = classColour(0);
  const cv::Vec3b inside = image.at<cv::Vec3b>(200, 200);
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(inside[i], 60.0 + 0.4 * colour[i], 1.0);
  EXPECT_EQ(image.at<cv::Vec3b>(350, 400), cv::Vec3b(100, 100, 100));

  VsaShape pose{kVsaKeyPointsTag, std::vector<VsaPoint>(17, VsaPoint{300, 10})};
  int x = 150;
  for (const std::size_t start : {5U, 6U, 11U, 12U}) {  // shoulders and hips
    pose.points[start] = {x, 120};
    pose.points[start + 2] = {x, 180};  // elbows and knees
    x += 30;
  }
  object.shapes = {pose};
  image = painted({object});
  std::vector<int> colours;
  for (int i = 0; i < 4; ++i) {
    const cv::Vec3b limb = image.at<cv::Vec3b>(150, 150 + 30 * i);
    colours.push_back(limb[0] << 16 | limb[1] << 8 | limb[2]);
  }
  std::ranges::sort(colours);
  EXPECT_EQ(std::ranges::adjacent_find(colours), colours.end());
  EXPECT_NE(colours[0], 0);
}

TEST(DrawTest, PanelHoldsTextOfFullPages) {
  const Painter painter("");
  const auto page = [](int width) {
    std::vector<VsaObject> lines;
    for (int i = 0; i < 8; ++i) {
      VsaObject& line = lines.emplace_back(box(50, 40 + 40 * i, width - 10, 40 + 40 * i));
      line.cornerX2 = line.right;
      line.cornerX3 = line.left;
      line.cornerY2 = line.cornerY3 = 70 + 40 * i;
      line.textId = 0;
      line.text = "HHHHHHHHHHHH";
    }
    return lines;
  };
  const auto paint = [&painter](const std::vector<VsaObject>& objects, TextPlace place,
                                int width = 400) {
    cv::Mat image(400, width, CV_8UC3, cv::Scalar::all(255));
    painter.paint(&image, objects, place);
    return image;
  };
  const std::vector<VsaObject> lines = page(400);
  EXPECT_EQ(paint(lines, TextPlace::kLabels).cols, 400);
  EXPECT_EQ(paint({lines[0], lines[4]}, TextPlace::kPanelIfFull).cols, 400);
  // An image that would be too wide for a format has no panel.
  EXPECT_EQ(paint(page(8000), TextPlace::kPanelIfFull, 8000).cols, 16000);
  EXPECT_EQ(paint(page(8200), TextPlace::kPanelIfFull, 8200).cols, 8200);
  const cv::Mat both = paint(lines, TextPlace::kPanelIfFull);
  ASSERT_GE(both.cols, 800);
  // Each text is at the height of its region, also on the panel, and nothing is between the lines.
  const auto isEmpty = [&both](const cv::Rect& area) {
    return cv::norm(both(area), cv::Mat(area.size(), CV_8UC3, cv::Scalar::all(255))) == 0.0;
  };
  for (int i = 0; i < 8; ++i) {
    EXPECT_FALSE(isEmpty({450, 48 + 40 * i, 100, 14})) << i;
    EXPECT_TRUE(isEmpty({401, 73 + 40 * i, 399, 3})) << i;
    EXPECT_TRUE(isEmpty({60, 73 + 40 * i, 280, 3})) << i;
  }
}

TEST(DrawTest, LabelShowsEveryResult) {
  // Count the pixels on a black image: each further result makes the label longer.
  const Painter painter("");
  VsaObject object(600, 200, 10, 100, 590, 190, 0.5F, 3, "plate");
  const auto covered = [&] {
    cv::Mat image = cv::Mat::zeros(200, 600, CV_8UC3);
    painter.paint(&image, {object});
    return cv::countNonZero(image.rowRange(0, 98).reshape(1) > 0);
  };
  const int detected = covered();
  EXPECT_GT(detected, 0);
  object.classifyId = 0;
  object.classifyName = "yellow";
  const int classified = covered();
  EXPECT_GT(classified, detected);
  object.textId = 0;
  EXPECT_EQ(covered(), classified);  // the text is empty
  object.text = "AB 123";
  EXPECT_GT(covered(), classified);
}

TEST(DrawTest, ClampsCoordinatesAndRotatesBoxes) {
  const Painter painter("");
  constexpr int kMax = std::numeric_limits<int>::max();
  VsaObject wild(10, 10, 0, 0, 5, 5, std::nanf(""), -7, std::string(1 << 20, 'W'));
  wild.left = -kMax - 1;
  wild.right = kMax;
  wild.angle = std::nanf("");
  wild.shapes = {{kVsaKeyPointsTag, std::vector<VsaPoint>(17, VsaPoint{kMax, -kMax})},
                 {kVsaOutlineTag, {}},
                 {kVsaOutlineTag, {{-kMax, 3}, {kMax, kMax}}}};
  VsaObject empty;
  empty.textId = 0;
  for (const cv::Size& size : {cv::Size(1, 1), cv::Size(400, 2), cv::Size(3, 300)}) {
    cv::Mat image = cv::Mat::zeros(size, CV_8UC3);
    EXPECT_NO_THROW(painter.paint(&image, {wild, empty, wild}));
  }
  // A wide box rotated by a quarter covers points above and below it.
  VsaObject rotated(400, 400, 100, 190, 300, 210, 1.0F, 0, "x");
  rotated.angle = static_cast<float>(CV_PI / 2);
  cv::Mat image = cv::Mat::zeros(400, 400, CV_8UC3);
  painter.paint(&image, {rotated});
  const auto isDrawn = [&image](int x, int y) {
    return cv::norm(image.at<cv::Vec3b>(y, x)) > 100.0;
  };
  EXPECT_TRUE(isDrawn(190, 250) && isDrawn(210, 150));
  EXPECT_FALSE(isDrawn(120, 190) || isDrawn(280, 210));
}

}  // namespace
}  // namespace vsa
