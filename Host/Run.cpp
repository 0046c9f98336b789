// The main loop. What goes wrong with one frame, one model or one input is told and counted, and
// the rest goes on; only what makes all of the work impossible ends it.
#include "Run.h"

#include <TolCompatible/TolCompatible.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <opencv2/core/utils/logger.hpp>
#include <optional>

#include "Chain.h"
#include "Console.h"
#include "Inputs.h"
#include "Log.h"
#include "ModelTable.h"
#include "Objects.h"
#include "Output.h"
#include "Pipeline.h"
#include "Report.h"
#include "Sound.h"
#include "Text.h"

namespace vsa {
namespace {

namespace fs = std::filesystem;

using Clock = std::chrono::steady_clock;

volatile std::sig_atomic_t interrupted = 0;

// The first Ctrl-C ends the work after the frame at hand, the second one ends the program.
extern "C" void onInterrupt(int signal) {
  interrupted = 1;
  std::signal(signal, SIG_DFL);
}

// A file for JSON Lines, flushed line by line.
class JsonFile {
 public:
  // `precious` are the files that the run reads.
  JsonFile(const std::string& path, const std::vector<std::string>& precious) : path_(path) {
    for (const std::string& file : precious) {
      if (is(file)) throw std::runtime_error(path + ": this is an input and is not overwritten");
    }
    stream_.open(path, std::ios::binary | std::ios::trunc);
    if (!stream_) throw std::runtime_error(path + ": the file cannot be written");
  }

  bool is(const std::string& file) const {
    std::error_code unused;
    return fs::equivalent(file, path_, unused);
  }

  void write(const std::string& line) {
    if (!(stream_ << line << std::flush)) {
      throw std::runtime_error(path_ + ": the file cannot be written");
    }
  }

 private:
  std::string path_;
  std::ofstream stream_;
};

class Run {
 public:
  Run(const RunOptions& options, Console* console, const LogToConsole* log)
      : options_(options),
        console_(*console),
        log_(*log),
        json_(options.json || options.standardInput) {}

  int go() {
    InputList list;
    try {
      pipeline_ = readPipeline(options_.pipeline);
      if (pipeline_.takesSound && !options_.outputFolder.empty()) {
        throw PipelineError(options_.pipeline,
                            "--output draws pictures, and these models take sound");
      }
      checkOptions();
      totals_.frameNoun = pipeline_.takesSound ? "block" : "frame";
      list = expandInputs(options_.inputs, options_.recursive, media());
      if (!options_.outputFolder.empty()) output_.emplace(options_.outputFolder, options_.fontFile);
      if (!options_.cropsFolder.empty()) crops_.emplace(options_.cropsFolder);
      if (output_ && crops_ && fs::equivalent(output_->folder().path(), crops_->path())) {
        throw std::runtime_error("--output and --crops need a folder each");
      }
      for (const std::string& input : list.inputs) refuseIfOutput(input);
      if (!options_.objectsFile.empty()) recorded_.emplace(options_.objectsFile);
      if (!options_.jsonFile.empty()) jsonFile_.emplace(options_.jsonFile, filesRead(list.inputs));
      if (options_.standardInput || !list.inputs.empty()) {
        chain_ = std::make_unique<Chain>(pipeline_, &log_);
      }
    } catch (const std::exception& error) {
      console_.note(error.what());
      return kUsageError;
    }
    for (const std::string& problem : list.problems) {
      console_.note(problem);
      ++totals_.inputs;
      ++totals_.failedInputs;
    }
    const Clock::time_point start = Clock::now();
    try {
      for (std::size_t i = 0; i < list.inputs.size() && !stopped(); ++i) {
        input_ = i;
        inputCount_ = list.inputs.size();
        processInput(list.inputs[i]);
      }
      if (options_.standardInput) processLines();
    } catch (const WorkEnds& error) {
      console_.note(error.what());
      lost_ = true;
    }
    totals_.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (chain_) totals_.models = chain_->times();
    if (chain_) totals_.loadingSeconds = chain_->loadingSeconds();
    console_.clear();
    if (!options_.quiet) std::fputs(summary(totals_).c_str(), stderr);
    if (interrupted != 0) return kInterrupted;
    return totals_.failedInputs + totals_.failedRuns > 0 || lost_ ? kSomeFailed : kDone;
  }

 private:
  // Results have no place to go any more, or no more inputs can be read.
  struct WorkEnds : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  bool stopped() const { return interrupted != 0 || lost_; }

  Media media() const { return pipeline_.takesSound ? Media::kSound : Media::kPictures; }

