// What each model demands of its network, in the words of the public header and the documentation.
#include "ModelTable.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <string_view>

namespace vsa {
namespace {

// Classes of the library's built-in dictionary, the blank included.
constexpr std::int64_t kBuiltInClasses = 6625;
constexpr std::int64_t kMaskCoefficients = 32;

bool isOneOf(std::int64_t side, std::int64_t wanted) {
  return side == wanted || side == kAnySize;
}

// Why an input cannot take one picture; empty where it can.
std::string inputMisfit(const ModelRow& row, const ModelFile& file) {
  if (file.inputs.size() != 1) {
    return "it has " + std::to_string(file.inputs.size()) + " inputs, and the library fills one";
  }
  const Port& input = file.inputs[0];
  const auto& shape = input.shape;
  const bool isPicture = input.type == "f32" && (!input.ranked || shape.size() == 4) &&
                         (!input.ranked || isOneOf(shape[1], 3));
  if (!isPicture) return "its input is " + input.text() + ", not f32 [1,3,height,width]";
  if (input.ranked && !isOneOf(shape[0], 1)) {
    return "its input takes " + std::to_string(shape[0]) + " pictures at once";
  }
  // Of the detectors OpenVINO's want all sides fixed, ONNX Runtime's height and width.
  const std::size_t firstFixed = file.engine == "OpenVINO" ? 0 : 2;
  if (row.isYolo() &&
      (!input.ranked || std::any_of(shape.begin() + static_cast<std::ptrdiff_t>(firstFixed),
                                    shape.end(), [](auto side) { return side < 1; }))) {
    return "its input is " + input.text() + ", and the detector wants a fixed size";
  }
  return "";
}

// The values of a candidate in [1, values, N] (`inColumns`) or [1, N, values]; nothing where the
// output is no such table.
std::optional<std::int64_t> valuesOf(const Port& output, bool inColumns, std::int64_t least) {
  if (output.type != "f32" || !output.ranked || output.shape.size() != 3 ||
      !isOneOf(output.shape[0], 1)) {
    return std::nullopt;
  }
  const std::int64_t values = output.shape[inColumns ? 1 : 2];
  return values == kAnySize || values >= least ? std::optional(values) : std::nullopt;
}

// Whether a table is rather to be read with rows for columns: candidates are many, values few.
bool isTransposed(const Port& output, bool inColumns) {
  const std::int64_t values = output.shape[inColumns ? 1 : 2];
  const std::int64_t candidates = output.shape[inColumns ? 2 : 1];
  return values > candidates && candidates >= 5;
}

// How many numbers an output of one row has; nothing where it has several rows.
std::optional<std::int64_t> lengthOf(const Port& output) {
  if (output.type != "f32" || !output.ranked) return std::nullopt;
  std::int64_t length = 1;
  for (std::size_t i = 0; i < output.shape.size(); ++i) {
    const std::int64_t side = output.shape[i];
    if (side == 1 || (i == 0 && side == kAnySize)) continue;
    if (length != 1 || side == 0) return std::nullopt;
    length = side;
  }
  return length;
}

bool isPrototype(const Port& port) {
  return port.type == "f32" && port.ranked && port.shape.size() == 4 &&
         port.shape[1] == kMaskCoefficients;
}

// Classes of a recogniser's output: -1 where they are open, nothing where it is none.
std::optional<std::int64_t> alphabetOf(const Port& output, bool anyLayout) {
  const auto& shape = output.shape;
  if (output.type != "f32" || !output.ranked) return std::nullopt;
  if (!anyLayout) {
    const bool isLine = shape.size() == 3 && isOneOf(shape[0], 1);
    return isLine ? std::optional(shape[2]) : std::nullopt;
  }
  if (shape.size() == 2) return std::max(shape[0], shape[1]);
  if (shape.size() != 3) return std::nullopt;
  if (shape[1] == 1) return shape[2];
  return isOneOf(shape[0], 1) ? std::optional(std::max(shape[1], shape[2])) : std::nullopt;
}

void judgeYolo(const ModelRow& row, const ModelFile& file, const std::string& other, Fit* fit) {
  const Port& output = file.outputs[0];
  const bool inColumns = row.head != Head::kYolo5 && row.head != Head::kYolo26;
  const std::map<Head, std::int64_t> extra = {{Head::kYolo8, 4}, {Head::kObb, 5},
                                              {Head::kPose, 5},  {Head::kSeg, 36},
                                              {Head::kYolo5, 5}, {Head::kYolo26, 5}};
  const std::int64_t fixed = extra.at(row.head);
  const std::optional<std::int64_t> values = valuesOf(output, inColumns, fixed + 1);
  const bool hasMasks = file.outputs.size() > 1 && isPrototype(file.outputs[1]);
  if (row.head == Head::kYolo26) {
    // The library takes any six columns or more, and that is what the doubt is for.
    const bool takes = output.type == "f32" && output.ranked && output.shape.size() == 3 &&
                       isOneOf(output.shape[0], 1) &&
                       (output.shape[2] == kAnySize || output.shape[2] >= 6);
    if (!takes) fit->misfit = other;
    if (takes && output.shape[2] > 6) {
      fit->doubt = "its output " + output.text() +
                   " has more than six columns, as YOLO26 in its default form has, and would be "
                   "misread: export it with nms=False, which gives [1,300,6]";
    }
    fit->likelihood = output.ranked && output.shape.size() == 3 && output.shape[1] <= 1000 ? 2 : 1;
  } else if (!values || (row.head == Head::kSeg && !hasMasks)) {
    fit->misfit = other;
  } else if (row.head != Head::kSeg && hasMasks) {
    fit->misfit = "its second output holds masks, as that of a segmentation network";
  } else if (*values != kAnySize) {
    fit->classes = *values - fixed;
    if (row.head == Head::kPose && fit->classes % 3 != 0) fit->misfit = other;
    if (row.head == Head::kPose) fit->classes /= 3;
    if (row.head == Head::kPose) fit->likelihood = fit->classes == 17 ? 2 : 0;
    if (row.head == Head::kYolo8) fit->likelihood = 1;
    if (row.head != Head::kSeg && isTransposed(output, inColumns)) {
      fit->doubt = "its output " + output.text() + " would have more values than candidates, and " +
                   std::string(row.outputs) + " is meant";
    }
  }
  const bool isOpen = output.ranked && std::ranges::count(output.shape, kAnySize) > 0;
  if (fit->misfit.empty() && file.engine == "ONNXRuntime" && isOpen) {
    fit->misfit = "its output " + output.text() + " has no fixed size";
  }
}

void judgeText(const ModelRow& row, const ModelFile& file, const std::string& other, Fit* fit) {
  const Port& output = file.outputs[0];
  const auto [height, width] = inputSizeOf(file);
  const std::string size = std::to_string(width) + " x " + std::to_string(height);
  fit->likelihood = 1;
  if (row.head == Head::kText) {
    if (output.type != "f32" || !output.ranked || output.shape.size() != 4 ||
        !isOneOf(output.shape[1], 1)) {
      fit->misfit = other;
    } else if (height > 0 || width > 0) {
      fit->doubt =
          "its input has a fixed side, so that only frames that shrink to just its size "
          "can be taken: export it with open height and width";
    }
    return;
  }
  const std::optional<std::int64_t> classes = alphabetOf(output, row.head == Head::kAlphabet);
  if (!classes || *classes == 0 || *classes == 1) {
    fit->misfit = other;
    return;
  }
  fit->classes = std::max<std::int64_t>(*classes, 0);
  if (row.head == Head::kLine && fit->classes == kBuiltInClasses) fit->likelihood = 3;
  // A table of boxes has the same shapes; a line of text is wide.
  if (height > 0 && width >= 2 * height) ++fit->likelihood;
  if (height > 0 && width > 0 && width < 2 * height) {
    fit->doubt = "its input of " + size + " is not wide, as a line of text is";
  }
}

void judgeNumbers(const ModelRow& row, const ModelFile& file, const std::string& other, Fit* fit) {
  const std::optional<std::int64_t> length = lengthOf(file.outputs[0]);
  if (!length || (*length != kAnySize && *length < std::max<std::int64_t>(row.numbers, 2))) {
    fit->misfit = other;
  } else if (row.isClassifier()) {
    fit->classes = std::max<std::int64_t>(*length, 0);
  } else if (*length > row.numbers) {
    fit->doubt = "of its " + std::to_string(*length) + " numbers only the first " +
                 std::to_string(row.numbers) + " would be used";
  } else {
    fit->likelihood = 2;
  }
}

// Whether a network for that task can go with the row; of tasks that are not known all can.
bool suits(const ModelRow& row, const std::string& task) {
  const std::map<std::string, std::vector<Head>> heads = {
      {"detect", {Head::kYolo8, Head::kYolo5, Head::kYolo26}},
      {"obb", {Head::kObb}},
      {"pose", {Head::kPose}},
      {"segment", {Head::kSeg}},
      {"classify", {Head::kNumbers}}};
  const auto found = heads.find(task);
  return found == heads.end() || std::ranges::count(found->second, row.head) > 0;
}

// The quoted strings of "{0: 'cat', 1: \"dog's\"}", of a list or of a JSON object, keys left out.
std::vector<std::string> quotedStrings(std::string_view text) {
  std::vector<std::string> names;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char quote = text[i];
    if (quote != '\'' && quote != '"') continue;
    std::string name;
    for (++i; i < text.size() && text[i] != quote; ++i) {
      if (text[i] == '\\' && i + 1 < text.size()) ++i;
      name += text[i];
    }
    const std::size_t next = text.find_first_not_of(' ', std::min(i + 1, text.size()));
    if (next == std::string_view::npos || text[next] != ':') names.push_back(std::move(name));
  }
  return names;
}

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(separator), text.size());
    if (end > 0) parts.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

}  // namespace

