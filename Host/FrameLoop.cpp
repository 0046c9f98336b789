// A failure of one frame, one model or one input is reported and counted, and the loop continues
// with the rest. Only a failure that makes all further work impossible ends it.
#include "FrameLoop.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <utility>

#include "AudioSource.h"
#include "Messages.h"
#include "ReadAhead.h"
#include "ReadingOrder.h"
#include "Report.h"
#include "Text.h"

namespace vsa {

void RunFiles::refuseIfOutput(const std::string& input) const {
  if (annotated) annotated->folder().refuse(input);
  if (crops) crops->refuse(input);
  if (jsonFile && jsonFile->isSameFile(input)) {
    throw std::runtime_error("results are being written to this file (--json-file)");
  }
}

FrameLoop::FrameLoop(const RunOptions& options, const Pipeline& pipeline, Chain* chain,
                     RunFiles* files, Console* console)
    : options_(options),
      pipeline_(pipeline),
      chain_(*chain),
      files_(*files),
      console_(*console),
      json_(options.json || options.standardInput) {
  if (pipeline.takesAudio) totals_.frameNoun = "block";
}

void FrameLoop::process(const std::string& input, std::size_t number, std::size_t count) {
  inputNumber_ = number;
  inputCount_ = count;
  ++totals_.inputs;
  failuresInInput_ = 0;
  outputFailure_.clear();
  videoFailed_ = false;
  FrameInfo info;
  info.input = withoutPasswords(input);
  try {
    if (options_.standardInput) files_.refuseIfOutput(input);
    if (pipeline_.takesAudio) {
      processAudio(input, &info);
    } else {
      processImages(input, &info);
    }
    finishOutput(info.input);
    if (!outputFailure_.empty()) countFailure(info.input, outputFailure_);
  } catch (const CannotContinue&) {
    finishOutput(info.input);
    throw;
  } catch (const PipelineError&) {
    finishOutput(info.input);
    throw;
  } catch (const cv::Exception& error) {
    failInput(info.input, error.err);
  } catch (const std::exception& error) {
    failInput(info.input, error.what());
  }
}

void FrameLoop::countFailedInput(const std::string& input, const std::string& reason) {
  ++totals_.inputs;
  failInput(withoutPasswords(input), reason);
}

void FrameLoop::failInput(const std::string& input, const std::string& reason) {
  finishOutput(input);
  const std::string sentence = withoutPasswords(oneLine(reason));
  console_.note(input.empty() ? sentence : printable(input) + ": " + sentence);
  countFailure(input, sentence);
}

void FrameLoop::countFailure(const std::string& input, const std::string& reason) {
  ++totals_.failedInputs;
  // A program that writes paths to standard input waits for an answer to each path.
  if (options_.standardInput) writeResults(errorJson(input, reason), "");
}

void FrameLoop::finishOutput(const std::string& input) {
  try {
    if (files_.annotated) files_.annotated->finish();
  } catch (const std::exception& error) {
    reportOutputFailure(input, error.what());
  }
}

void FrameLoop::reportOutputFailure(const std::string& input, const std::string& reason) {
  if (!outputFailure_.empty()) return;
  outputFailure_ = oneLine(reason);
  console_.note(printable(input) + ": " + outputFailure_);
}

bool FrameLoop::wantsMore(const FrameInfo& info) const {
  return !isStopped() && (options_.maxFrames == 0 || info.index < options_.maxFrames);
}

void FrameLoop::processImages(const std::string& input, FrameInfo* info) {
  FrameSource source(input, options_.maxPixels);
  if (!source.isVideo()) info->pages = source.frameCount();
  ReadAhead frames(&source);
  TimedFrame frame;
  double firstTime = 0.0;
  while (wantsMore(*info) && frames.next(&frame)) {
    if (info->index == 0) firstTime = frame.time;
    if (source.isVideo()) info->time = frame.time;
    processFrame(source, info, &frame.image);
    ++info->index;
  }
  if (isStopped()) return;
  if (info->index == 0) throw std::runtime_error("no frame can be read");
  if (info->index == options_.maxFrames) return;
  // The number of frames in a header can be an estimate, so only a clear shortfall is reported.
  if (source.frameCount() <= info->index * 11 / 10) return;
  const std::string sentence = "the video ends after " + std::to_string(info->index) +
                               " of about " + std::to_string(source.frameCount()) + " frames";
  // If the frame rate varies, the estimate can be far too high for a complete video.
  const double expected = static_cast<double>(info->index - 1) / source.frameRate();
  if (std::abs(frame.time - firstTime - expected) <= 0.1 * expected) {
    throw std::runtime_error(sentence);
  }
  console_.note(printable(info->input) + ": " + sentence);
}

void FrameLoop::processAudio(const std::string& input, FrameInfo* info) {
  AudioSource audio(input, pipeline_.blockSeconds);
  VsaFrame block;
  while (wantsMore(*info) && audio.next(&block)) {
    info->time = audio.time();
    info->duration = audio.duration();
    runModels(info, &block);
    if (writeResults(json_ || files_.jsonFile ? blockJson(*info, block) : "",
                     json_ ? "" : blockTable(*info, block))) {
      ++totals_.frames;
      totals_.objects += std::ssize(block.audioObjects);
    }
    showProgress(audio.blockCount(), ++info->index);
  }
  if (info->index == 0 && !isStopped()) throw std::runtime_error("there is no audio in this file");
}

void FrameLoop::processFrame(const FrameSource& source, FrameInfo* info, cv::Mat* image) {
  const cv::Mat seen = shrunk(*image, options_.maxSide);
  VsaFrame frame = frameOf(seen);
  info->width = image->cols;
  info->height = image->rows;
  std::vector<VsaObject> given;
  if (files_.recorded) {
    given = files_.recorded->of(*info);
    frame.objects = given;
    rescale(image->size(), seen.size(), &frame.objects);
  }
  const std::vector<VsaObject> scaled = files_.recorded ? frame.objects : given;
  runModels(info, &frame);
  rescaleBack(seen.size(), image->size(), given, scaled, &frame.objects);
  if (!options_.only.empty()) {
    std::erase_if(frame.objects, [this](const VsaObject& object) {
      return std::ranges::find(options_.only, object.className) == options_.only.end();
    });
  }
  sortTextRegions(&frame.objects);
  if (files_.crops) {
    const Crops crops = writeCrops(*info, *image, frame.objects, &*files_.crops);
    info->crops = crops.files;
    if (!crops.failure.empty()) reportOutputFailure(info->input, crops.failure);
  }

  if (writeResults(json_ || files_.jsonFile ? frameJson(*info, frame.objects) : "",
                   json_ ? "" : frameText(*info, frame.objects))) {
    ++totals_.frames;
    totals_.objects += std::ssize(frame.objects);
  }
  annotate(source, *info, image, std::move(frame.objects));
  showProgress(source.frameCount(), info->index + 1);
}

// The table, or only the text of the objects, with a form feed between the frames.
std::string FrameLoop::frameText(const FrameInfo& info,
                                 const std::vector<VsaObject>& objects) const {
  if (!options_.text) return frameTable(info, objects, console_.columns());
  std::string text = totals_.frames > 0 ? "\f" : "";
  return text += plainText(objects);
}

void FrameLoop::annotate(const FrameSource& source, const FrameInfo& info, cv::Mat* image,
                         std::vector<VsaObject> objects) {
  if (!files_.annotated) return;
  try {
    if (!source.isVideo()) {
      files_.annotated->writeImage(info, image, objects);
    } else if (!videoFailed_) {
      files_.annotated->writeVideo(info, source.frameRate(), *image, std::move(objects));
    }
  } catch (const std::exception& error) {
    videoFailed_ = true;
    reportOutputFailure(info.input, error.what());
  }
}

bool FrameLoop::writeResults(const std::string& json, const std::string& table) {
  if (!outputIsClosed_ && !console_.write(json_ ? json : table)) {
    outputIsClosed_ = true;
    console_.note(files_.any() ? "no results can be printed; they are only written to the files"
                               : "no results can be printed; the run ends");
  }
  if (!files_.jsonFile) return !outputIsClosed_ || files_.any();
  try {
    files_.jsonFile->write(json);
  } catch (const std::exception& error) {
    throw CannotContinue(error.what());
  }
  return true;
}

void FrameLoop::runModels(FrameInfo* info, VsaFrame* frame) {
  info->failedModels.clear();
  for (const Failure& failure : chain_.run(frame)) {
    info->failedModels.push_back(failure.model);
    if (!failure.reason.empty()) reportFailure(*info, failure);
  }
}

void FrameLoop::reportFailure(const FrameInfo& info, const Failure& failure) {
  constexpr int kMaxReports = 5;
  ++totals_.failedRuns;
  if (++failuresInInput_ > kMaxReports) return;
  console_.note(printable(info.input) + ": " + totals_.frameNoun + " " +
                std::to_string(info.index) + ": " + chain_.nameOf(failure.model) + ": " +
                failure.reason);
  if (failuresInInput_ == kMaxReports) {
    console_.note(printable(info.input) + ": further failures in this input are only counted");
  }
}

void FrameLoop::showProgress(std::int64_t frameCount, std::int64_t framesDone) {
  if (options_.standardInput) return;  // the number of inputs is not known
  const double ofInput =
      frameCount > 0 ? static_cast<double>(framesDone) / static_cast<double>(frameCount) : 0.0;
  console_.progress(
      (static_cast<double>(inputNumber_) + ofInput) / static_cast<double>(inputCount_),
      "input " + std::to_string(inputNumber_ + 1) + " of " + std::to_string(inputCount_) + ", " +
          totals_.frameNoun + " " + std::to_string(framesDone));
}

}  // namespace vsa