  // Options that do not go with the pipeline.
  void checkOptions() const {
    const std::pair<const char*, bool> forPictures[] = {
        {"--crops", !options_.cropsFolder.empty()},
        {"--max-side", options_.maxSide != 0},
        {"--objects", !options_.objectsFile.empty()},
        {"--only", !options_.only.empty()},
    };
    for (const auto& [name, given] : forPictures) {
      if (given && pipeline_.takesSound) {
        throw PipelineError(options_.pipeline,
                            std::string(name) + " is for pictures, and these models take sound");
      }
    }
    std::vector<std::string> classes;
    for (const ModelSpec& spec : pipeline_.models) {
      if (spec.config.category != "Detect") continue;
      classes.insert(classes.end(), spec.config.classNames.begin(), spec.config.classNames.end());
    }
    for (const std::string& name : options_.only) {
      // Recorded objects may be of classes that no model here has.
      if (options_.objectsFile.empty() &&
          std::find(classes.begin(), classes.end(), name) == classes.end()) {
        throw PipelineError(options_.pipeline, "--only: no detector has a class \"" +
                                                   printable(name) + '"' +
                                                   suggestion(name, classes));
      }
    }
  }

  // The files that the run reads, those that are not there included.
  std::vector<std::string> filesRead(const std::vector<std::string>& inputs) const {
    std::vector<std::string> files = inputs;
    files.insert(files.end(), {options_.pipeline, options_.objectsFile, options_.fontFile});
    for (const ModelSpec& spec : pipeline_.models) {
      const std::string network = spec.networkFile();
      files.insert(files.end(), {network, spec.namesFile});
      // OpenVINO keeps the weights beside the network.
      if (fs::path(network).extension() == ".xml") {
        files.push_back(fs::path(network).replace_extension(".bin").string());
      }
    }
    return files;
  }

  void refuseIfOutput(const std::string& input) const {
    if (output_) output_->folder().refuse(input);
    if (crops_) crops_->refuse(input);
    if (jsonFile_ && jsonFile_->is(input)) {
      throw std::runtime_error("results are being written to this file (--json-file)");
    }
  }

  // Works on every line of standard input as on an argument, as soon as it has come.
  void processLines() {
    constexpr std::size_t kLongest = 1 << 16;
    std::ios::sync_with_stdio(false);
    std::string line;
    while (!stopped()) {
      if (!Console::waitForInput()) continue;
      Line read = Line::kEnd;
      try {
        read = readLine(&std::cin, kLongest, &line);
      } catch (const std::ios_base::failure&) {
        throw WorkEnds("standard input cannot be read; it must not be a folder");
      }
      if (read == Line::kEnd) break;
      if (line.empty()) continue;
      if (read == Line::kTooLong || line.find('\0') != std::string::npos) {
        line = printable(line.substr(0, 80)) + "...";
        ++totals_.inputs;
        inputFailed(line, "this line is no path");
        continue;
      }
      const InputList list = expandInputs({line}, options_.recursive, media());
      for (const std::string& problem : list.problems) {
        ++totals_.inputs;
        inputFailed(line, problem.substr(std::min(problem.size(), problem.rfind(": ") + 2)));
      }
      for (const std::string& input : list.inputs) {
        if (stopped()) break;
        processInput(input);
      }
    }
  }

  void processInput(const std::string& input) {
    ++totals_.inputs;
    failuresTold_ = 0;
    try {
      FrameInfo info;
      info.input = input;
      if (options_.standardInput) refuseIfOutput(input);
      if (pipeline_.takesSound) {
        processSound(&info);
      } else {
        processPictures(&info);
      }
    } catch (const WorkEnds&) {
      if (output_) output_->finish();
      throw;
    } catch (const cv::Exception& error) {
      inputFailed(input, error.err);
    } catch (const std::exception& error) {
      inputFailed(input, error.what());
    }
  }

  // Whether one more frame is wanted of the input at hand.
  bool wantsMore(const FrameInfo& info) const {
    return !stopped() && (options_.maxFrames == 0 || info.index < options_.maxFrames);
  }

  void processPictures(FrameInfo* info) {
    Source source(info->input, options_.maxPixels);
    cv::Mat picture;
    while (wantsMore(*info) && source.next(&picture)) {
      if (source.isVideo()) info->time = source.time();
      processFrame(source, info, &picture);
      ++info->index;
    }
    if (output_) output_->finish();
    if (info->index == 0 && !stopped()) throw std::runtime_error("no frame can be read");
    // Announced numbers of frames are estimates, so only a clear shortfall is worth a word.
    if (source.frameCount() > info->index * 11 / 10 && info->index != options_.maxFrames &&
        !stopped()) {
      console_.note(info->input + ": the video ends after " + std::to_string(info->index) +
                    " of about " + std::to_string(source.frameCount()) + " frames");
    }
  }

  void processSound(FrameInfo* info) {
    Sound sound(info->input, pipeline_.blockSeconds);
    VsaFrame block;
    while (wantsMore(*info) && sound.next(&block)) {
      info->time = sound.time();
      info->duration = sound.duration();
      runModels(info, &block);
      ++totals_.frames;
      totals_.objects += std::ssize(block.audioObjects);
      writeResults(json_ || jsonFile_ ? blockJson(*info, block) : "",
                   json_ ? "" : blockTable(*info, block));
      showProgress(sound.blockCount(), ++info->index);
    }
    if (info->index == 0 && !stopped()) throw std::runtime_error("there is no sound in this file");
  }

