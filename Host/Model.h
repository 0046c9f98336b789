// One model of the library, from VsaModelInit to VsaModelRelease.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include "Pipeline.h"

namespace vsa {

class Model {
 public:
  /// Builds the model. Throws PipelineError if the library has no such model or the engine cannot
  /// load it.
  explicit Model(const ModelSpec& spec);
  ~Model();
  // The context points to the configuration in spec_, so a model cannot be copied or moved.
  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;

  const ModelSpec& spec() const { return spec_; }

  /// Runs the model on the frame; the text that it writes is converted to UTF-8. Returns what the
  /// library returns. Throws what the engines throw.
  bool run(VsaFrame* frame);

 private:
  ModelSpec spec_;
  VsaModelContext context_;
};

}  // namespace vsa
