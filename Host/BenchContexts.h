// The measurement of "bench --contexts": several copies of the models of a pipeline, each in a
// thread of its own, as in a host with one context per camera.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "Pipeline.h"

namespace vsa {

/// What a number of copies of all models achieve together.
struct ContextsResult {
  int contexts = 0;              ///< Number of copies.
  double framesPerSecond = 0.0;  ///< In all.
  std::vector<double> each;      ///< Frames per second of each thread.
  double megabytes = 0.0;        ///< Resident memory that the copies added.
  double medianMs = 0.0;         ///< Of the time that a frame takes in its thread.
};

/// For each number in `counts`, in ascending order, runs that number of copies of the models until
/// they have processed `runs` frames in all, at least one each. Throws PipelineError if a model
/// cannot be loaded, and std::exception if a run fails.
std::vector<ContextsResult> measureContexts(const Pipeline& pipeline,
                                            const std::vector<cv::Mat>& images,
                                            const std::vector<int>& counts, int runs);

}  // namespace vsa
