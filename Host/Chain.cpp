#include "Chain.h"

#include <algorithm>
#include <chrono>
#include <opencv2/core.hpp>

#include "Frame.h"
#include "Messages.h"
#include "PipelineCheck.h"
#include "ServiceCheck.h"

namespace vsa {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Throws PipelineError if it is known why the model refuses every frame.
void checkRefusal(const ModelSpec& spec) {
  std::string reason = refusalReason(spec);
  if (reason.empty() && spec.takesAudio()) reason = melServiceProblem();
  if (!reason.empty()) throw PipelineError(spec.location, reason);
}

// Runs a model that works on objects on one object of the size of its input. A model that does not
// fit its network would otherwise fail only at the first frame with an object.
void tryOnObject(Model* model) {
  const VsaModelConfig& config = model->spec().config;
  const auto side = [](std::uint32_t pixels) {
    return std::clamp(static_cast<int>(pixels), 8, 512);
  };
  const cv::Mat image = cv::Mat::zeros(side(config.inputHeight), side(config.inputWidth), CV_8UC3);
  VsaFrame frame = frameOf(image);
  frame.objects.emplace_back(image.cols, image.rows, 0, 0, image.cols, image.rows, 1.0F, 0, "");
  bool succeeded = false;
  try {
    succeeded = model->run(&frame);
  } catch (const std::exception&) {
    // If no reason is known, the model may still accept other objects.
  }
  if (!succeeded) checkRefusal(model->spec());
}

}  // namespace

Chain::Chain(const Pipeline& pipeline, const LogToConsole* log) : log_(*log) {
  const Clock::time_point start = Clock::now();
  for (const ModelSpec& spec : pipeline.models) {
    models_.push_back(std::make_unique<Model>(spec));
    times_.push_back({spec.name});
    examined_.push_back(false);
    if (spec.needsObjects()) tryOnObject(models_.back().get());
  }
  loadingSeconds_ = secondsSince(start);
}

std::vector<Failure> Chain::run(VsaFrame* frame) {
  std::vector<Failure> failures;
  for (std::size_t i = 0; i < models_.size(); ++i) {
    Model& model = *models_[i];
    std::string reason;
    if (failures.empty() || !model.spec().needsObjects()) {
      const int errorsBefore = log_.errors();
      const Clock::time_point start = Clock::now();
      try {
        times_[i].removedObjects += removeEmptyBoxes(model.spec(), &frame->objects);
        if (model.run(frame)) {
          times_[i].seconds += secondsSince(start);
          ++times_[i].runs;
          continue;
        }
        reason = log_.errors() > errorsBefore ? "the model refused the frame"
                                              : "the model refused the frame without a reason";
      } catch (const std::exception& error) {
        reason = oneLine(error.what());
      }
      if (times_[i].runs == 0 && !model.spec().needsObjects() && !examined_[i]) {
        examined_[i] = true;
        checkRefusal(model.spec());
      }
    }
    failures.push_back({static_cast<int>(i), reason});
  }
  return failures;
}

std::int64_t Chain::removedObjects() const {
  std::int64_t count = 0;
  for (const ModelTime& model : times_) count += model.removedObjects;
  return count;
}

}  // namespace vsa
