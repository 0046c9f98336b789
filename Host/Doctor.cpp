// The command "doctor".
#include "Doctor.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <stdexcept>

#include "Console.h"
#include "Log.h"
#include "ModelTable.h"
#include "Report.h"
#include "Run.h"
#include "Text.h"

#if defined(__linux__)
#include <link.h>
#endif

namespace vsa {
namespace {

namespace fs = std::filesystem;

using Names = std::vector<std::string>;

std::string quoted(const std::string& text) {
  return '"' + printable(text) + '"';
}

std::string setting(const std::string& key, std::int64_t value) {
  return '"' + key + "\": " + std::to_string(value);
}

std::string sizeText(std::int64_t width, std::int64_t height) {
  const auto side = [](std::int64_t value) {
    return value < 0 ? std::string("any") : std::to_string(value);
  };
  return side(width) + " x " + side(height);
}

std::string counted(std::size_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun +
         (count == 1                                     ? ""
          : noun.ends_with("ch") || noun.ends_with("ss") ? "es"
                                                         : "s");
}

// The files that have the name of glog's library. Two of them have two sets of sinks and flags.
Names loadedGlogs() {
  std::set<std::string> paths;
#if defined(__linux__)
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* found) {
        const fs::path path = info->dlpi_name;
        std::error_code unused;
        if (path.filename().string().starts_with("libglog.")) {
          static_cast<std::set<std::string>*>(found)->insert(fs::canonical(path, unused).string());
        }
        return 0;
      },
      &paths);
#endif
  return {paths.begin(), paths.end()};
}

// The rows that the file is made for, the likeliest first.
std::vector<const ModelRow*> goodRows(const ModelFile& file) {
  std::vector<const ModelRow*> good;
  for (const ModelRow& row : modelRows()) {
    if (fitOf(row, file).isGood()) good.push_back(&row);
  }
  std::ranges::stable_sort(good, [&](const ModelRow* a, const ModelRow* b) {
    return fitOf(*a, file).likelihood > fitOf(*b, file).likelihood;
  });
  return good;
}

std::string classesText(const ModelRow& row, std::int64_t classes) {
  if (classes < 1) return "";
  return counted(static_cast<std::size_t>(classes),
                 row.head == Head::kPose ? "key point" : "class");
}

// The value as one line of JSON without its line break.
std::string json(const Json::Value& value) {
  std::string line = jsonLine(value);
  line.pop_back();
  return line;
}

Json::Value namesJson(const Names& names) {
  Json::Value list(Json::arrayValue);
  for (const std::string& name : names) list.append(repairUtf8(name));
  return list;
}

// Names for the classes of a network; `isKnown` tells whether the file had them.
Names namesFor(const ModelRow& row, const ModelFile& file, bool* isKnown) {
  const Notes notes = notesOf(file);
  const std::int64_t classes = fitOf(row, file).classes;
  *isKnown = true;
  if (row.head == Head::kText) return {"text"};
  if (row.isEmbedding()) return {"object"};
  if (row.head == Head::kPose) return {notes.names.empty() ? "person" : notes.names.front()};
  if (row.head == Head::kLine && classes == 6625) return {"paddleocr"};
  if (row.head == Head::kLine || row.head == Head::kAlphabet) {
    Names alphabet = notes.names;
    alphabet.insert(alphabet.begin(), "");  // the blank
    if (std::ssize(alphabet) + 1 == classes) alphabet.emplace_back(" ");
    if (std::ssize(alphabet) == classes) return alphabet;
  } else if (!notes.names.empty()) {
    return notes.names;
  }
  *isKnown = false;
  Names names;
  for (std::int64_t i = 0; i < (classes > 0 ? classes : 80); ++i) {
    names.push_back("class " + std::to_string(i));
  }
  return names;
}

