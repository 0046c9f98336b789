// The order of text regions on pages of several layouts.
#include "ReadingOrder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

namespace vsa {
namespace {

constexpr int kHeight = 20;  // of a line

VsaObject region(const std::string& text, int left, int top, int width) {
  VsaObject object(10000, 10000, left, top, left + width, top, 0.9F, 0, "text");
  object.cornerX2 = left + width;
  object.cornerX3 = left;
  object.cornerY2 = object.cornerY3 = top + kHeight;
  object.textId = 0;
  object.text = text;
  return object;
}

// Lines of that width below one another, named "PREFIX1", "PREFIX2", ...
std::vector<VsaObject> column(const std::string& prefix, int count, int left, int top, int width) {
  std::vector<VsaObject> objects;
  for (int i = 0; i < count; ++i) {
    objects.push_back(region(prefix + std::to_string(i + 1), left, top + 30 * i, width));
  }
  return objects;
}

using Page = std::vector<std::vector<VsaObject>>;

std::vector<VsaObject> objectsOf(const Page& page) {
  std::vector<VsaObject> objects;
  for (const auto& part : page) objects.insert(objects.end(), part.begin(), part.end());
  return objects;
}

// Rotates about a point in the middle of the pages of these tests.
void rotate(double degrees, std::vector<VsaObject>* objects) {
  const double angle = degrees * std::numbers::pi / 180.0;
  const auto turn = [angle](std::int32_t* x, std::int32_t* y) {
    const double dx = *x - 500.0;
    const double dy = *y - 500.0;
    *x = static_cast<int>(std::lround(500.0 + dx * std::cos(angle) - dy * std::sin(angle)));
    *y = static_cast<int>(std::lround(500.0 + dx * std::sin(angle) + dy * std::cos(angle)));
  };
  for (VsaObject& object : *objects) {
    turn(&object.left, &object.top);
    turn(&object.right, &object.bottom);
    turn(&object.cornerX2, &object.cornerY2);
    turn(&object.cornerX3, &object.cornerY3);
  }
}

TEST(ReadingOrderTest, ReadsLayouts) {
  const struct {
    const char* name;
    Page page;
    std::string text;
  } kCases[] = {
      {"nothing", {}, ""},
      {"lines", {column("a", 3, 100, 100, 500)}, "a1\na2\na3\n"},
      {"a line in parts",
       {{region("b", 400, 104, 90), region("a", 100, 100, 200), region("c", 100, 140, 100)}},
       "a b\nc\n"},
      {"two columns below a title and above a footer",
       {column("r", 3, 500, 150, 300),
        column("l", 3, 100, 150, 300),
        {region("t", 250, 100, 400)},
        {region("f", 250, 300, 400)}},
       "t\nl1\nl2\nl3\nr1\nr2\nr3\nf\n"},
      {"columns with lines at different heights, the right one longer",
       {column("l", 3, 100, 115, 300), column("r", 5, 440, 100, 300)},
       "l1\nl2\nl3\nr1\nr2\nr3\nr4\nr5\n"},
      {"three columns, one with a heading",
       {{region("m", 400, 100, 60)},
        column("a", 3, 100, 130, 250),
        column("b", 3, 400, 130, 250),
        column("c", 3, 700, 130, 250)},
       "a1\na2\na3\nm\nb1\nb2\nb3\nc1\nc2\nc3\n"},
      {"columns, a wide line, columns",
       {column("a", 2, 100, 100, 300),
        column("b", 2, 500, 100, 300),
        {region("w", 100, 160, 700)},
        column("c", 2, 100, 190, 300),
        column("d", 2, 500, 190, 300)},
       "a1\na2\nb1\nb2\nw\nc1\nc2\nd1\nd2\n"},
      {"names and prices",
       {column("n", 3, 100, 100, 300), column("p", 3, 500, 100, 80)},
       "n1 p1\nn2 p2\nn3 p3\n"},
      {"a table with wide space",
       {column("n", 3, 100, 100, 150), column("v", 3, 450, 100, 150)},
       "n1 v1\nn2 v2\nn3 v3\n"},
      {"lines with a narrow gap",
       {column("l", 3, 100, 100, 300), column("r", 3, 405, 100, 300)},
       "l1 r1\nl2 r2\nl3 r3\n"},
      {"one line beside a column",
       {column("l", 3, 100, 100, 300), column("r", 1, 500, 160, 300)},
       "l1\nl2\nl3 r1\n"},
  };
  for (const auto& [name, page, text] : kCases) {
    std::vector<VsaObject> objects = objectsOf(page);
    EXPECT_EQ(plainText(objects), text) << name;
    std::ranges::reverse(objects);
    EXPECT_EQ(plainText(objects), text) << name << ", reversed";
    for (const double degrees : {8.0, -8.0}) {
      std::vector<VsaObject> rotated = objects;
      rotate(degrees, &rotated);
      EXPECT_EQ(plainText(rotated), text) << name << ", " << degrees << " degrees";
    }
  }
}

TEST(ReadingOrderTest, SortsRegionsOnly) {
  VsaObject box(10000, 10000, 0, 900, 50, 950, 0.5F, 0, "box");
  std::vector<VsaObject> objects = {region("2", 100, 200, 300), box, region("", 100, 100, 300)};
  sortTextRegions(&objects);
  EXPECT_EQ(objects[0].top, 100);
  EXPECT_EQ(objects[1].className, "box");
  EXPECT_EQ(objects[2].text, "2");
  // Text of boxes counts, an empty text does not, and control characters are replaced.
  box.textId = 0;
  box.text = "a\nb";
  objects.push_back(box);
  EXPECT_EQ(plainText(objects), "2\na\uFFFDb\n");
}

}  // namespace
}  // namespace vsa