const std::vector<ModelRow>& modelRows() {
  static const std::vector<ModelRow> rows = {
      {"Detect", "YOLO8", Head::kYolo8, true, "[1, 4 + classes, N]", 0, 0},
      {"Detect", "YOLO5", Head::kYolo5, true, "[1, N, 5 + classes]", 0, 0},
      {"Detect", "YOLO26", Head::kYolo26, true, "[1, N, 6]", 0, 0},
      {"Detect", "YOLO8-OBB", Head::kObb, false, "[1, 4 + classes + 1, N]", 0, 0},
      {"Detect", "YOLO8-POSE", Head::kPose, false, "[1, 5 + 3 K, N] for K key points", 0, 0},
      {"Detect", "YOLO8-Seg", Head::kSeg, false, "[1, 4 + classes + 32, N] with [1, 32, H, W]", 0,
       0},
      {"Detect", "PaddleOCR", Head::kText, false, "[1, 1, H, W]", 960, 960},
      {"Track", "PaddleOCR", Head::kLine, false, "[1, T, classes]", 640, 48},
      {"Track", "VsOCR", Head::kAlphabet, false, "a table of steps and classes", 128, 32},
      {"Track", "DeepSort", Head::kNumbers, false, "a row of 256 numbers", 128, 256, 256},
      {"Track", "VsFaceNet", Head::kNumbers, false, "a row of 128 numbers", 160, 160, 128},
      {"Classify", "ResNet", Head::kNumbers, false, "a row of scores", 224, 224},
      {"Classify", "AudioNet", Head::kNumbers, false, "a row of scores", 100, 128},
  };
  return rows;
}

