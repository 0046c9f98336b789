// The recursive X-Y cut (G. Nagy and S. Seth, 1984), which cuts a page at white space into ever
// smaller parts, with two rules on where to cut:
// - A page is cut into rows. The longest run of rows that a vertical gutter divides into columns is
//   read column by column, each of which is cut in the same way; other rows are read as they are.
// - A gutter divides columns, not the cells of a table, if each side has at least two lines, which
//   are typically five times as wide as high and wider than the gutter. Names and prices of a
//   receipt are thus read row by row.
#include "ReadingOrder.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <opencv2/core.hpp>
#include <optional>
#include <utility>

#include "Frame.h"
#include "Text.h"

namespace vsa {
namespace {

constexpr double kMinLineAspect = 5.0;     // of the lines of a column: width / height
constexpr double kMinGutterHeights = 0.5;  // width of a gutter, in line heights

// The rectangle around an object on the page after its rotation is undone.
struct Region {
  std::size_t index = 0;  // of the object
  double left = 0.0;
  double top = 0.0;
  double right = 0.0;
  double bottom = 0.0;

  double width() const { return right - left; }
  double height() const { return bottom - top; }
  double centreY() const { return (top + bottom) / 2; }
};

using Regions = std::vector<Region>;
using Line = std::vector<std::size_t>;  // indices of objects, from left to right

struct Interval {
  double start = 0.0;
  double end = 0.0;

