// The models of a pipeline, which run one after the other on a frame.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Log.h"
#include "Model.h"
#include "Pipeline.h"
#include "Totals.h"

namespace vsa {

/// A model that failed on a frame or was skipped.
struct Failure {
  int model = 0;
  std::string reason;  ///< Empty if the model was skipped because an earlier model failed.
};

class Chain {
 public:
  /// Loads the models, and runs those that work on objects once. Throws PipelineError if a model
  /// cannot be loaded, or refuses to run for a known reason. `log` counts the errors that the
  /// library logs.
  Chain(const Pipeline& pipeline, const LogToConsole* log);

  /// Runs all models in order. After a failure, models that work on objects are skipped; others
  /// still run. Objects without an area are removed before a model that cuts boxes out.
  /// Throws PipelineError if it is known why a model refuses every frame.
  std::vector<Failure> run(VsaFrame* frame);

  const std::string& nameOf(int model) const {
    return times_[static_cast<std::size_t>(model)].name;
  }
  const std::vector<ModelTime>& times() const { return times_; }
  /// Number of objects without an area that were removed so far.
  std::int64_t removedObjects() const;
  double loadingSeconds() const { return loadingSeconds_; }

 private:
  const LogToConsole& log_;
  std::vector<std::unique_ptr<Model>> models_;
  std::vector<ModelTime> times_;
  std::vector<bool> examined_;  ///< Models whose network was examined after a failure.
  double loadingSeconds_ = 0.0;
};

}  // namespace vsa
