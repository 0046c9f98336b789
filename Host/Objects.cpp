#include "Objects.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <tuple>

#include "Inputs.h"
#include "JsonLines.h"
#include "Messages.h"

namespace vsa {
namespace {

int integer(const Json::Value& value) {
  if (!value.isInt()) throw std::runtime_error("a whole number is missing or too large");
  return value.asInt();
}

// objectJson() writes null for numbers that are not finite.
float number(const Json::Value& value) {
  if (value.isNull()) return std::numeric_limits<float>::quiet_NaN();
  if (!value.isNumeric()) throw std::runtime_error("a number is missing");
  return static_cast<float>(value.asDouble());
}

std::string text(const Json::Value& value) {
  if (!value.isString()) throw std::runtime_error("a string is missing");
  return value.asString();
}

// An array of `size` values, or of any length if `size` is 0.
const Json::Value& array(const Json::Value& value, Json::ArrayIndex size) {
  if (!value.isArray() || (size != 0 && value.size() != size)) {
    throw std::runtime_error("an array is missing or has another length");
  }
  return value;
}

// The array of that name; null if there is none.
const Json::Value& optionalArray(const Json::Value& parent, const char* key) {
  const Json::Value& value = parent[key];
  if (parent.isMember(key) && !value.isArray()) {
    throw std::runtime_error(std::string(key) + " must be an array");
  }
  return value;
}

const Json::Value& object(const Json::Value& value) {
  if (!value.isObject()) throw std::runtime_error("an object is missing");
  return value;
}

VsaPoint point(const Json::Value& value) {
  array(value, 2);
  return {integer(value[0]), integer(value[1])};
}

Json::Value parseLine(const std::string& line) {
  Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  builder["failIfExtra"] = true;
  const std::unique_ptr<Json::CharReader> strict(builder.newCharReader());
  Json::Value value;
  std::string errors;
  if (!reader->parse(line.data(), line.data() + line.size(), &value, &errors)) {
    throw std::runtime_error("not JSON");
  }
  if (!strict->parse(line.data(), line.data() + line.size(), &value, &errors)) {
    throw std::runtime_error("there is text after the JSON");
  }
  return object(value);
}

}  // namespace

VsaObject objectFromJson(const Json::Value& json, const cv::Size& imageSize) {
  VsaObject found;
  found.imageWidth = imageSize.width;
  found.imageHeight = imageSize.height;
  if (object(json).isMember("corners")) {
    const Json::Value& corners = array(json["corners"], 4);
    const VsaPoint points[] = {point(corners[0]), point(corners[1]), point(corners[2]),
                               point(corners[3])};
    found.left = points[0].x;
    found.top = points[0].y;
    found.right = points[1].x;
    found.bottom = points[1].y;
    found.cornerX2 = points[2].x;
    found.cornerY2 = points[2].y;
    found.cornerX3 = points[3].x;
    found.cornerY3 = points[3].y;
  } else {
    const Json::Value& box = array(json["box"], 4);
    found.left = integer(box[0]);
    found.top = integer(box[1]);
    found.right = integer(box[2]);
    found.bottom = integer(box[3]);
  }
  found.score = number(json["score"]);
  found.classId = integer(json["classId"]);
  found.className = text(json["className"]);
  if (json.isMember("angle")) found.angle = number(json["angle"]);
  for (const Json::Value& entry : optionalArray(json, "shapes")) {
    VsaShape& shape = found.shapes.emplace_back();
    shape.tag = integer(object(entry)["tag"]);
    for (const Json::Value& pair : array(entry["points"], 0)) shape.points.push_back(point(pair));
  }
  if (json.isMember("classifyId")) {
    found.classifyId = integer(json["classifyId"]);
    found.classifyScore = number(json["classifyScore"]);
    found.classifyName = text(json["classifyName"]);
  }
  if (json.isMember("text")) {
    found.textId = 0;
    found.text = text(json["text"]);
    found.textScore = number(json["textScore"]);
  }
  for (const Json::Value& value : optionalArray(json, "feature")) {
    found.feature.push_back(number(value));
  }
  return found;
}

namespace {

auto boxAndCorners(auto& object) {
  return std::tie(object.left, object.top, object.right, object.bottom, object.cornerX2,
                  object.cornerY2, object.cornerX3, object.cornerY3);
}

bool hasSameGeometry(const VsaObject& one, const VsaObject& other) {
  const auto samePoints = [](const VsaShape& a, const VsaShape& b) {
    return std::ranges::equal(a.points, b.points, [](const VsaPoint& p, const VsaPoint& q) {
      return p.x == q.x && p.y == q.y;
    });
  };
  return boxAndCorners(one) == boxAndCorners(other) &&
         std::ranges::equal(one.shapes, other.shapes, samePoints);
}

void copyGeometry(const VsaObject& from, VsaObject* to) {
  boxAndCorners(*to) = boxAndCorners(from);
  to->shapes = from.shapes;
}

}  // namespace

RecordedObjects::RecordedObjects(const std::string& path) : path_(path) {
  constexpr std::size_t kMaxLineBytes = std::size_t{64} << 20;
  const std::string reason = whyUnreadable(path);
  if (!reason.empty()) throw std::runtime_error(path + ": " + reason);
  std::ifstream file(path, std::ios::binary);
  std::string line;
  Line read = Line::kRead;
  for (std::int64_t number = 1; (read = readLine(&file, kMaxLineBytes, &line)) != Line::kEnd;
       ++number) {
    try {
      if (read == Line::kTooLong) throw std::runtime_error("the line is too long");
      if (line.find_first_not_of(" \t") == std::string::npos) continue;
      const Json::Value json = parseLine(line);
      if (json.isMember("error")) continue;
      if (!json["frame"].isInt64()) throw std::runtime_error("the number of the frame is missing");
      Frame& frame = frames_[{pathIn(json, "input"), json["frame"].asInt64()}];
      frame = {integer(json["width"]), integer(json["height"]), {}};
      for (const Json::Value& entry : array(json["objects"], 0)) {
        frame.objects.push_back(objectFromJson(entry, {frame.width, frame.height}));
      }
    } catch (const std::exception& error) {
      throw std::runtime_error(path + ": line " + std::to_string(number) + ": " +
                               oneLine(error.what()));
    }
  }
}

const std::vector<VsaObject>& RecordedObjects::of(const FrameInfo& info) const {
  const auto found = frames_.find({info.input, info.index});
  if (found == frames_.end()) {
    throw std::runtime_error("frame " + std::to_string(info.index) + " is not in " + path_);
  }
  const Frame& frame = found->second;
  if (frame.width != info.width || frame.height != info.height) {
    throw std::runtime_error("in " + path_ + " frame " + std::to_string(info.index) + " has " +
                             std::to_string(frame.width) + " x " + std::to_string(frame.height) +
                             " pixels");
  }
  return frame.objects;
}

cv::Mat shrunk(const cv::Mat& image, int maxSide) {
  const int longer = std::max(image.cols, image.rows);
  if (maxSide == 0 || longer <= maxSide) return image;
  const double factor = static_cast<double>(maxSide) / longer;
  const auto side = [factor](int pixels) {
    return std::max(1, static_cast<int>(std::lround(pixels * factor)));
  };
  cv::Mat smaller;
  cv::resize(image, smaller, {side(image.cols), side(image.rows)}, 0, 0, cv::INTER_AREA);
  return smaller;
}

void rescale(const cv::Size& from, const cv::Size& to, std::vector<VsaObject>* objects) {
  if (from == to) return;
  const auto scale = [](int* coordinate, int fromSide, int toSide) {
    constexpr double kMax = std::numeric_limits<int>::max();
    const double scaled = std::round(static_cast<double>(*coordinate) * toSide / fromSide);
    *coordinate = static_cast<int>(std::clamp(scaled, -kMax, kMax));
  };
  const auto scaleX = [&](int* x) { scale(x, from.width, to.width); };
  const auto scaleY = [&](int* y) { scale(y, from.height, to.height); };
  for (VsaObject& object : *objects) {
    object.imageWidth = to.width;
    object.imageHeight = to.height;
    for (int* x : {&object.left, &object.right}) scaleX(x);
    for (int* y : {&object.top, &object.bottom}) scaleY(y);
    if (isTextRegion(object)) {
      for (int* x : {&object.cornerX2, &object.cornerX3}) scaleX(x);
      for (int* y : {&object.cornerY2, &object.cornerY3}) scaleY(y);
    }
    for (VsaShape& shape : object.shapes) {
      for (VsaPoint& point : shape.points) {
        scaleX(&point.x);
        scaleY(&point.y);
      }
    }
  }
}

void rescaleBack(const cv::Size& from, const cv::Size& to, const std::vector<VsaObject>& given,
                 const std::vector<VsaObject>& scaled, std::vector<VsaObject>* objects) {
  std::vector<const VsaObject*> originals(objects->size(), nullptr);
  std::size_t next = 0;
  for (std::size_t i = 0; i < objects->size(); ++i) {
    for (std::size_t j = next; j < scaled.size(); ++j) {
      if (!hasSameGeometry((*objects)[i], scaled[j])) continue;
      originals[i] = &given[j];
      next = j + 1;
      break;
    }
  }
  rescale(from, to, objects);
  for (std::size_t i = 0; i < objects->size(); ++i) {
    if (originals[i] != nullptr) copyGeometry(*originals[i], &(*objects)[i]);
  }
}

}  // namespace vsa