  void inputFailed(const std::string& input, const std::string& reason) {
    if (output_) output_->finish();
    console_.note(input + ": " + oneLine(reason));
    ++totals_.failedInputs;
    // A program that hands in one path after the other waits for an answer to each.
    if (options_.standardInput) writeResults(errorJson(input, oneLine(reason)), "");
  }

  void processFrame(const Source& source, FrameInfo* info, cv::Mat* picture) {
    const cv::Mat seen = shrunk(*picture, options_.maxSide);
    VsaFrame frame = frameOf(seen);
    info->width = picture->cols;
    info->height = picture->rows;
    if (recorded_) {
      frame.objects = recorded_->of(*info);
      rescale(picture->size(), seen.size(), &frame.objects);
    }
    runModels(info, &frame);
    rescale(seen.size(), picture->size(), &frame.objects);
    if (!options_.only.empty()) {
      std::erase_if(frame.objects, [this](const VsaObject& object) {
        return std::find(options_.only.begin(), options_.only.end(), object.className) ==
               options_.only.end();
      });
    }
    if (crops_) info->crops = writeCrops(*info, *picture, frame.objects, &*crops_);

    ++totals_.frames;
    totals_.objects += std::ssize(frame.objects);
    writeResults(json_ || jsonFile_ ? frameJson(*info, frame.objects) : "",
                 json_ ? "" : frameTable(*info, frame.objects, console_.columns()));
    if (output_) {
      output_->write(info->input, source.isVideo() ? source.frameRate() : 0.0, picture,
                     frame.objects);
    }
    showProgress(source.frameCount(), info->index + 1);
  }

  void writeResults(const std::string& json, const std::string& table) {
    if (jsonFile_) {
      try {
        jsonFile_->write(json);
      } catch (const std::exception& error) {
        throw WorkEnds(error.what());
      }
    }
    if (!console_.write(json_ ? json : table)) lost_ = true;
  }

  void runModels(FrameInfo* info, VsaFrame* frame) {
    info->failedModels.clear();
    for (const Failure& failure : chain_->run(frame)) {
      info->failedModels.push_back(failure.model);
      if (!failure.reason.empty()) modelFailed(*info, failure);
    }
  }

  void modelFailed(const FrameInfo& info, const Failure& failure) {
    constexpr int kTold = 5;
    ++totals_.failedRuns;
    if (++failuresTold_ > kTold) return;
    console_.note(info.input + ": " + totals_.frameNoun + " " + std::to_string(info.index) + ": " +
                  chain_->nameOf(failure.model) + ": " + failure.reason);
    if (failuresTold_ == kTold) {
      console_.note(info.input + ": further failures in this input are only counted");
    }
  }

  void showProgress(std::int64_t count, std::int64_t framesDone) {
    if (options_.standardInput) return;  // how much is to come is not known
    const double ofInput =
        count > 0 ? static_cast<double>(framesDone) / static_cast<double>(count) : 0.0;
    console_.progress((static_cast<double>(input_) + ofInput) / static_cast<double>(inputCount_),
                      "input " + std::to_string(input_ + 1) + " of " + std::to_string(inputCount_) +
                          ", " + totals_.frameNoun + " " + std::to_string(framesDone));
  }

  const RunOptions& options_;
  Console& console_;
  const LogToConsole& log_;
  bool json_;
  Pipeline pipeline_;
  std::unique_ptr<Chain> chain_;
  std::optional<Output> output_;
  std::optional<OutputFolder> crops_;
  std::optional<RecordedObjects> recorded_;
  std::optional<JsonFile> jsonFile_;
  Totals totals_;
  std::size_t input_ = 0;
  std::size_t inputCount_ = 0;
  int failuresTold_ = 0;
  bool lost_ = false;
};

}  // namespace

int runPipeline(const RunOptions& options) {
  if (!options.verbose) cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  std::signal(SIGINT, onInterrupt);
  Console console;
  const LogToConsole log(&console, options.verbose);
  VsaGlobalInit();
  const int status = Run(options, &console, &log).go();
  VsaGlobalRelease();
  return status;
}

int listDevices(bool verbose) {
  Console console;
  const LogToConsole log(&console, verbose);
  VsaDeviceSet devices;
  try {
    VsaGetDeviceSet(&devices);
  } catch (const std::exception& error) {
    console.note("the devices cannot be listed: " + oneLine(error.what()));
    return kSomeFailed;
  }
  bool written = true;
  for (const std::string& device : devices) written = console.write(printable(device) + "\n");
  return written ? kDone : kSomeFailed;
}

}  // namespace vsa
