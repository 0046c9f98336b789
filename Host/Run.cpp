// The command "run": checks the options against the pipeline, opens inputs and outputs, and passes
// each input to the frame loop.
#include <TolCompatible/TolCompatible.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <utility>

#include "Command.h"
#include "FrameLoop.h"
#include "Messages.h"
#include "PipelineCheck.h"
#include "PipelineWriter.h"
#include "Text.h"

namespace vsa {
namespace {

namespace fs = std::filesystem;

using Clock = std::chrono::steady_clock;

// Throws PipelineError if an option cannot be used with the pipeline.
void checkOptions(const RunOptions& options, const Pipeline& pipeline) {
  if (pipeline.takesAudio && !options.outputFolder.empty()) {
    throw PipelineError(options.pipeline, "--output draws on images, but these models take audio");
  }
  const std::pair<const char*, bool> forImages[] = {{"--crops", !options.cropsFolder.empty()},
                                                    {"--max-side", options.maxSide != 0},
                                                    {"--objects", !options.objectsFile.empty()},
                                                    {"--only", !options.only.empty()},
                                                    {"--text", options.text}};
  for (const auto& [name, given] : forImages) {
    if (given && pipeline.takesAudio) {
      throw PipelineError(options.pipeline,
                          std::string(name) + " is for images, but these models take audio");
    }
  }
  if (!options.objectsFile.empty()) return;  // recorded objects may be of any class and have text
  if (options.text && std::ranges::none_of(pipeline.models, [](const ModelSpec& spec) {
        return spec.family() != nullptr && spec.family()->readsText();
      })) {
    throw PipelineError(options.pipeline, "--text: no model reads text");
  }
  std::vector<std::string> classes;
  for (const ModelSpec& spec : pipeline.models) {
    if (spec.config.category != "Detect") continue;
    classes.insert(classes.end(), spec.config.classNames.begin(), spec.config.classNames.end());
  }
  for (const std::string& name : options.only) {
    if (std::ranges::find(classes, name) == classes.end()) {
      throw PipelineError(options.pipeline, "--only: no detector has a class " + inQuotes(name) +
                                                suggestion(name, classes));
    }
  }
}

// The files that the run reads, whether they exist or not.
std::vector<std::string> filesRead(const RunOptions& options, const Pipeline& pipeline,
                                   const std::vector<std::string>& inputs) {
  std::vector<std::string> files = inputs;
  files.insert(files.end(), {options.pipeline, options.objectsFile, options.fontFile});
  for (const ModelSpec& spec : pipeline.models) {
    const std::string network = spec.networkFile();
    files.insert(files.end(), {network, spec.namesFile});
    // OpenVINO keeps the weights in a second file.
    if (fs::path(network).extension() == ".xml") {
      files.push_back(fs::path(network).replace_extension(".bin").string());
    }
  }
  return files;
}

void openFiles(const RunOptions& options, const Pipeline& pipeline,
               const std::vector<std::string>& inputs, RunFiles* files) {
  if (!options.outputFolder.empty()) {
    files->annotated.emplace(options.outputFolder, options.fontFile);
  }
  if (!options.cropsFolder.empty()) files->crops.emplace(options.cropsFolder);
  if (files->annotated && files->crops &&
      fs::equivalent(files->annotated->folder().path(), files->crops->path())) {
    throw std::runtime_error("--output and --crops must be different folders");
  }
  for (const std::string& input : inputs) files->refuseIfOutput(input);
  if (!options.objectsFile.empty()) files->recorded.emplace(options.objectsFile);
  if (!options.jsonFile.empty()) {
    files->jsonFile.emplace(options.jsonFile, filesRead(options, pipeline, inputs));
  }
}

// Processes each line of standard input, like an argument, as soon as it arrives.
void processLines(const RunOptions& options, Media media, FrameLoop* loop) {
  constexpr std::size_t kMaxBytes = 1 << 16;
  std::ios::sync_with_stdio(false);
  std::string line;
  while (!loop->isStopped()) {
    Line read = Line::kEnd;
    try {
      read = readLine(&std::cin, kMaxBytes, &line, Console::waitForInput);
    } catch (const std::ios_base::failure&) {
      throw CannotContinue("standard input cannot be read; it must not be a folder");
    }
    if (read == Line::kEnd || read == Line::kInterrupted) break;
    if (line.empty()) {
      loop->countFailedInput("", "the line is empty");
      continue;
    }
    if (read == Line::kTooLong || line.find('\0') != std::string::npos) {
      loop->countFailedInput(printable(line.substr(0, 80)) + "...", "the line is not a path");
      continue;
    }
    const InputList list = expandInputs({line}, options.recursive, media);
    for (const InputProblem& problem : list.problems) {
      loop->countFailedInput(line, problem.reason);
    }
    for (const std::string& input : list.inputs) {
      if (loop->isStopped()) break;
      loop->process(input, 0, 1);
    }
  }
}

// Reads the pipeline file, or makes a pipeline of a network.
Pipeline pipelineOf(const RunOptions& options) {
  if (!isNetworkFile(options.pipeline)) {
    if (options.as.empty()) return readPipeline(options.pipeline);
    throw PipelineError(options.pipeline, "--as is for networks (.xml, .onnx), not for pipelines");
  }
  Pipeline pipeline = networkPipeline(options.pipeline, options.as);
  const ModelSpec& spec = pipeline.models.front();
  if (spec.needsObjects() && options.objectsFile.empty()) {
    throw PipelineError(
        options.pipeline,
        spec.config.modelName +
            " works on the objects of a detector: write a pipeline of both networks "
            "with vsa doctor DETECTOR NETWORK --write FILE, or use --objects");
  }
  return pipeline;
}

// Reports models that cannot use the objects of the models before them.
void reportOrder(const Pipeline& pipeline, Console* console) {
  const std::vector<Findings> order = checkOrder(pipeline.models);
  for (std::size_t i = 0; i < order.size(); ++i) {
    for (const std::string& sentence : order[i].errors) {
      console->note(pipeline.models[i].location + ": " + sentence);
    }
  }
}

int runPipeline(const RunOptions& options, Console* console, const LogToConsole& log) {
  Pipeline pipeline;
  InputList list;
  RunFiles files;
  std::unique_ptr<Chain> chain;
  Media media = Media::kImages;
  try {
    pipeline = pipelineOf(options);
    if (pipeline.takesAudio) media = Media::kAudio;
    checkOptions(options, pipeline);
    list = expandInputs(options.inputs, options.recursive, media);
    openFiles(options, pipeline, list.inputs, &files);
    const bool hasWork = options.standardInput || !list.inputs.empty();
    if (options.objectsFile.empty()) reportOrder(pipeline, console);
    chain = std::make_unique<Chain>(hasWork ? pipeline : Pipeline(), &log);
  } catch (const std::exception& error) {
    console->note(error.what());
    return kUsageError;
  }
  FrameLoop loop(options, pipeline, chain.get(), &files, console);
  for (const InputProblem& problem : list.problems) {
    loop.countFailedInput(problem.input, problem.reason);
  }
  const Clock::time_point start = Clock::now();
  bool isComplete = true;
  try {
    for (std::size_t i = 0; i < list.inputs.size() && !loop.isStopped(); ++i) {
      loop.process(list.inputs[i], i, list.inputs.size());
    }
    if (options.standardInput) processLines(options, media, &loop);
  } catch (const CannotContinue& error) {
    console->note(error.what());
    isComplete = false;
  } catch (const PipelineError& error) {
    console->note(error.what());
    return kUsageError;
  }
  Totals totals = loop.totals();
  totals.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  totals.models = chain->times();
  totals.loadingSeconds = chain->loadingSeconds();
  console->clear();
  const int signal = Console::interruptSignal();
  if (signal != 0) console->note("interrupted");
  if (!options.quiet) std::fputs(printableLines(summary(totals)).c_str(), stderr);
  if (signal != 0) return 128 + signal;
  const bool failed = totals.failedInputs + totals.failedRuns > 0 || loop.outputIsClosed();
  return failed || !isComplete ? kSomeFailed : kDone;
}

class Run : public Command {
 public:
  Run() : Command("run", "Run a pipeline on images, videos or audio") {}

