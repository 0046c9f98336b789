// All strings in the reports are made valid UTF-8 here.
#include "Report.h"

#include <algorithm>
#include <cmath>

#include "JsonLines.h"
#include "Messages.h"
#include "Text.h"

namespace vsa {
namespace {

std::string point(int x, int y) {
  return std::to_string(x) + "," + std::to_string(y);
}

struct Column {
  std::string head;
  bool alignsRight = false;
  std::vector<std::string> cells = {};
};

std::string coordinates(const VsaObject& object) {
  std::string text = point(object.left, object.top) + ' ' + point(object.right, object.bottom);
  if (isTextRegion(object)) {
    text += ' ' + point(object.cornerX2, object.cornerY2) + ' ' +
            point(object.cornerX3, object.cornerY3);
  }
  return text;
}

std::string shapes(const VsaObject& object) {
  std::string text;
  for (const VsaShape& shape : object.shapes) {
    const char* kind = shape.tag == kVsaKeyPointsTag ? "key"
                       : shape.tag == kVsaOutlineTag ? "outline"
                                                     : "other";
    text += (text.empty() ? "" : ", ") +
            counted(std::ssize(shape.points), std::string(kind) + " point");
  }
  return text;
}

// Columns with one cell for each object, empty if the object has no such value. Columns without any
// value are omitted. The text is the last column because its length is not limited.
std::vector<Column> tableColumns(const std::vector<VsaObject>& objects) {
  const auto regions = std::count_if(objects.begin(), objects.end(), isTextRegion);
  const char* coordinatesHead = regions == 0                     ? "box"
                                : regions == std::ssize(objects) ? "corners"
                                                                 : "box or corners";
  std::vector<Column> columns = {{"#", true},       {"score", true}, {"class"},
                                 {coordinatesHead}, {"angle", true}, {"shapes"},
                                 {"label"},         {"feature"},     {"text"}};
  for (const VsaObject& object : objects) {
    const std::string cells[] = {
        std::to_string(columns[0].cells.size() + 1),
        fixed(object.score, 3),
        isTextRegion(object) ? "" : printable(object.className),
        coordinates(object),
        object.angle == -1.0F ? "" : fixed(object.angle, 3),
        shapes(object),
        object.classifyId < 0
            ? ""
            : printable(object.classifyName) + " " + fixed(object.classifyScore, 3),
        object.feature.empty() ? "" : counted(std::ssize(object.feature), "number"),
        object.textId < 0 ? "" : printable(object.text),
    };
    for (std::size_t i = 0; i < columns.size(); ++i) columns[i].cells.push_back(cells[i]);
  }
  std::erase_if(columns, [](const Column& column) {
    return std::all_of(column.cells.begin(), column.cells.end(),
                       [](const auto& cell) { return cell.empty(); });
  });
  return columns;
}

void appendRow(const std::vector<Column>& columns, const std::vector<int>& widths,
               const std::vector<std::string>& cells, int limit, std::string* table) {
  std::string line;
  const auto endLine = [&] {
    line.erase(line.find_last_not_of(' ') + 1);
    *table += line + "\n";
    line = "    ";
  };
  for (std::size_t i = 0; i < columns.size(); ++i) {
    const int width = displayWidth(cells[i]);
    const auto padding = static_cast<std::size_t>(std::max(0, widths[i] - width));
    // All rows are broken before the same columns, except for the text, whose length varies.
    const int needed = columns[i].head == "text" ? width : widths[i];
    if (i > 0 && limit > 0 && displayWidth(line) + 2 + needed > limit) endLine();
    line += "  " + (columns[i].alignsRight ? std::string(padding, ' ') + cells[i]
                                           : cells[i] + std::string(padding, ' '));
  }
  endLine();
}

// Seconds rounded to three decimals.
double roundedSeconds(double seconds) {
  return std::round(seconds * 1000.0) / 1000.0;
}

Json::Value pointJson(int x, int y) {
  Json::Value value(Json::arrayValue);
  value.append(x);
  value.append(y);
  return value;
}

}  // namespace

std::string frameTable(const FrameInfo& info, const std::vector<VsaObject>& objects, int columns) {
  std::string table = printable(info.input) + ": ";
  if (info.time) {
    table += "frame " + std::to_string(info.index) + " (" + fixed(*info.time, 3) + " s), ";
  }
  if (info.pages > 1) {
    table += "page " + std::to_string(info.page()) + " of " + std::to_string(info.pages) + ", ";
  }
  table += std::to_string(info.width) + " x " + std::to_string(info.height) + ", " +
           counted(std::ssize(objects), "object");
  if (!info.failedModels.empty()) {
    table += ", " + counted(std::ssize(info.failedModels), "model") + " failed or skipped";
  }
  table += "\n";
  if (objects.empty()) return table;

  const std::vector<Column> cells = tableColumns(objects);
  std::vector<int> widths;
  std::vector<std::string> row;
  for (const Column& column : cells) {
    int width = displayWidth(column.head);
    for (const std::string& cell : column.cells) width = std::max(width, displayWidth(cell));
    widths.push_back(width);
    row.push_back(column.head);
  }
  appendRow(cells, widths, row, columns, &table);
  for (std::size_t i = 0; i < objects.size(); ++i) {
    for (std::size_t j = 0; j < cells.size(); ++j) row[j] = cells[j].cells[i];
    appendRow(cells, widths, row, columns, &table);
  }
  return table;
}

Json::Value objectJson(const VsaObject& object) {
  Json::Value json(Json::objectValue);
  if (isTextRegion(object)) {
    json["corners"].append(pointJson(object.left, object.top));
    json["corners"].append(pointJson(object.right, object.bottom));
    json["corners"].append(pointJson(object.cornerX2, object.cornerY2));
    json["corners"].append(pointJson(object.cornerX3, object.cornerY3));
  } else {
    for (const int side : {object.left, object.top, object.right, object.bottom}) {
      json["box"].append(side);
    }
  }
  json["score"] = jsonNumber(object.score);
  json["classId"] = object.classId;
  json["className"] = repairUtf8(object.className);
  if (object.angle != -1.0F) json["angle"] = jsonNumber(object.angle);
  for (const VsaShape& shape : object.shapes) {
    Json::Value points(Json::arrayValue);
    for (const VsaPoint& point : shape.points) points.append(pointJson(point.x, point.y));
    Json::Value entry;
    entry["tag"] = shape.tag;
    entry["points"] = points;
    json["shapes"].append(entry);
  }
  if (object.classifyId >= 0) {
    json["classifyScore"] = jsonNumber(object.classifyScore);
    json["classifyId"] = object.classifyId;
    json["classifyName"] = repairUtf8(object.classifyName);
  }
  if (object.textId >= 0) {
    json["text"] = repairUtf8(object.text);
    json["textScore"] = jsonNumber(object.textScore);
  }
  for (const float value : object.feature) json["feature"].append(jsonNumber(value));
  return json;
}

std::string frameJson(const FrameInfo& info, const std::vector<VsaObject>& objects) {
  Json::Value json(Json::objectValue);
  setPath(&json, "input", info.input);
  json["frame"] = static_cast<Json::Int64>(info.index);
  if (info.time) json["time"] = roundedSeconds(*info.time);
  if (info.pages > 1) {
    json["page"] = static_cast<Json::Int64>(info.page());
    json["pages"] = static_cast<Json::Int64>(info.pages);
  }
  json["width"] = info.width;
  json["height"] = info.height;
  json["objects"] = Json::arrayValue;
  for (std::size_t i = 0; i < objects.size(); ++i) {
    Json::Value& entry = json["objects"].append(objectJson(objects[i]));
    if (i < info.crops.size() && !info.crops[i].empty()) setPath(&entry, "crop", info.crops[i]);
  }
  for (const int model : info.failedModels) json["failedModels"].append(model);
  return jsonLine(json);
}

std::string errorJson(const std::string& input, const std::string& reason) {
  Json::Value json(Json::objectValue);
  setPath(&json, "input", input);
  json["error"] = repairUtf8(reason);
  return jsonLine(json);
}

std::string blockTable(const FrameInfo& info, const VsaFrame& block) {
  std::string found;
  for (const VsaObject& object : block.audioObjects) {
    found +=
        (found.empty() ? "" : ", ") + printable(object.className) + " " + fixed(object.score, 3);
  }
  if (found.empty()) {
    found = block.audioClassified       ? "recognised " + fixed(block.audioScore, 3)
            : info.failedModels.empty() ? "nothing"
                                        : "failed";
  }
  const double start = info.time.value_or(0.0);
  return printable(info.input) + ": " + fixed(start, 3) + " s to " +
         fixed(start + info.duration, 3) + " s: " + found + "\n";
}

std::string blockJson(const FrameInfo& info, const VsaFrame& block) {
  Json::Value json(Json::objectValue);
  setPath(&json, "input", info.input);
  json["frame"] = static_cast<Json::Int64>(info.index);
  json["time"] = roundedSeconds(info.time.value_or(0.0));
  json["duration"] = roundedSeconds(info.duration);
  json["classified"] = block.audioClassified;
  json["score"] = jsonNumber(block.audioScore);
  json["objects"] = Json::arrayValue;
  for (const VsaObject& object : block.audioObjects) {
    json["objects"].append(objectJson(object)).removeMember("box");  // audio has no position
  }
  for (const int model : info.failedModels) json["failedModels"].append(model);
  return jsonLine(json);
}

}  // namespace vsa
