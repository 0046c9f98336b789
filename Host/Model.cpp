// The calls of the library in their order: fill the two records, VsaModelInit, one run call for
// each frame, VsaModelRelease.
#include "Model.h"

#include "Text.h"

namespace vsa {

Model::Model(const ModelSpec& spec) : spec_(spec) {
  context_.version = kVsaInterfaceVersion;
  context_.config = &spec_.config;
  context_.modelRoot = spec_.modelRoot;
  bool ready = false;
  try {
    ready = VsaModelInit(&context_);
  } catch (const std::exception& error) {
    // Nothing to release: the context is as it was.
    throw PipelineError(spec_.place, "the model cannot be loaded: " + oneLine(error.what()));
  }
  if (ready) return;
  // The destructor does not run for a half-made object, and the library leaves a set, with the
  // model in it where the model refused its network.
  const VsaModelSet* set = context_.models;
  const bool isKnown = set != nullptr && (set->detect || set->feature || set->classify);
  VsaModelRelease(&context_);
  if (isKnown) throw PipelineError(spec_.place, "the model refuses its network");
  throw PipelineError(spec_.place, "the library has no model \"" +
                                       printable(spec_.config.modelName) + "\" for category \"" +
                                       spec_.config.category + "\" on engine \"" +
                                       spec_.config.engine + '"');
}

Model::~Model() {
  VsaModelRelease(&context_);
}

bool Model::run(VsaFrame* frame) {
  // What is wanted belongs to the frame but is a matter of each model.
  frame->wantedClasses = spec_.wantedClasses;
  frame->wantedLabels = spec_.wantedLabels;
  if (spec_.config.category == "Detect") return VsaModelDetect(&context_, frame);
  if (spec_.config.category == "Classify") return VsaModelClassify(&context_, frame);
  if (!VsaModelFeature(&context_, frame)) return false;
  if (spec_.writesGbk()) {
    for (VsaObject& object : frame->objects) object.text = gbkToUtf8(object.text);
  }
  return true;
}

}  // namespace vsa