 protected:
  void addOptions(CLI::App* command) override {
    addPipeline(command, "JSON file that names the models, or one network (.xml, .onnx)");
    command
        ->add_option("INPUT", options_.inputs,
                     "Images, videos, audio (for models that take it), folders of them, patterns "
                     "(* ? [ ]) or addresses of streams")
        ->type_name("");
    command
        ->add_flag(
            "--stdin", options_.standardInput,
            "Read the inputs from standard input, one per line, and print the results of each "
            "immediately as JSON Lines")
        ->excludes("INPUT");
    addJson(command, "Print JSON Lines, one object per frame, instead of the table");
    command
        ->add_flag("--text", options_.text,
                   "Print the recognised text line by line in reading order instead of the table, "
                   "with a form feed between images")
        ->excludes("--json")
        ->excludes("--stdin");
    const auto add = [command](const char* names, auto& value, const char* type,
                               const char* description) {
      return command->add_option(names, value, description)->type_name(type);
    };
    add("--as", options_.as, "NAME", "Model to run a network as, if it fits several");
    add("--json-file", options_.jsonFile, "FILE", "Write JSON Lines to a file as well");
    add("-o,--output", options_.outputFolder, "FOLDER",
        "Write annotated images and videos to this folder");
    add("--font", options_.fontFile, "FILE",
        "Font of the annotations (default: one with Chinese characters, from the usual folders)");
    add("--crops", options_.cropsFolder, "FOLDER", "Write an image of each object to this folder");
    add("--objects", options_.objectsFile, "FILE",
        "Start each frame with the objects that were recorded for it (JSON Lines of vsa)");
    add("--only", options_.only, "CLASS[,CLASS...]", "Report, draw and crop only these classes")
        ->delimiter(',')
        ->allow_extra_args(false);
    command->add_flag("-r,--recursive", options_.recursive, "Search subfolders, too");
    add("--max-side", options_.maxSide, "PIXELS",
        "Shrink frames with a longer side before the models run; results are in pixels of the "
        "original")
        ->check(CLI::Range(1, 65535).description(""));
    constexpr std::int64_t kMaxBytes = (std::int64_t{1} << 31) - 1;
    add("--max-pixels", options_.maxPixels, "NUMBER",
        "Refuse images and videos with more pixels (default 200000000)")
        ->check(CLI::Range(std::int64_t{1}, kMaxBytes / 3).description(""));
    addMaxFrames(command,
                 "Stop each video after this many frames, a file after as many pages, audio after "
                 "as many blocks");
    command->add_flag("-q,--quiet", options_.quiet, "Print no summary at the end");
    addVerbose(command);
    command->callback([this] {
      if (options_.inputs.empty() && !options_.standardInput) {
        throw CLI::RequiredError("INPUT or --stdin");
      }
    });
  }

  int run(Console* console, const LogToConsole* log) const override {
    RunOptions options = options_;
    options.pipeline = pipeline_;
    options.json = json_;
    options.maxFrames = maxFrames_;
    Console::catchInterrupt();
    VsaGlobalInit();
    const int status = runPipeline(options, console, *log);
    VsaGlobalRelease();
    return status;
  }

 private:
  RunOptions options_;
};

}  // namespace

std::unique_ptr<Command> makeRun() {
  return std::make_unique<Run>();
}

}  // namespace vsa