// One entry of a pipeline file, as people write it.
std::string entryText(const ModelRow& row, const ModelFile& file, const fs::path& folder,
                      bool* namesKnown) {
  const Fit fit = fitOf(row, file);
  const Notes notes = notesOf(file);
  auto [height, width] = inputSizeOf(file);
  if (!notes.size.empty() && row.isClassifier()) {
    if (height < 1) height = notes.size[0];
    if (width < 1) width = notes.size[1];
  }
  const fs::path path = fs::absolute(file.path);
  std::error_code unused;
  fs::path root = fs::relative(path.parent_path(), folder, unused);
  if (root.empty()) root = path.parent_path();
  std::string text = "    {\n";
  const auto add = [&text](const char* key, const std::string& value) {
    text += std::string(text.ends_with("{\n") ? "" : ",\n") + "      \"" + key + "\": " + value;
  };
  add("category", quoted(row.category));
  add("modelName", quoted(row.modelName));
  add("engine", quoted(file.engine));
  add("modelRoot", json(root.generic_string()));
  add("modelFile",
      json((file.engine == "OpenVINO" ? path.stem() : path.filename()).generic_string()));
  add("classNames", json(namesJson(namesFor(row, file, namesKnown))));
  if (row.head == Head::kPose) add("classCount", std::to_string(fit.classes));
  add("inputWidth", std::to_string(width > 0 ? width : row.width));
  if (row.head != Head::kText) add("inputHeight", std::to_string(height > 0 ? height : row.height));
  if (row.head == Head::kText) add("scoreThreshold", "0.6");
  if (row.isClassifier()) add("scoreThreshold", "0.5");
  if (row.isYolo()) add("scoreThreshold", "0.25");
  if (row.head == Head::kYolo5) add("objThreshold", "0.25");
  if (row.isYolo() && row.head != Head::kYolo26) add("nmsThreshold", "0.45");
  return text + "\n    }";
}

// What is wrong with one model of a pipeline.
struct Findings {
  std::vector<std::string> wrong;
  std::vector<std::string> warnings;
  std::vector<std::string> notes = {};  // what is good to know, and no fault
};

// What is to be done where the library has no such model.
std::string unknownModel(const VsaModelConfig& config) {
  std::string sentence = "the library has no model " + quoted(config.modelName) + " for category " +
                         quoted(config.category) + " on engine " + quoted(config.engine);
  Names names;
  for (const ModelRow& row : modelRows()) {
    if (row.modelName != config.modelName) {
      names.push_back(row.modelName);
    } else if (row.category != config.category) {
      return sentence + ": set \"category\": " + quoted(row.category);
    } else {
      return sentence + ": convert the file with ovc and set \"engine\": \"OpenVINO\"";
    }
  }
  return sentence + suggestion(config.modelName, names);
}

// Whether the file's own names are those of the settings.
void compareNames(const Names& given, const Names& own, Findings* findings) {
  if (given.size() != own.size()) return;
  const auto [mine, theirs] = std::ranges::mismatch(given, own);
  if (mine == given.end()) return;
  findings->warnings.push_back("classNames[" + std::to_string(mine - given.begin()) + "] is " +
                               quoted(*mine) + ", which the file calls " + quoted(*theirs) +
                               ": check the order of the names");
}

void checkClasses(const VsaModelConfig& config, const ModelRow& row, const ModelFile& file,
                  std::int64_t classes, Findings* findings) {
  const auto named = std::ssize(config.classNames);
  const auto count = std::int64_t{config.classCount};
  const std::string has = "the network has " + classesText(row, classes);
  if (row.head == Head::kPose) {
    if (classes > 0 && (count == 1 ? 17 : count) != classes) {
      findings->wrong.push_back("classCount is " + std::to_string(count) +
                                (count == 1 ? ", which means 17 key points," : "") + " and " + has +
                                ": set " + setting("classCount", classes));
    }
    return;
  }
  if (row.head == Head::kLine || row.head == Head::kAlphabet) {
    const bool isBuiltIn = row.head == Head::kLine && config.classNames == Names{"paddleocr"};
    const std::int64_t characters = isBuiltIn ? 6625 : named;
    // Dictionaries of lines often go without the space, which is the last class.
    const bool fits = characters == classes || (row.head == Head::kLine && named + 1 == classes);
    const auto& shape = file.outputs[0].shape;
    if (classes > 0 && !fits && row.head == Head::kAlphabet && shape.size() == 3 && shape[1] != 1 &&
        std::min(shape[1], shape[2]) == named) {
      findings->wrong.push_back(
          "its output is " + file.outputs[0].text() +
          ", whose longer side counts as the classes, and classNames has as many names as the "
          "shorter one: export the network with the output [T, 1, classes]");
    } else if (classes > 0 && !fits) {
      findings->wrong.push_back(
          std::string(isBuiltIn ? "the built-in dictionary is for " : "classNames has ") +
          counted(static_cast<std::size_t>(characters), isBuiltIn ? "class" : "name") + " and " +
          has + ": give its own alphabet in classNames, entry 0 standing for the blank");
    }
    return;
  }
  if (row.head == Head::kText || row.isEmbedding()) return;
  if (classes > 0 && count != classes && named == classes) {
    findings->wrong.push_back("classCount is " + std::to_string(count) + " and " + has + ": set " +
                              setting("classCount", classes));
  } else if (classes > 0 && named != classes) {
    findings->wrong.push_back(
        "classNames has " + counted(static_cast<std::size_t>(named), "name") + " and " + has +
        ": list the names of all of them in its order" +
        (count == classes || count == named ? "" : " and set " + setting("classCount", classes)));
  }
  compareNames(config.classNames, notesOf(file).names, findings);
}

