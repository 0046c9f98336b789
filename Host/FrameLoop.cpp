// A failure of one frame, one model or one input is reported and counted, and the loop continues
// with the rest. Only a failure that makes all further work impossible ends it.
#include "FrameLoop.h"

#include <algorithm>
#include <exception>

#include "AudioSource.h"
#include "Messages.h"
#include "Report.h"

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
  try {
    FrameInfo info;
    info.input = input;
    if (options_.standardInput) files_.refuseIfOutput(input);
    if (pipeline_.takesAudio) {
      processAudio(&info);
    } else {
      processImages(&info);
    }
    finishOutput(input);
    if (outputFailure_.empty()) return;
    countFailure(input, outputFailure_);
  } catch (const CannotContinue&) {
    finishOutput(input);
    throw;
  } catch (const cv::Exception& error) {
    failInput(input, error.err);
  } catch (const std::exception& error) {
    failInput(input, error.what());
  }
}

void FrameLoop::countFailedInput(const std::string& input, const std::string& reason) {
  ++totals_.inputs;
  failInput(input, reason);
}

void FrameLoop::failInput(const std::string& input, const std::string& reason) {
  finishOutput(input);
  console_.note(input + ": " + oneLine(reason));
  countFailure(input, reason);
}

void FrameLoop::countFailure(const std::string& input, const std::string& reason) {
  ++totals_.failedInputs;
  // A program that writes paths to standard input waits for an answer to each path.
  if (options_.standardInput) writeResults(errorJson(input, oneLine(reason)), "");
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
  console_.note(input + ": " + outputFailure_);
}

bool FrameLoop::wantsMore(const FrameInfo& info) const {
  return !isStopped() && (options_.maxFrames == 0 || info.index < options_.maxFrames);
}

void FrameLoop::processImages(FrameInfo* info) {
  FrameSource source(info->input, options_.maxPixels);
  cv::Mat image;
  while (wantsMore(*info) && source.next(&image)) {
    if (source.isVideo()) info->time = source.time();
    processFrame(source, info, &image);
    ++info->index;
  }
  if (info->index == 0 && !isStopped()) throw std::runtime_error("no frame can be read");
  // The number of frames in the file's header is an estimate, so only a clear shortfall is
  // reported.
  if (source.frameCount() > info->index * 11 / 10 && info->index != options_.maxFrames &&
      !isStopped()) {
    console_.note(info->input + ": the video ends after " + std::to_string(info->index) +
                  " of about " + std::to_string(source.frameCount()) + " frames");
  }
}

void FrameLoop::processAudio(FrameInfo* info) {
  AudioSource audio(info->input, pipeline_.blockSeconds);
  VsaFrame block;
  while (wantsMore(*info) && audio.next(&block)) {
    info->time = audio.time();
    info->duration = audio.duration();
    runModels(info, &block);
    ++totals_.frames;
    totals_.objects += std::ssize(block.audioObjects);
    writeResults(json_ || files_.jsonFile ? blockJson(*info, block) : "",
                 json_ ? "" : blockTable(*info, block));
    showProgress(audio.blockCount(), ++info->index);
  }
  if (info->index == 0 && !isStopped()) throw std::runtime_error("there is no audio in this file");
}

void FrameLoop::processFrame(const FrameSource& source, FrameInfo* info, cv::Mat* image) {
  const cv::Mat seen = shrunk(*image, options_.maxSide);
  VsaFrame frame = frameOf(seen);
  info->width = image->cols;
  info->height = image->rows;
  if (files_.recorded) {
    frame.objects = files_.recorded->of(*info);
    rescale(image->size(), seen.size(), &frame.objects);
  }
  runModels(info, &frame);
  rescale(seen.size(), image->size(), &frame.objects);
  if (!options_.only.empty()) {
    std::erase_if(frame.objects, [this](const VsaObject& object) {
      return std::ranges::find(options_.only, object.className) == options_.only.end();
    });
  }
  if (files_.crops) {
    const Crops crops = writeCrops(*info, *image, frame.objects, &*files_.crops);
    info->crops = crops.files;
    if (!crops.failure.empty()) reportOutputFailure(info->input, crops.failure);
  }

  ++totals_.frames;
  totals_.objects += std::ssize(frame.objects);
  writeResults(json_ || files_.jsonFile ? frameJson(*info, frame.objects) : "",
               json_ ? "" : frameTable(*info, frame.objects, console_.columns()));
  if (files_.annotated && outputFailure_.empty()) {
    try {
      files_.annotated->write(info->input, source.isVideo() ? source.frameRate() : 0.0, image,
                              frame.objects);
    } catch (const std::exception& error) {
      reportOutputFailure(info->input, error.what());
    }
  }
  showProgress(source.frameCount(), info->index + 1);
}

void FrameLoop::writeResults(const std::string& json, const std::string& table) {
  if (!console_.write(json_ ? json : table)) outputIsClosed_ = true;
  if (!files_.jsonFile) return;
  try {
    files_.jsonFile->write(json);
  } catch (const std::exception& error) {
    throw CannotContinue(error.what());
  }
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
  console_.note(info.input + ": " + totals_.frameNoun + " " + std::to_string(info.index) + ": " +
                chain_.nameOf(failure.model) + ": " + failure.reason);
  if (failuresInInput_ == kMaxReports) {
    console_.note(info.input + ": further failures in this input are only counted");
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
