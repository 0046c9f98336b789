// One model of the library, from VsaModelInit to VsaModelRelease.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include "Pipeline.h"

namespace vsa {

class Model {
 public:
  /// Builds the model. Throws PipelineError where the library has no such model or the engine
  /// cannot load it.
  explicit Model(const ModelSpec& spec);
  ~Model();
  // The context points to the configuration in spec_, so a model stays where it is.
  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;

  const ModelSpec& spec() const { return spec_; }

  /// Whether the model works on objects that earlier models found.
  bool needsObjects() const { return spec_.config.category != "Detect" && !spec_.takesSound(); }

  /// Runs the model on the frame; afterwards the text that it wrote is UTF-8. Returns what the
  /// library returned. Throws what the engines throw.
  bool run(VsaFrame* frame);

 private:
  ModelSpec spec_;
  VsaModelContext context_;
};

}  // namespace vsa
