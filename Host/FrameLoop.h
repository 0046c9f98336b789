// The work of vsa run: runs all models on each frame of an input and writes the results.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <cstdint>
#include <opencv2/core.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Chain.h"
#include "Console.h"
#include "Frame.h"
#include "FrameSource.h"
#include "Inputs.h"
#include "JsonLines.h"
#include "Objects.h"
#include "Output.h"
#include "Pipeline.h"
#include "Totals.h"

namespace vsa {

struct RunOptions {
  std::string pipeline;  ///< A pipeline file or a network.
  std::string as;        ///< Model name for a network that fits several; empty for none.
  std::vector<std::string> inputs;
  bool standardInput = false;  ///< Read inputs from there, one per line; results are JSON Lines.
  bool recursive = false;
  bool json = false;         ///< JSON Lines instead of the table.
  bool text = false;         ///< The recognised text instead of the table.
  std::string jsonFile;      ///< A file for JSON Lines; empty for none.
  std::string outputFolder;  ///< Annotated images and videos; empty for none.
  std::string fontFile;
  std::string cropsFolder;              ///< Images of the objects; empty for none.
  std::string objectsFile;              ///< Recorded results; empty for none.
  std::vector<std::string> only;        ///< Classes in the results; empty for all.
  int maxSide = 0;                      ///< Larger frames are shrunk for the models; 0 for never.
  std::int64_t maxPixels = kMaxPixels;  ///< Larger images and videos are refused.
  std::int64_t maxFrames = 0;           ///< Of each video; 0 means all.
  bool quiet = false;
};

/// The files and folders that the options of a run name.
struct RunFiles {
  std::optional<AnnotatedOutput> annotated;
  std::optional<OutputFolder> crops;
  std::optional<RecordedObjects> recorded;
  std::optional<JsonFile> jsonFile;

  /// Whether results are written to files.
  bool any() const { return annotated || crops || jsonFile; }

  /// Throws std::runtime_error if the input is an output file or is in an output folder.
  void refuseIfOutput(const std::string& input) const;
};

/// Results cannot be written any more, or no more inputs can be read.
struct CannotContinue : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Runs a pipeline on inputs.
class FrameLoop {
 public:
  /// All arguments must outlive the loop.
  FrameLoop(const RunOptions& options, const Pipeline& pipeline, Chain* chain, RunFiles* files,
            Console* console);

  /// Processes all frames of the input. Failures are reported and counted. The progress bar shows
  /// it as input `number` (from 0) of `count`. Throws CannotContinue, and PipelineError if a model
  /// refuses every frame.
  void process(const std::string& input, std::size_t number, std::size_t count);

  /// Reports and counts an input that cannot be processed.
  void countFailedInput(const std::string& input, const std::string& reason);

  /// Whether a signal has interrupted the run, or standard output is closed and no results are
  /// written to files.
  bool isStopped() const { return Console::isInterrupted() || (outputIsClosed_ && !files_.any()); }
  bool outputIsClosed() const { return outputIsClosed_; }

  /// Inputs, frames, objects and failures so far.
  const Totals& totals() const { return totals_; }

 private:
  void failInput(const std::string& input, const std::string& reason);
  void countFailure(const std::string& input, const std::string& reason);
  void finishOutput(const std::string& input);
  void reportOutputFailure(const std::string& input, const std::string& reason);
  void processImages(const std::string& input, FrameInfo* info);
  void processAudio(const std::string& input, FrameInfo* info);
  void processFrame(const FrameSource& source, FrameInfo* info, cv::Mat* image);
  void annotate(const FrameSource& source, const FrameInfo& info, cv::Mat* image,
                std::vector<VsaObject> objects);
  bool wantsMore(const FrameInfo& info) const;
  void runModels(FrameInfo* info, VsaFrame* frame);
  void reportFailure(const FrameInfo& info, const Failure& failure);
  std::string frameText(const FrameInfo& info, const std::vector<VsaObject>& objects) const;
  // Returns whether the results were printed or are in a file.
  bool writeResults(const std::string& json, const std::string& table);
  void showProgress(std::int64_t frameCount, std::int64_t framesDone);

  const RunOptions& options_;
  const Pipeline& pipeline_;
  Chain& chain_;
  RunFiles& files_;
  Console& console_;
  bool json_;
  Totals totals_;
  std::size_t inputNumber_ = 0;
  std::size_t inputCount_ = 0;
  int failuresInInput_ = 0;
  std::string outputFailure_;  // of a file of the current input; empty if there was none
  bool videoFailed_ = false;   // the current input has no annotated video
  bool outputIsClosed_ = false;
};

}  // namespace vsa