void checkSize(const VsaModelConfig& config, const ModelRow& row, const ModelFile& file,
               Findings* findings) {
  if (row.head == Head::kText) return;
  const auto [height, width] = inputSizeOf(file);
  // The line reader knows what to do without a size.
  const bool hasDefault = row.head == Head::kLine;
  const std::int64_t givenWidth =
      config.inputWidth == 0 && hasDefault ? 320 : std::int64_t{config.inputWidth};
  const std::int64_t givenHeight =
      config.inputHeight == 0 && hasDefault ? 48 : std::int64_t{config.inputHeight};
  const auto differs = [](std::int64_t given, std::int64_t wanted) {
    return wanted > 0 ? given != wanted : given == 0;
  };
  if (!differs(givenWidth, width) && !differs(givenHeight, height)) return;
  findings->wrong.push_back("inputWidth x inputHeight is " + sizeText(givenWidth, givenHeight) +
                            " and the network takes " + sizeText(width, height) + ": set " +
                            setting("inputWidth", width > 0 ? width : row.width) + ", " +
                            setting("inputHeight", height > 0 ? height : row.height));
}

// Compares the settings of one model with its network.
Findings checkModel(const VsaModelConfig& config, const ModelFile& file) {
  Findings findings;
  const ModelRow* row = findRow(config.category, config.modelName);
  if (row != nullptr && file.engine != config.engine) {
    findings.wrong.push_back(
        "the file is for " + file.engine + ", not for " + config.engine +
        ": set \"engine\": " + quoted(file.engine) +
        (file.engine == "OpenVINO" ? " and leave \".xml\" out of modelFile" : ""));
    return findings;
  }
  if (row == nullptr || (config.engine == "ONNXRuntime" && !row->onBothEngines)) {
    findings.wrong.push_back(unknownModel(config));
    return findings;
  }
  const Fit fit = fitOf(*row, file);
  if (!fit.misfit.empty()) {
    std::string advice;
    for (const ModelRow* other : goodRows(file)) {
      advice += (advice.empty() ? ": it fits " : " or ") + other->category + " " + other->modelName;
    }
    if (advice.empty()) advice = ": see docs/exporting.md for how to export such a network";
    findings.wrong.push_back("the network is none for " + config.modelName + ", as " + fit.misfit +
                             advice);
    return findings;
  }
  checkClasses(config, *row, file, fit.classes, &findings);
  checkSize(config, *row, file, &findings);
  if (!fit.doubt.empty()) findings.warnings.push_back(fit.doubt);
  if (row->isYolo()) {
    const auto [height, width] = inputSizeOf(file);
    if (height != width) {
      findings.warnings.push_back("the input of " + sizeText(width, height) +
                                  " is not square: boxes are right only for frames that fill its "
                                  "height; export the network with a square input");
    }
    if (config.scoreThreshold == 0.0F) {
      findings.warnings.push_back(
          "scoreThreshold is 0, so that all candidates count: set it to 0.25 or so");
    }
  } else if (row->head == Head::kText) {
    findings.notes.push_back(
        "the detector's memory grows with every new size of frame: feed it frames of few sizes");
  }
  return findings;
}

// Finds models that can do nothing with what the models before them yield; one entry a model.
std::vector<Findings> checkChain(const std::vector<ModelSpec>& models) {
  std::vector<Findings> chain(models.size());
  bool hasBoxes = false;
  bool hasCorners = false;
  for (std::size_t i = 0; i < models.size(); ++i) {
    const VsaModelConfig& config = models[i].config;
    const ModelRow* row = findRow(config.category, config.modelName);
    if (row == nullptr || models[i].takesSound()) continue;
    if (config.category == "Detect") {
      (row->head == Head::kText ? hasCorners : hasBoxes) = true;
    } else if (!hasBoxes && !hasCorners) {
      chain[i].warnings.push_back(
          "it works on the objects that a detector found, and there is no detector "
          "before it: put one there, or give recorded objects with --objects");
    } else if (row->head == Head::kLine && !hasCorners) {
      chain[i].warnings.push_back(
          "the detector before it yields no corners, so that it reads the box as one upright line: "
          "for slanted text put the text detector (Detect PaddleOCR) before it");
    } else if (row->head != Head::kLine && !hasBoxes) {
      chain[i].wrong.push_back(
          "it works on boxes, and the text detector before it yields corners: put a "
          "YOLO detector before it" +
          std::string(row->head == Head::kAlphabet ? ", or read with PaddleOCR" : ""));
    }
  }
  return chain;
}