const ModelRow* findRow(const std::string& category, const std::string& modelName) {
  const auto& rows = modelRows();
  const auto row = std::ranges::find_if(rows, [&](const ModelRow& entry) {
    return entry.category == category && entry.modelName == modelName;
  });
  return row == rows.end() ? nullptr : &*row;
}

Notes notesOf(const ModelFile& file) {
  const auto value = [&file](const char* key) {
    const auto found = file.metadata.find(key);
    return found == file.metadata.end() ? std::string() : found->second;
  };
  Notes notes;
  notes.task = value("task");
  if (!value("names").empty()) {
    notes.names = quotedStrings(value("names"));
  } else if (!value("labels").empty()) {
    // One word a class, with underscores for blanks.
    notes.names = split(value("labels"), ' ');
    for (std::string& name : notes.names) std::ranges::replace(name, '_', ' ');
  } else {
    notes.names = split(value("character"), '\n');
  }
  const std::string size = value("imgsz");
  for (std::size_t i = 0; (i = size.find_first_of("0123456789", i)) != std::string::npos;) {
    std::int64_t side = 0;
    i = static_cast<std::size_t>(
        std::from_chars(size.data() + i, size.data() + size.size(), side).ptr - size.data());
    notes.size.push_back(side);
  }
  if (notes.size.size() == 1) notes.size.push_back(notes.size[0]);
  if (notes.size.size() != 2) notes.size.clear();
  return notes;
}

std::pair<std::int64_t, std::int64_t> inputSizeOf(const ModelFile& file) {
  if (file.inputs.empty() || !file.inputs[0].ranked || file.inputs[0].shape.size() != 4) {
    return {kAnySize, kAnySize};
  }
  return {file.inputs[0].shape[2], file.inputs[0].shape[3]};
}

Fit fitOf(const ModelRow& row, const ModelFile& file) {
  Fit fit;
  if (file.outputs.empty()) fit.misfit = "it has no output";
  if (fit.misfit.empty()) fit.misfit = inputMisfit(row, file);
  if (!fit.misfit.empty()) return fit;
  const std::string other =
      "its output is " + file.outputs[0].text() + ", not " + std::string(row.outputs);
  if (row.isYolo()) {
    judgeYolo(row, file, other, &fit);
  } else if (row.head == Head::kNumbers) {
    judgeNumbers(row, file, other, &fit);
  } else {
    judgeText(row, file, other, &fit);
  }
  const Notes notes = notesOf(file);
  const auto named = std::ssize(notes.names);
  const bool countsClasses =
      (row.isYolo() && row.head != Head::kPose && row.head != Head::kYolo26) || row.isClassifier();
  if (fit.misfit.empty() && !suits(row, notes.task)) {
    fit.misfit = "the file calls itself a network for the task \"" + notes.task + '"';
  } else if (fit.misfit.empty() && countsClasses && fit.classes > 0 && named > 0 &&
             fit.classes != named) {
    fit.misfit = "its output has room for " + std::to_string(fit.classes) +
                 " of the classes, and the file names " + std::to_string(named);
  } else if (fit.misfit.empty() && !row.onBothEngines && file.engine == "ONNXRuntime") {
    fit.misfit = "it runs on OpenVINO alone: \"ovc FILE\" makes the .xml of it";
  } else if (countsClasses && named > 0) {
    fit.likelihood += 2;
  }
  return fit;
}

}  // namespace vsa
