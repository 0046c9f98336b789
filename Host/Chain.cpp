#include "Chain.h"

#include <chrono>

#include "Messages.h"

namespace vsa {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

Chain::Chain(const Pipeline& pipeline, const LogToConsole* log) : log_(*log) {
  const Clock::time_point start = Clock::now();
  for (const ModelSpec& spec : pipeline.models) {
    models_.push_back(std::make_unique<Model>(spec));
    times_.push_back({spec.name});
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
