// The calls of the library in the order in which a host makes them: fill the two records,
// VsaModelInit, one run call for each frame, VsaModelRelease.
#include "Model.h"

#include <algorithm>
#include <iterator>
#include <opencv2/core.hpp>

#include "Frame.h"
#include "Messages.h"
#include "PipelineCheck.h"
#include "Text.h"

namespace vsa {

std::int64_t removeEmptyBoxes(const ModelSpec& spec, std::vector<VsaObject>* objects) {
  if (!spec.cutsBoxesOut()) return 0;
  const auto removed = std::erase_if(*objects, [](const VsaObject& object) {
    return object.right <= object.left || object.bottom <= object.top;
  });
  return static_cast<std::int64_t>(removed);
}

Model::Model(const ModelSpec& spec) : spec_(spec) {
  context_.version = kVsaInterfaceVersion;
  context_.config = &spec_.config;
  context_.modelRoot = spec_.modelRoot;
  bool ready = false;
  try {
    ready = VsaModelInit(&context_);
  } catch (const std::exception& error) {
    // There is nothing to release: the context is unchanged.
    const std::string reason = refusalReason(spec_);
    throw PipelineError(spec_.location, "the model cannot be loaded: " +
                                            (reason.empty() ? oneLine(error.what()) : reason));
  }
  if (ready) return;
  // The destructor does not run if the constructor throws, so the model set is released here. It
  // contains a model if the model rejected its network; otherwise it is empty.
  const VsaModelSet* set = context_.models;
  const bool isKnown = set != nullptr && (set->detect || set->feature || set->classify);
  VsaModelRelease(&context_);
  const std::string reason = refusalReason(spec_);
  if (!isKnown && !reason.empty()) throw PipelineError(spec_.location, reason);
  throw PipelineError(spec_.location, (isKnown ? "the model refuses its network"
                                               : "the library has no such model") +
                                          (reason.empty() ? "" : ": " + reason));
}

Model::~Model() {
  VsaModelRelease(&context_);
}

bool Model::detectPadded(VsaFrame* frame, std::uint8_t padding) {
  const cv::Mat image(static_cast<int>(frame->height), static_cast<int>(frame->width), CV_8UC3,
                      frame->data);
  const cv::Size input(static_cast<int>(spec_.config.inputWidth),
                       static_cast<int>(spec_.config.inputHeight));
  VsaFrame padded = frameOf(padder_.pad(image, input, padding));
  padded.wantedClasses = frame->wantedClasses;
  if (!VsaModelDetect(&context_, &padded)) return false;
  padder_.restore(&padded.objects);
  std::ranges::move(padded.objects, std::back_inserter(frame->objects));
  return true;
}

bool Model::run(VsaFrame* frame) {
  // The wanted names are members of the frame, but differ between the models.
  frame->wantedClasses = spec_.wantedClasses;
  frame->wantedLabels = spec_.wantedLabels;
  if (spec_.padding) return detectPadded(frame, *spec_.padding);
  if (spec_.config.category == "Detect") return VsaModelDetect(&context_, frame);
  if (spec_.config.category == "Classify") return VsaModelClassify(&context_, frame);
  if (!VsaModelFeature(&context_, frame)) return false;
  if (spec_.writesGbk()) {
    for (VsaObject& object : frame->objects) object.text = gbkToUtf8(object.text);
  }
  return true;
}

}  // namespace vsa
