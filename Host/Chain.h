// The models of a pipeline, one after the other over one frame.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <memory>
#include <string>
#include <vector>

#include "Log.h"
#include "Model.h"
#include "Pipeline.h"
#include "Report.h"

namespace vsa {

/// A model that did not do its work on a frame.
struct Failure {
  int model = 0;
  std::string reason;  ///< Empty where it was skipped, as a model before it failed.
};

class Chain {
 public:
  /// Loads the models. Throws PipelineError. `log` tells whether the library gave a reason.
  Chain(const Pipeline& pipeline, const LogToConsole* log);

  /// Runs all models in their order. Once one has failed, those that work on its objects are
  /// skipped; detectors still run.
  std::vector<Failure> run(VsaFrame* frame);

  const std::string& nameOf(int model) const {
    return times_[static_cast<std::size_t>(model)].name;
  }
  const std::vector<ModelTime>& times() const { return times_; }
  double loadingSeconds() const { return loadingSeconds_; }

 private:
  const LogToConsole& log_;
  std::vector<std::unique_ptr<Model>> models_;
  std::vector<ModelTime> times_;
  double loadingSeconds_ = 0.0;
};

}  // namespace vsa
