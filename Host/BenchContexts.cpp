#include "BenchContexts.h"

#include <atomic>
#include <barrier>
#include <chrono>
#include <exception>
#include <memory>
#include <set>
#include <thread>
#include <utility>

#include "BenchSupport.h"
#include "DeviceNames.h"
#include "Frame.h"
#include "Model.h"

namespace vsa {
namespace {

using Clock = std::chrono::steady_clock;
using Models = std::vector<std::unique_ptr<Model>>;

/// What one thread measured.
struct Lane {
  std::vector<double> times = {};  // milliseconds of each frame
  std::exception_ptr failure = nullptr;
};

void runFrame(const Models& models, const cv::Mat& image) {
  VsaFrame frame = frameOf(image);
  for (const std::unique_ptr<Model>& model : models) {
    removeEmptyBoxes(model->spec(), &frame.objects);
    runModel(*model, &frame);
  }
}

/// Runs every copy in a thread of its own until they have processed `runs` frames in all, at least
/// one each.
ContextsResult runConcurrently(const std::vector<Models>& copies,
                               const std::vector<cv::Mat>& images, int runs) {
  std::vector<Lane> lanes(copies.size());
  std::atomic<int> next = 0;
  // Set before any thread continues: on a busy machine this thread may continue last.
  Clock::time_point begin;
  const auto setBegin = [&begin]() noexcept { begin = Clock::now(); };
  std::barrier start(static_cast<std::ptrdiff_t>(copies.size() + 1), setBegin);
  const auto run = [&](std::size_t i) {
    start.arrive_and_wait();
    try {
      for (int frame = next++; frame < runs || lanes[i].times.empty(); frame = next++) {
        const Clock::time_point frameBegin = Clock::now();
        runFrame(copies[i], images[static_cast<std::size_t>(frame) % images.size()]);
        const std::chrono::duration<double, std::milli> time = Clock::now() - frameBegin;
        lanes[i].times.push_back(time.count());
      }
    } catch (...) {
      lanes[i].failure = std::current_exception();
      next = runs;  // the other threads stop after their frame
    }
  };
  std::vector<std::jthread> threads;
  try {
    for (std::size_t i = 0; i < copies.size(); ++i) threads.emplace_back(run, i);
  } catch (...) {
    // A thread could not be created. The threads that exist must not wait for the missing ones.
    next = runs;
    for (std::size_t i = threads.size(); i <= copies.size(); ++i) start.arrive_and_drop();
    throw;
  }
  start.arrive_and_wait();
  for (std::jthread& thread : threads) thread.join();
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();

  ContextsResult result;
  result.contexts = static_cast<int>(copies.size());
  std::vector<double> times;
  for (const Lane& lane : lanes) {
    if (lane.failure) std::rethrow_exception(lane.failure);
    times.insert(times.end(), lane.times.begin(), lane.times.end());
    result.each.push_back(static_cast<double>(lane.times.size()) / seconds);
  }
  result.framesPerSecond = static_cast<double>(times.size()) / seconds;
  result.medianMs = percentile(times, 0.5);
  return result;
}

}  // namespace

std::vector<ContextsResult> measureContexts(const Pipeline& pipeline,
                                            const std::vector<cv::Mat>& images,
                                            const std::vector<int>& counts, int runs) {
  constexpr int kWarmUpRuns = 3;  // of each copy
  deviceNames();                  // loads the engines, so that no copy's memory includes theirs
  const double before = residentMegabytes();
  std::vector<Models> copies;
  std::vector<ContextsResult> results;
  for (const int count : std::set<int>(counts.begin(), counts.end())) {
    while (std::cmp_less(copies.size(), count)) {
      Models& models = copies.emplace_back();
      for (const ModelSpec& spec : pipeline.models) {
        models.push_back(std::make_unique<Model>(spec));
      }
    }
    runConcurrently(copies, images, kWarmUpRuns * count);
    results.push_back(runConcurrently(copies, images, runs));
    results.back().megabytes = residentMegabytes() - before;
  }
  return results;
}

}  // namespace vsa
