// One model of the library, from VsaModelInit to VsaModelRelease.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <cstdint>
#include <vector>

#include "Padding.h"
#include "Pipeline.h"

namespace vsa {

/// Removes the objects without an area if the model cuts boxes out of the image: it would throw,
/// and no object would get a result. Detectors may report such objects, usually in the padding.
/// Returns how many were removed.
std::int64_t removeEmptyBoxes(const ModelSpec& spec, std::vector<VsaObject>* objects);

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

  /// Runs the model on the frame, padded if the pipeline says so; the text that it writes is
  /// converted to UTF-8. Returns what the library returns. Throws what the engines throw.
  bool run(VsaFrame* frame);

 private:
  bool detectPadded(VsaFrame* frame, std::uint8_t padding);

  ModelSpec spec_;
  Padder padder_;
  VsaModelContext context_;
};

}  // namespace vsa