class Doctor {
 public:
  Doctor(const DoctorOptions& options, Console* console) : options_(options), console_(*console) {}

  int go() {
    for (const std::string& path : options_.files) {
      try {
        if (fs::path(path).extension() == ".json") {
          examinePipeline(path);
        } else {
          examineFile(path);
        }
      } catch (const std::exception& error) {
        line(0, oneLine(error.what()));
        ++wrong_;
      }
    }
    const Names glogs = loadedGlogs();
    if (glogs.size() > 1) {
      std::string list;
      for (const std::string& path : glogs) list += (list.empty() ? "" : " and ") + path;
      warn(0, "two different glog libraries are loaded, " + list +
                  ": log lines of one do not reach the sinks of the other; build all with one");
    }
    const int status = writePipeline();
    if (wrong_ + warnings_ == 0) {
      line(0, "nothing is wrong");
    } else {
      line(0, counted(wrong_, "mismatch") + ", " + counted(warnings_, "warning"));
    }
    if (!console_.write(text_)) return kSomeFailed;
    if (status != kDone) return status;
    return wrong_ > 0 || (options_.strict && warnings_ > 0) ? kSomeFailed : kDone;
  }

 private:
  void line(int indent, const std::string& text, int further = 2) {
    text_ += std::string(static_cast<std::size_t>(indent), ' ') +
             wrapped(printable(text), indent + further,
                     console_.columns() > 0 ? console_.columns() - 1 - indent : 0) +
             "\n";
  }
  void warn(int indent, const std::string& text) {
    line(indent, "warning: " + text);
    ++warnings_;
  }

  void tell(int indent, const Findings& findings) {
    for (const std::string& sentence : findings.wrong) line(indent, "wrong: " + sentence);
    wrong_ += findings.wrong.size();
    for (const std::string& sentence : findings.warnings) warn(indent, sentence);
    for (const std::string& sentence : findings.notes) line(indent, "note: " + sentence);
  }

  void examineFile(const std::string& path) {
    const ModelFile file = readModelFile(path);
    const Notes notes = notesOf(file);
    line(0, path + ": a network for " + file.engine);
    for (const Port& port : file.inputs) line(2, "input  " + port.name + "  " + port.text());
    for (const Port& port : file.outputs) line(2, "output " + port.name + "  " + port.text());
    if (!notes.task.empty()) line(2, "task   " + notes.task);
    if (!notes.size.empty()) line(2, "size   " + sizeText(notes.size[1], notes.size[0]));
    if (const auto stride = file.metadata.find("stride"); stride != file.metadata.end()) {
      line(2, "stride " + stride->second);
    }
    if (!notes.names.empty()) {
      constexpr std::size_t kShown = 6;
      std::string list;
      for (std::size_t i = 0; i < std::min(kShown, notes.names.size()); ++i) {
        list += i > 0 ? ", " : "";
        list += notes.names[i];
      }
      if (notes.names.size() > kShown) list += ", ...";
      line(2, "names  " + std::to_string(notes.names.size()) + ": " + list, 7);
    }
    const std::vector<const ModelRow*> good = goodRows(file);
    for (const ModelRow* row : good) {
      const std::string classes = classesText(*row, fitOf(*row, file).classes);
      line(2, "fits   " + row->category + " " + row->modelName +
                  (classes.empty() ? "" : " with " + classes));
    }
    // Rows that fail for the same reason share a line.
    std::vector<std::pair<std::string, std::string>> reasons;
    for (const ModelRow& row : modelRows()) {
      const Fit fit = fitOf(row, file);
      if (fit.isGood()) continue;
      const std::string& reason = fit.misfit.empty() ? fit.doubt : fit.misfit;
      const std::string name = row.category + " " + row.modelName;
      const auto same =
          std::ranges::find(reasons, reason, &std::pair<std::string, std::string>::first);
      if (same == reasons.end()) {
        reasons.emplace_back(reason, name);
      } else {
        same->second.append(", ").append(name);
      }
    }
    for (const auto& [reason, names] : reasons) {
      std::string text = "not    ";
      text.append(names).append(": ").append(reason);
      line(2, text, 7);
    }
    if (good.empty()) {
      line(2, "wrong: the network fits no model of the library");
      ++wrong_;
      return;
    }
    if (good.size() > 1 && options_.as.empty()) {
      line(2, "The shapes fit several models; the file does not say which is meant.");
    }
    const auto [height, width] = inputSizeOf(file);
    if (good.front()->isYolo()) warnOfShape(width, height);
    if (!options_.write.empty()) files_.push_back(file);
  }