  bool operator==(const Interval&) const = default;
};

// The upper of two medians; `values` must not be empty.
double median(std::vector<double> values) {
  const auto middle = values.begin() + std::ssize(values) / 2;
  std::ranges::nth_element(values, middle);
  return *middle;
}

template <class Measure>
double median(const Regions& regions, Measure measure) {
  std::vector<double> values;
  for (const Region& region : regions) values.push_back((region.*measure)());
  return median(std::move(values));
}

// The corners of a text region, or two opposite ones of a box.
std::vector<cv::Point2d> pointsOf(const VsaObject& object) {
  const cv::Point2d first(object.left, object.top);
  const cv::Point2d second(object.right, object.bottom);
  if (!isTextRegion(object)) return {first, second};
  return {first, second, cv::Point2d(object.cornerX2, object.cornerY2),
          cv::Point2d(object.cornerX3, object.cornerY3)};
}

// The typical angle of the upper edges of text regions, in radians. Short regions and those that
// are not horizontal are ignored.
double pageAngle(const std::vector<VsaObject>& objects) {
  std::vector<double> angles;
  for (const VsaObject& object : objects) {
    if (!isTextRegion(object)) continue;
    const std::vector<cv::Point2d> corners = pointsOf(object);
    const cv::Point2d edge = corners[1] - corners[0];
    const bool isLong = cv::norm(edge) >= 2.0 * cv::norm(corners[3] - corners[0]);
    if (isLong && std::abs(edge.y) < edge.x) angles.push_back(std::atan2(edge.y, edge.x));
  }
  return angles.empty() ? 0.0 : median(std::move(angles));
}

// The regions of the objects for which `isWanted` is true.
template <class Predicate>
Regions regionsOf(const std::vector<VsaObject>& objects, Predicate isWanted) {
  const double angle = pageAngle(objects);
  const double cosine = std::cos(angle);
  const double sine = std::sin(angle);
  Regions regions;
  for (std::size_t i = 0; i < objects.size(); ++i) {
    if (!isWanted(objects[i])) continue;
    std::vector<double> x;
    std::vector<double> y;
    for (const cv::Point2d& point : pointsOf(objects[i])) {
      x.push_back(point.x * cosine + point.y * sine);
      y.push_back(point.y * cosine - point.x * sine);
    }
    regions.push_back(
        {i, std::ranges::min(x), std::ranges::min(y), std::ranges::max(x), std::ranges::max(y)});
  }
  return regions;
}

// A region belongs to a row if its centre is less than half a line height below that of the first.
std::vector<Regions> rowsOf(Regions regions) {
  std::ranges::stable_sort(regions, {}, &Region::centreY);
  std::vector<Regions> rows;
  for (const Region& region : regions) {
    if (!rows.empty()) {
      const Region& first = rows.back().front();
      const double height = std::min(first.height(), region.height());
      if (region.centreY() - first.centreY() < height / 2) {
        rows.back().push_back(region);
        continue;
      }
    }
    rows.push_back({region});
  }
  return rows;
}

// Adds an interval to disjoint ones in ascending order.
void add(Interval added, std::vector<Interval>* intervals) {
  const auto first = std::ranges::lower_bound(*intervals, added.start, {}, &Interval::end);
  auto last = first;
  for (; last != intervals->end() && last->start <= added.end; ++last) {
    added = {std::min(added.start, last->start), std::max(added.end, last->end)};
  }
  intervals->insert(intervals->erase(first, last), added);
}

std::optional<Interval> widestGap(const std::vector<Interval>& intervals) {
  std::optional<Interval> widest;
  for (std::size_t i = 1; i < intervals.size(); ++i) {
    const Interval gap = {intervals[i - 1].end, intervals[i].start};
    if (!widest || gap.end - gap.start > widest->end - widest->start) widest = gap;
  }
  return widest;
}

// The regions on the left and on the right of a gutter.
struct Columns {
  Regions left;
  Regions right;
};

std::optional<Columns> columnsAt(const Interval& gutter, const Regions& regions) {
  Columns columns;
  for (const Region& region : regions) {
    (region.right <= gutter.start ? columns.left : columns.right).push_back(region);
  }
  const double gutterWidth = gutter.end - gutter.start;
  for (const Regions* side : {&columns.left, &columns.right}) {
    const double width = median(*side, &Region::width);
    const double height = median(*side, &Region::height);
    if (rowsOf(*side).size() < 2 || width < kMinLineAspect * height || width < gutterWidth ||
        gutterWidth < kMinGutterHeights * height) {
      return std::nullopt;
    }
  }
  return columns;
}

// The longest run of rows from `first` on that can be cut into columns. Sets `*end` to the row
// after it.
std::optional<Columns> columnsFrom(const std::vector<Regions>& rows, std::size_t first,
                                   std::size_t* end) {
  std::vector<Interval> covered;
  std::vector<std::optional<Interval>> gutters;  // of the runs that end with each row
  for (std::size_t i = first; i < rows.size(); ++i) {
    for (const Region& region : rows[i]) add({region.left, region.right}, &covered);
    const std::optional<Interval> gutter = widestGap(covered);
    // A gutter that a row has filled does not come back.
    if (!gutter && !gutters.empty() && gutters.back()) break;
    gutters.push_back(gutter);
  }
  for (std::size_t length = gutters.size(); length > 0; --length) {
    const std::optional<Interval>& gutter = gutters[length - 1];
    // Longer runs with the same gutter were tried before.
    if (!gutter || (length < gutters.size() && gutters[length] == gutter)) continue;
    Regions regions;
    for (std::size_t i = first; i < first + length; ++i) {
      regions.insert(regions.end(), rows[i].begin(), rows[i].end());
    }
    if (auto columns = columnsAt(*gutter, regions)) {
      *end = first + length;
      return columns;
    }
  }
  return std::nullopt;
}

void appendLines(const Regions& regions, std::vector<Line>* lines) {
  std::vector<Regions> rows = rowsOf(regions);
  for (std::size_t i = 0; i < rows.size();) {
    if (const auto columns = columnsFrom(rows, i, &i)) {
      appendLines(columns->left, lines);
      appendLines(columns->right, lines);
      continue;
    }
    std::ranges::stable_sort(rows[i], {}, &Region::left);
    Line& line = lines->emplace_back();
    for (const Region& region : rows[i]) line.push_back(region.index);
    ++i;
  }
}

template <class Predicate>
std::vector<Line> linesOf(const std::vector<VsaObject>& objects, Predicate isWanted) {
  std::vector<Line> lines;
  appendLines(regionsOf(objects, isWanted), &lines);
  return lines;
}

}  // namespace

void sortTextRegions(std::vector<VsaObject>* objects) {
  std::vector<VsaObject> sorted;
  for (const Line& line : linesOf(*objects, isTextRegion)) {
    for (const std::size_t index : line) sorted.push_back(std::move((*objects)[index]));
  }
  // Moving leaves the corners of a record as they are.
  auto next = sorted.begin();
  for (VsaObject& object : *objects) {
    if (next != sorted.end() && isTextRegion(object)) object = std::move(*next++);
  }
}

std::string plainText(const std::vector<VsaObject>& objects) {
  std::string text;
  const auto isRead = [](const VsaObject& object) {
    return object.textId >= 0 && !object.text.empty();
  };
  for (const Line& line : linesOf(objects, isRead)) {
    for (std::size_t i = 0; i < line.size(); ++i) {
      if (i > 0) text += ' ';
      text += printable(objects[line[i]].text);
    }
    text += '\n';
  }
  return text;
}

}  // namespace vsa
