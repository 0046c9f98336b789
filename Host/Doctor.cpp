// The command "doctor": describes network files, checks pipeline files and writes new ones.
#include <TolCompatible/TolCompatible.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Command.h"
#include "DeviceNames.h"
#include "DoctorReport.h"
#include "ExportInfo.h"
#include "Messages.h"
#include "ModelFit.h"
#include "PipelineCheck.h"
#include "PipelineWriter.h"

#if defined(__linux__)
#include <link.h>
#endif

namespace vsa {
namespace {

namespace fs = std::filesystem;

struct Options {
  std::vector<std::string> files;  // networks (.xml, .onnx) and pipeline files (.json)
  std::string write;               // pipeline file to write for the networks; empty for none
  std::vector<std::string> as;     // model names for it, in the order of the networks
  bool strict = false;             // warnings also lead to a failure
};

// The loaded glog libraries. If there are two, each has its own sinks and flags.
std::vector<std::string> loadedGlogs() {
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

class Examination {
 public:
  Examination(const Options& options, Console* console)
      : options_(options), console_(*console), report_(console->columns()) {}

  int run() {
    for (const std::string& path : options_.files) {
      try {
        if (fs::path(path).extension() == ".json") {
          checkPipeline(path);
        } else {
          describeNetwork(path);
        }
      } catch (const std::exception& error) {
        report_.fileError(oneLine(error.what()));
      }
    }
    const std::vector<std::string> glogs = loadedGlogs();
    if (glogs.size() > 1) {
      report_.warn(0, "two different glog libraries are loaded, " + joined(glogs, " and ") +
                          ": log lines of one do not reach the sinks of the other; build "
                          "everything with the same one");
    }
    const int status = writeEntries();
    report_.addTotals();
    if (!console_.write(report_.text())) return kSomeFailed;
    if (status != kDone) return status;
    const bool failed = report_.errors() > 0 || (options_.strict && report_.warnings() > 0);
    return failed ? kSomeFailed : kDone;
  }

 private:
  void describeNetwork(const std::string& path) {
    const ModelFile file = readModelFile(path);
    report_.line(0, path + ": a network for " + file.engine);
    describeFile(file);
    const std::vector<const Family*> fitting = fittingFamilies(file);
    for (const Family* family : fitting) {
      const std::string classes = classesText(*family, fitOf(*family, file).classes);
      report_.line(2, "fits   " + family->category + " " + family->modelName +
                          (classes.empty() ? "" : " with " + classes));
    }
    for (const auto& [reason, names] : mismatchesOf(file)) {
      report_.line(2, "not    " + joined(names, ", ") + ": " + reason, 7);
    }
    if (fitting.empty()) return report_.error(2, "the network fits no model of the library");
    if (fitting.size() > 1 && options_.as.empty()) {
      report_.line(2,
                   "The shapes fit several models; the file does not specify which one it is for.");
    }
    const auto [height, width] = inputSizeOf(file);
    const std::string warning = squareWarning(width, height);
    if (fitting.front()->isYolo() && !warning.empty()) report_.warn(2, warning);
    if (!options_.write.empty()) networks_.push_back(file);
  }

  void describeFile(const ModelFile& file) {
    for (const Port& port : file.inputs)
      report_.line(2, "input  " + port.name + "  " + port.text());
    for (const Port& port : file.outputs) {
      report_.line(2, "output " + port.name + "  " + port.text());
    }
    const ExportInfo info = exportInfoOf(file);
    if (!info.task.empty()) report_.line(2, "task   " + info.task);
    if (!info.size.empty()) report_.line(2, "size   " + sizeText(info.size[1], info.size[0]));
    if (const auto stride = file.metadata.find("stride"); stride != file.metadata.end()) {
      report_.line(2, "stride " + stride->second);
    }
    if (info.names.empty()) return;
    constexpr std::size_t kMaxNames = 6;
    std::vector<std::string> names = info.names;
    if (names.size() > kMaxNames) {
      names.resize(kMaxNames);
      names.emplace_back("...");
    }
    report_.line(2, "names  " + std::to_string(info.names.size()) + ": " + joined(names, ", "), 7);
  }

  void checkPipeline(const std::string& path) {
    const Pipeline pipeline = readPipeline(path);
    std::vector<Findings> all = checkOrder(pipeline.models);
    const VsaDeviceSet& devices = deviceNames();
    report_.line(0, path + ": " + counted(std::ssize(pipeline.models), "model"));
    for (std::size_t i = 0; i < pipeline.models.size(); ++i) {
      const ModelSpec& spec = pipeline.models[i];
      Findings& findings = all[i];
      Findings own = examineModel(spec, devices);
      std::ranges::move(own.errors, std::back_inserter(findings.errors));
      std::ranges::move(own.warnings, std::back_inserter(findings.warnings));
      findings.notes = std::move(own.notes);
      report_.line(2, spec.name + (findings.errors.empty() ? ": ok" : ""));
      for (const std::string& sentence : findings.errors) report_.error(4, sentence);
      for (const std::string& sentence : findings.warnings) report_.warn(4, sentence);
      for (const std::string& sentence : findings.notes) report_.line(4, "note: " + sentence);
    }
  }

  // If --write is given, writes a pipeline file for the networks that were described.
  int writeEntries() {
    if (options_.write.empty()) return kDone;
    const fs::path target(options_.write);
    try {
      if (networks_.empty()) throw std::runtime_error("no network fits, so no pipeline is written");
      if (fs::exists(target)) throw std::runtime_error("the file exists and is not overwritten");
      if (!options_.as.empty() && options_.as.size() != networks_.size()) {
        throw std::runtime_error("--as must be given once for each network that fits");
      }
      const std::vector<Choice> choices = chosenModels();
      std::vector<std::string> entries;
      for (const auto& [file, family, hasRealNames, text] : choices) {
        entries.push_back(text);
        if (!hasRealNames) {
          report_.warn(0, file->path +
                              " does not contain class names: replace \"class 0\" and so on in " +
                              options_.write);
        }
      }
      writePipeline(options_.write, entries);
      describeWritten(choices);
      return kDone;
    } catch (const std::exception& error) {
      console_.note(options_.write + ": " + oneLine(error.what()));
      return kUsageError;
    }
  }

  // A network and the model that it is written as.
  struct Choice {
    const ModelFile* file;
    const Family* family;
    bool hasRealNames;
    std::string text;
  };

  Choice choiceOf(const ModelFile& file, const Family& family) const {
    const fs::path folder = fs::absolute(options_.write).parent_path();
    PipelineEntry entry = pipelineEntry(family, file, folder);
    return {&file, &family, entry.hasRealNames, std::move(entry.text)};
  }

  // The models for all networks, detectors before the models that work on their objects.
  std::vector<Choice> chosenModels() const {
    std::vector<Choice> choices;
    for (std::size_t i = 0; i < networks_.size(); ++i) {
      choices.push_back(choiceOf(networks_[i], familyOf(i)));
    }
    const auto isGiven = [&choices](Gives gives) {
      return std::ranges::any_of(choices,
                                 [=](const Choice& c) { return c.family->gives == gives; });
    };
    // Of two text recognisers, the one that suits the detector is chosen.
    const bool hasBoxes = isGiven(Gives::kBoxes);
    const bool hasRegions = isGiven(Gives::kTextRegions);
    const auto isSuited = [=](const Family& family) {
      return family.needs == Needs::kNothing ||
             (family.needs == Needs::kBoxes ? hasBoxes : hasRegions);
    };
    for (Choice& choice : choices) {
      if (!options_.as.empty() || isSuited(*choice.family)) continue;
      for (const Family* other : fittingFamilies(*choice.file)) {
        if (other->gives != choice.family->gives || !isSuited(*other)) continue;
        Choice better = choiceOf(*choice.file, *other);
        if (better.hasRealNames || !choice.hasRealNames) choice = std::move(better);
        break;
      }
    }
    const auto takesAudio = [](const Choice& choice) {
      return choice.family->takes == Media::kAudio;
    };
    const auto audio = std::ranges::count_if(choices, takesAudio);
    if (audio != 0 && audio != std::ssize(choices)) {
      throw std::runtime_error(
          "models that take audio and models that take images belong in two pipelines");
    }
    std::ranges::stable_partition(
        choices, [](const Choice& choice) { return choice.family->needs == Needs::kNothing; });
    return choices;
  }

  // The family that --as names for the network, else the most likely one.
  const Family& familyOf(std::size_t index) const {
    const std::vector<const Family*> fitting = fittingFamilies(networks_[index]);
    if (options_.as.empty()) return *fitting.front();
    const auto family = std::ranges::find(fitting, options_.as[index], &Family::modelName);
    if (family == fitting.end()) {
      throw std::runtime_error(networks_[index].path + " does not fit the model " +
                               inQuotes(options_.as[index]));
    }
    return **family;
  }

  // Reports the models in the file that was written, and those that no order could make work.
  void describeWritten(const std::vector<Choice>& choices) {
    report_.line(0, options_.write + ": written");
    const std::vector<Findings> order = checkOrder(readPipeline(options_.write).models);
    for (std::size_t i = 0; i < choices.size(); ++i) {
      const auto& [file, family, hasRealNames, text] = choices[i];
      std::string others;
      for (const Family* other : fittingFamilies(*file)) {
        if (other != family) others += (others.empty() ? "" : ", ") + other->modelName;
      }
      report_.line(2, "models[" + std::to_string(i) + "] " + family->category + " " +
                          family->modelName + ": " + file->path +
                          (others.empty() ? "" : " (--as selects another: " + others + ")"));
      for (const std::string& sentence : order[i].errors) report_.error(4, sentence);
      for (const std::string& sentence : order[i].warnings) report_.warn(4, sentence);
    }
  }

  const Options& options_;
  Console& console_;
  DoctorReport report_;
  std::vector<ModelFile> networks_;
};

class Doctor : public Command {
 public:
  Doctor() : Command("doctor", "Check networks and pipelines") {}

 protected:
  void addOptions(CLI::App* command) override {
    command
        ->add_option("MODEL", options_.files,
                     "Networks (.xml, .onnx), which are described with the models that they fit; "
                     "pipelines (.json), which are checked against their networks")
        ->type_name("")
        ->required();
    CLI::Option* write =
        command->add_option("-w,--write", options_.write, "Write a pipeline file for the networks")
            ->type_name("FILE");
    command->add_option("--as", options_.as, "Model to use if several fit; once for each network")
        ->type_name("NAME")
        ->expected(1)
        ->take_all()
        ->needs(write);
    command->add_flag("--strict", options_.strict, "Exit with 1 for warnings too");
  }

  int run(Console* console, const LogToConsole* /*log*/) const override {
    return Examination(options_, console).run();
  }

 private:
  Options options_;
};

}  // namespace

std::unique_ptr<Command> makeDoctor() {
  return std::make_unique<Doctor>();
}

}  // namespace vsa
