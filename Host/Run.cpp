// The main loop. What goes wrong with one frame, one model or one input is told and counted, and
// the rest goes on; only what makes all of the work impossible ends it.
#include "Run.h"

#include <TolCompatible/TolCompatible.h>
#include <glog/logging.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <opencv2/core/utils/logger.hpp>
#include <optional>

#include "Console.h"
#include "Inputs.h"
#include "Model.h"
#include "Output.h"
#include "Pipeline.h"
#include "Report.h"
#include "Text.h"

namespace vsa {
namespace {

namespace fs = std::filesystem;

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

volatile std::sig_atomic_t interrupted = 0;

// The first Ctrl-C ends the work after the frame at hand, the second one ends the program.
extern "C" void onInterrupt(int signal) {
  interrupted = 1;
  std::signal(signal, SIG_DFL);
}

// Shows the library's log lines on standard error: those that give the reason of a failure always,
// the others when asked for. glog itself writes nothing.
class LogToConsole : public google::LogSink {
 public:
  LogToConsole(Console* console, bool verbose) : console_(console), verbose_(verbose) {
    for (int severity = 0; severity < google::NUM_SEVERITIES; ++severity) {
      google::SetLogDestination(severity, "");
    }
    google::SetStderrLogging(google::GLOG_FATAL);
    google::AddLogSink(this);
  }
  ~LogToConsole() override { google::RemoveLogSink(this); }
  LogToConsole(const LogToConsole&) = delete;
  LogToConsole& operator=(const LogToConsole&) = delete;

  void send(google::LogSeverity severity, const char* /*fullName*/, const char* /*baseName*/,
            int /*line*/, const google::LogMessageTime& /*time*/, const char* message,
            std::size_t length) override {
    const std::string text = oneLine({message, length});
    const bool isError = text.find("[E]") != std::string::npos || severity >= google::GLOG_ERROR;
    // A video that fails tells the same for every frame.
    if ((isError && text != last_) || verbose_) console_->note(text);
    if (isError) last_ = text;
    if (isError) ++errors_;
  }

  int errors() const { return errors_; }

