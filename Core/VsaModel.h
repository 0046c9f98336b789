// What the entry points know about a model: it is built from a configuration, it runs on a frame,
// it is destroyed.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "TolCompatible.h"

namespace TolCompatibleLib {

/// Base of every model. Runs of one model must not overlap, unless the model says that they may.
class VsaModel {
 public:
  /// Keeps `modelConfig`, which the host keeps alive and unchanged, and copies `root`.
  VsaModel(const VsaModelConfig* modelConfig, const std::string& root)
      : config(modelConfig), modelRoot(root) {}
  VsaModel(const VsaModel&) = delete;
  VsaModel& operator=(const VsaModel&) = delete;
  virtual ~VsaModel() = default;

  /// Processes one frame. Returns true if it was processed, with or without a result. Returns false
  /// if the frame was rejected or the network's output is malformed; the frame's results are
  /// unchanged then.
  virtual bool run(VsaFrame* frame) = 0;

  const VsaModelConfig* config;
  std::string modelRoot;
  bool ready = false;  ///< Set by a derived constructor as its last step.
};

class VsaDetect : public VsaModel {
 public:
  using VsaModel::VsaModel;
};

class VsaClassify : public VsaModel {
 public:
  using VsaModel::VsaModel;
};

class VsaFeature : public VsaModel {
 public:
  using VsaModel::VsaModel;
};

/// The three fields of the configuration that select a model.
struct ModelId {
  std::string_view engine;
  std::string_view category;
  std::string_view modelName;
};

/// All models of the library, in the order in which VsaModelInit tries them.
std::vector<ModelId> modelIds();

}  // namespace TolCompatibleLib
