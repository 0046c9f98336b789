#include "Results.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include "Frame.h"

namespace python {
namespace {

namespace nb = nanobind;

constexpr float kNone = std::numeric_limits<float>::quiet_NaN();

// A new array filled with `fill`; `*data` is its first element.
template <class Array>
Array makeArray(std::initializer_list<std::size_t> shape, typename Array::Scalar fill,
                typename Array::Scalar** data) {
  using Scalar = typename Array::Scalar;
  std::size_t count = 1;
  for (const std::size_t side : shape) count *= side;
  auto memory = std::make_unique<Scalar[]>(std::max<std::size_t>(count, 1));
  std::fill_n(memory.get(), count, fill);
  const nb::capsule owner(memory.get(),
                          [](void* block) noexcept { delete[] static_cast<Scalar*>(block); });
  *data = memory.release();
  return Array(*data, shape, owner);
}

// An array with one number for each object.
template <class Array, class NumberOf>
Array column(const Objects& objects, NumberOf numberOf) {
  typename Array::Scalar* data = nullptr;
  Array array = makeArray<Array>({objects.list.size()}, 0, &data);
  std::transform(objects.list.begin(), objects.list.end(), data, numberOf);
  return array;
}

const VsaShape* findShape(const VsaObject& object, std::int32_t tag) {
  for (const VsaShape& shape : object.shapes) {
    if (shape.tag == tag) return &shape;
  }
  return nullptr;
}

}  // namespace

nb::object toString(const std::string& text) {
  return nb::steal(
      PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace"));
}

IntArray boxes(const Objects& objects) {
  std::int32_t* box = nullptr;
  IntArray array = makeArray<IntArray>({objects.list.size(), 4}, 0, &box);
  for (const VsaObject& object : objects.list) {
    auto [left, right] = std::pair(object.left, object.right);
    auto [top, bottom] = std::pair(object.top, object.bottom);
    if (vsa::isTextRegion(object)) {
      std::tie(left, right) = std::minmax({left, right, object.cornerX2, object.cornerX3});
      std::tie(top, bottom) = std::minmax({top, bottom, object.cornerY2, object.cornerY3});
    }
    for (const std::int32_t side : {left, top, right, bottom}) *box++ = side;
  }
  return array;
}

FloatArray scores(const Objects& objects) {
  return column<FloatArray>(objects, [](const VsaObject& object) { return object.score; });
}

IntArray classIds(const Objects& objects) {
  return column<IntArray>(objects, [](const VsaObject& object) { return object.classId; });
}

nb::list classNames(const Objects& objects) {
  nb::list names;
  for (const VsaObject& object : objects.list) names.append(toString(object.className));
  return names;
}

FloatArray angles(const Objects& objects) {
  return column<FloatArray>(objects, [](const VsaObject& object) {
    return object.angle == -1.0F ? kNone : object.angle;
  });
}

FloatArray corners(const Objects& objects) {
  float* next = nullptr;
  FloatArray array = makeArray<FloatArray>({objects.list.size(), 4, 2}, 0.0F, &next);
  const auto add = [&next](double x, double y) {
    *next++ = static_cast<float>(x);
    *next++ = static_cast<float>(y);
  };
  for (const VsaObject& object : objects.list) {
    if (vsa::isTextRegion(object)) {
      add(object.left, object.top);
      add(object.right, object.bottom);
      add(object.cornerX2, object.cornerY2);
      add(object.cornerX3, object.cornerY3);
      continue;
    }
    const double angle = object.angle == -1.0F ? 0.0 : object.angle;
    const double centreX = (0.0 + object.left + object.right) / 2;
    const double centreY = (0.0 + object.top + object.bottom) / 2;
    const auto addRotated = [&](double x, double y) {
      add(centreX + (x - centreX) * std::cos(angle) - (y - centreY) * std::sin(angle),
          centreY + (x - centreX) * std::sin(angle) + (y - centreY) * std::cos(angle));
    };
    addRotated(object.left, object.top);
    addRotated(object.right, object.top);
    addRotated(object.right, object.bottom);
    addRotated(object.left, object.bottom);
  }
  return array;
}

FloatArray keyPoints(const Objects& objects) {
  std::size_t count = 0;
  for (const VsaObject& object : objects.list) {
    const VsaShape* shape = findShape(object, kVsaKeyPointsTag);
    if (shape != nullptr) count = std::max(count, shape->points.size());
  }
  float* row = nullptr;
  FloatArray array = makeArray<FloatArray>({objects.list.size(), count, 2}, kNone, &row);
  for (const VsaObject& object : objects.list) {
    float* next = row;
    if (const VsaShape* shape = findShape(object, kVsaKeyPointsTag)) {
      for (const VsaPoint& point : shape->points) {
        *next++ = static_cast<float>(point.x);
        *next++ = static_cast<float>(point.y);
      }
    }
    row += 2 * count;
  }
  return array;
}

nb::list outlines(const Objects& objects) {
  nb::list polygons;
  for (const VsaObject& object : objects.list) {
    const VsaShape* shape = findShape(object, kVsaOutlineTag);
    std::int32_t* next = nullptr;
    const std::size_t count = shape == nullptr ? 0 : shape->points.size();
    IntArray polygon = makeArray<IntArray>({count, 2}, 0, &next);
    for (std::size_t i = 0; i < count; ++i) {
      *next++ = shape->points[i].x;
      *next++ = shape->points[i].y;
    }
    polygons.append(polygon);
  }
  return polygons;
}

IntArray labelIds(const Objects& objects) {
  return column<IntArray>(objects, [](const VsaObject& object) { return object.classifyId; });
}

FloatArray labelScores(const Objects& objects) {
  return column<FloatArray>(objects, [](const VsaObject& object) {
    return object.classifyId < 0 ? kNone : object.classifyScore;
  });
}

nb::list labelNames(const Objects& objects) {
  nb::list names;
  for (const VsaObject& object : objects.list) {
    names.append(object.classifyId < 0 ? nb::none() : toString(object.classifyName));
  }
  return names;
}

nb::list texts(const Objects& objects) {
  nb::list lines;
  for (const VsaObject& object : objects.list) {
    lines.append(object.textId < 0 ? nb::none() : toString(object.text));
  }
  return lines;
}

FloatArray features(const Objects& objects) {
  std::size_t length = 0;
  for (const VsaObject& object : objects.list) length = std::max(length, object.feature.size());
  float* row = nullptr;
  FloatArray array = makeArray<FloatArray>({objects.list.size(), length}, kNone, &row);
  for (const VsaObject& object : objects.list) {
    std::copy(object.feature.begin(), object.feature.end(), row);
    row += length;
  }
  return array;
}

Objects take(const Objects& objects, const std::vector<std::int64_t>& indices) {
  Objects taken = objects;
  taken.list.clear();
  for (const std::int64_t index : indices) {
    if (index < 0 || index >= std::ssize(objects.list)) throw std::out_of_range("no such object");
    taken.list.push_back(objects.list[static_cast<std::size_t>(index)]);
  }
  return taken;
}

}  // namespace python