  void warnOfShape(std::int64_t width, std::int64_t height) {
    if (width != height) {
      warn(2, "the input of " + sizeText(width, height) +
                  " is not square: boxes are right only for frames that fill its height");
    }
  }

  void examinePipeline(const std::string& path) {
    const Pipeline pipeline = readPipeline(path);
    const std::vector<Findings> chain = checkChain(pipeline.models);
    VsaDeviceSet devices;
    VsaGetDeviceSet(&devices);
    line(0, path + ": " + counted(pipeline.models.size(), "model"));
    for (std::size_t i = 0; i < pipeline.models.size(); ++i) {
      const ModelSpec& spec = pipeline.models[i];
      Findings findings = chain[i];
      try {
        const Findings own = checkModel(spec.config, readModelFile(spec.networkFile()));
        findings.wrong.insert(findings.wrong.end(), own.wrong.begin(), own.wrong.end());
        findings.warnings.insert(findings.warnings.end(), own.warnings.begin(), own.warnings.end());
        findings.notes = own.notes;
      } catch (const std::exception& error) {
        findings.wrong.push_back(oneLine(error.what()));
      }
      const std::string& device = spec.config.device;
      const bool isPlain = device.find_first_of(":.") == std::string::npos && device != "AUTO";
      if (spec.config.engine == "OpenVINO" && isPlain && !devices.contains("OpenVINO-" + device)) {
        findings.wrong.push_back("this machine has no device " + quoted(device) +
                                 " (see vsa devices): set \"device\": \"CPU\"");
      }
      line(2, spec.name + (findings.wrong.empty() ? ": in order" : ""));
      tell(4, findings);
    }
  }

  // Makes a pipeline file of the networks that were examined.
  int writePipeline() {
    if (options_.write.empty()) return kDone;
    const fs::path target(options_.write);
    try {
      if (files_.empty()) throw std::runtime_error("no network fits, so no pipeline is written");
      if (fs::exists(target)) {
        throw std::runtime_error("this file exists and is not overwritten");
      }
      if (!options_.as.empty() && options_.as.size() != files_.size()) {
        throw std::runtime_error("--as must be given once for each network that fits");
      }
      std::string entries;
      std::vector<Findings> unnamed;
      for (std::size_t i = 0; i < files_.size(); ++i) {
        bool namesKnown = false;
        const ModelRow& row = rowFor(i);
        entries += (i > 0 ? ",\n" : "") +
                   entryText(row, files_[i], fs::absolute(target).parent_path(), &namesKnown);
        if (!namesKnown) {
          warn(0, files_[i].path + " does not name its classes: replace \"class 0\" and so on in " +
                      options_.write);
        }
      }
      std::ofstream stream(target, std::ios::binary);
      stream << "{\n  \"models\": [\n" << entries << "\n  ]\n}\n";
      if (!stream.flush()) throw std::runtime_error("the file cannot be written");
      line(0, options_.write + ": written");
      return kDone;
    } catch (const std::exception& error) {
      console_.note(options_.write + ": " + oneLine(error.what()));
      return kUsageError;
    }
  }

  const ModelRow& rowFor(std::size_t index) const {
    const std::vector<const ModelRow*> good = goodRows(files_[index]);
    if (options_.as.empty()) return *good.front();
    const std::string& name = options_.as[index];
    const auto row = std::ranges::find_if(
        good, [&name](const ModelRow* entry) { return entry->modelName == name; });
    if (row == good.end()) {
      throw std::runtime_error(files_[index].path + " does not fit the model " + quoted(name));
    }
    return **row;
  }

  const DoctorOptions& options_;
  Console& console_;
  std::string text_;
  std::vector<ModelFile> files_;
  std::size_t wrong_ = 0;
  std::size_t warnings_ = 0;
};

}  // namespace

int examine(const DoctorOptions& options) {
  Console console;
  const LogToConsole log(&console, false);
  return Doctor(options, &console).go();
}

}  // namespace vsa