 private:
  Console* console_;
  bool verbose_;
  int errors_ = 0;
  std::string last_;
};

// A file for JSON Lines, flushed line by line.
class JsonFile {
 public:
  JsonFile(const std::string& path, const RunOptions& options,
           const std::vector<std::string>& inputs)
      : path_(path) {
    std::vector<std::string> precious = inputs;
    precious.push_back(options.pipeline);
    for (const std::string& file : precious) {
      std::error_code unused;
      if (fs::equivalent(file, path, unused)) {
        throw std::runtime_error(path + ": this is an input and is not overwritten");
      }
    }
    stream_.open(path, std::ios::binary | std::ios::trunc);
    if (!stream_) throw std::runtime_error(path + ": the file cannot be written");
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
      : options_(options), console_(*console), log_(*log) {}

  int go() {
    InputList list;
    try {
      const std::vector<ModelSpec> specs = readPipeline(options_.pipeline);
      list = expandInputs(options_.inputs, options_.recursive);
      if (!options_.outputFolder.empty()) {
        output_.emplace(options_.outputFolder, options_.fontFile, list.inputs);
      }
      if (!options_.jsonFile.empty()) jsonFile_.emplace(options_.jsonFile, options_, list.inputs);
      if (!list.inputs.empty()) loadModels(specs);
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
    } catch (const ResultsLost& error) {
      console_.note(error.what());
      lost_ = true;
    }
    totals_.seconds = secondsSince(start);
    console_.clear();
    if (!options_.quiet) std::fputs(summary(totals_).c_str(), stderr);
    if (interrupted != 0) return kInterrupted;
    return totals_.failedInputs + totals_.failedRuns > 0 || lost_ ? kSomeFailed : kDone;
  }

 private:
  // Results have no place to go any more, so the work ends.
  struct ResultsLost : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  bool stopped() const { return interrupted != 0 || lost_; }

  void loadModels(const std::vector<ModelSpec>& specs) {
    const Clock::time_point start = Clock::now();
    for (const ModelSpec& spec : specs) {
      models_.push_back(std::make_unique<Model>(spec));
      totals_.models.push_back({spec.name});
    }
    totals_.loadingSeconds = secondsSince(start);
  }

  void processInput(const std::string& input) {
    ++totals_.inputs;
    failuresTold_ = 0;
    try {
      Source source(input);
      cv::Mat picture;
      FrameInfo info;
      info.input = input;
      while (!stopped() && (options_.maxFrames == 0 || info.index < options_.maxFrames) &&
             source.next(&picture)) {
        if (source.isVideo()) info.time = source.time();
        processFrame(source, &info, &picture);
        ++info.index;
      }
      if (output_) output_->finish();
      if (info.index == 0 && !stopped()) throw std::runtime_error("no frame can be read");
      // Announced numbers of frames are estimates, so only a clear shortfall is worth a word.
      if (source.frameCount() > info.index * 11 / 10 && info.index != options_.maxFrames &&
          !stopped()) {
        console_.note(input + ": the video ends after " + std::to_string(info.index) +
                      " of about " + std::to_string(source.frameCount()) + " frames");
      }
    } catch (const ResultsLost&) {
      if (output_) output_->finish();
      throw;
    } catch (const cv::Exception& error) {
      inputFailed(input, error.err);
    } catch (const std::exception& error) {
      inputFailed(input, error.what());
    }
  }

  void inputFailed(const std::string& input, const std::string& reason) {
    if (output_) output_->finish();
    console_.note(input + ": " + oneLine(reason));
    ++totals_.failedInputs;
  }

  void processFrame(const Source& source, FrameInfo* info, cv::Mat* picture) {
    // The record refers to the pixels of the picture: 8-bit BGR, rows without gaps.
    VsaFrame frame;
    frame.kind = kVsaImageFrame;
    frame.data = picture->data;
    frame.width = static_cast<std::uint32_t>(picture->cols);
    frame.height = static_cast<std::uint32_t>(picture->rows);
    info->width = picture->cols;
    info->height = picture->rows;
    runModels(info, &frame);

    ++totals_.frames;
    totals_.objects += std::ssize(frame.objects);
    std::string line;
    if (options_.json || jsonFile_) line = frameJson(*info, frame.objects);
    if (jsonFile_) {
      try {
        jsonFile_->write(line);
      } catch (const std::exception& error) {
        throw ResultsLost(error.what());
      }
    }
    if (!console_.write(options_.json ? line
                                      : frameTable(*info, frame.objects, console_.columns()))) {
      lost_ = true;
    }
    if (output_) {
      output_->write(info->input, source.isVideo() ? source.frameRate() : 0.0, picture,
                     frame.objects);
    }
    showProgress(source, info->index + 1);
  }

  // All models in their order. Once one has failed, those that work on its objects are skipped;
  // detectors still run.
  void runModels(FrameInfo* info, VsaFrame* frame) {
    info->failedModels.clear();
    for (std::size_t i = 0; i < models_.size(); ++i) {
      Model& model = *models_[i];
      if (!info->failedModels.empty() && model.needsObjects()) {
        info->failedModels.push_back(static_cast<int>(i));
        continue;
      }
      std::string reason;
      const int errorsBefore = log_.errors();
      const Clock::time_point start = Clock::now();
      try {
        if (model.run(frame)) {
          totals_.models[i].seconds += secondsSince(start);
          ++totals_.models[i].runs;
          continue;
        }
        reason = log_.errors() > errorsBefore
                     ? "the model refused the frame"
                     : "the model refused the frame without a reason; is it made for pictures?";
      } catch (const std::exception& error) {
        reason = oneLine(error.what());
      }
      info->failedModels.push_back(static_cast<int>(i));
      modelFailed(*info, model, reason);
    }
  }

  void modelFailed(const FrameInfo& info, const Model& model, const std::string& reason) {
    constexpr int kTold = 5;
    ++totals_.failedRuns;
    if (++failuresTold_ > kTold) return;
    console_.note(info.input + ": frame " + std::to_string(info.index) + ": " + model.spec().name +
                  ": " + reason);
    if (failuresTold_ == kTold) {
      console_.note(info.input + ": further failures in this input are only counted");
    }
  }

  void showProgress(const Source& source, std::int64_t framesDone) {
    const std::int64_t count = source.frameCount();
    const double ofInput =
        count > 0 ? static_cast<double>(framesDone) / static_cast<double>(count) : 0.0;
    console_.progress((static_cast<double>(input_) + ofInput) / static_cast<double>(inputCount_),
                      "input " + std::to_string(input_ + 1) + " of " + std::to_string(inputCount_) +
                          ", frame " + std::to_string(framesDone));
  }

  const RunOptions& options_;
  Console& console_;
  const LogToConsole& log_;
  std::vector<std::unique_ptr<Model>> models_;
  std::optional<Output> output_;
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
