// Frames per second of 1, 2, 4 and 8 contexts of the library, each in a thread of its own, compared
// with the same number of networks of the engine alone, and with a single network that is compiled
// for throughput and has as many requests as the engine asks for. All three are measured
// alternately in one process. Prints one Markdown table. Run by hand, on an idle machine:
//   build/release/benchmarks/Contexts [seconds per measurement]

#include <glog/logging.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/Networks.h"
#include "support/Measure.h"
#include "support/TestHost.h"

namespace {

constexpr int kRounds = 7;
constexpr double kMinRatio = 0.95;

struct Subject {
  const char* name;
  std::string (*writeNetwork)();  ///< Returns the path of the network, without ".xml".
  int side;
  int classes;
};

/// The runs of one thread, which throw if they fail.
using Lane = std::function<void()>;

/// The image of all lanes.
const cv::Mat& sharedImage() {
  static const cv::Mat image = randomImage(1920, 1080);
  return image;
}

/// What the lanes of one alternative use, and the lanes.
struct Alternative {
  std::vector<std::shared_ptr<void>> owned;
  std::vector<Lane> lanes;
};

void addLane(Alternative& alternative, ov::InferRequest request) {
  fillInput(request);
  alternative.lanes.emplace_back([request]() mutable { request.infer(); });
}

/// Networks of the engine alone, compiled with its default properties.
Alternative bareNetworks(const Subject&, const std::string& network, int count) {
  Alternative made;
  for (int i = 0; i < count; ++i) {
    const auto core = std::make_shared<ov::Core>();
    made.owned.push_back(core);
    addLane(made, core->compile_model(network + ".xml", "CPU").create_infer_request());
  }
  return made;
}

Alternative contexts(const Subject& subject, const std::string& network, int count) {
  Alternative made;
  for (int i = 0; i < count; ++i) {
    const auto model = std::make_shared<TestModel>("Detect", "YOLO8", network);
    const auto side = static_cast<std::uint32_t>(subject.side);
    model->setInput(side, side);
    model->setClasses(std::vector<std::string>(static_cast<std::size_t>(subject.classes), "thing"));
    if (!model->init()) throw std::runtime_error("cannot open the network");
    made.owned.push_back(model);
    cv::Mat image = sharedImage();
    made.lanes.emplace_back([model, frame = frameOf(image)]() mutable {
      if (!model->detect(frame)) throw std::runtime_error("a run failed");
    });
  }
  return made;
}

/// One network compiled for throughput, with as many requests as the engine asks for.
Alternative throughputNetwork(const Subject&, const std::string& network, int /*count*/) {
  Alternative made;
  const auto core = std::make_shared<ov::Core>();
  made.owned.push_back(core);
  ov::CompiledModel compiled = core->compile_model(
      network + ".xml", "CPU", ov::hint::performance_mode(ov::hint::PerformanceMode::THROUGHPUT));
  const std::uint32_t requests = compiled.get_property(ov::optimal_number_of_infer_requests);
  for (std::uint32_t i = 0; i < requests; ++i) addLane(made, compiled.create_infer_request());
  return made;
}

constexpr std::array<Alternative (*)(const Subject&, const std::string&, int), 3> kAlternatives = {
    bareNetworks, contexts, throughputNetwork};

/// Runs every lane in a thread of its own for `seconds`. Returns the sum of their runs per second.
double runsPerSecond(const std::vector<Lane>& lanes, double seconds) {
  using Clock = std::chrono::steady_clock;
  std::barrier start(static_cast<std::ptrdiff_t>(lanes.size()));
  std::vector<double> rates(lanes.size());
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < lanes.size(); ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      const Clock::time_point begin = Clock::now();
      double elapsed = 0;
      int runs = 0;
      for (; elapsed < seconds; ++runs) {
        lanes[i]();
        elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
      }
      rates[i] = runs / elapsed;
    });
  }
  double sum = 0;
  for (std::size_t i = 0; i < lanes.size(); ++i) {
    threads[i].join();
    sum += rates[i];
  }
  return sum;
}

/// Runs `measure` in a process of its own and returns the numbers that it returns. This process
/// must not use the engine: a forked process lacks the threads that the engine has started, so its
/// networks would run on one core.
template <std::size_t count>
std::array<double, count> inProcess(const std::function<std::array<double, count>()>& measure) {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) throw std::runtime_error("cannot make a pipe");
  const pid_t child = fork();
  if (child == 0) {
    try {
      const std::array<double, count> numbers = measure();
      std::exit(write(ends[1], numbers.data(), sizeof numbers) == sizeof numbers ? 0 : 1);
    } catch (const std::exception& error) {
      std::cerr << error.what() << "\n";
      std::exit(1);
    }
  }
  close(ends[1]);
  std::array<double, count> numbers{};
  const bool isRead = read(ends[0], numbers.data(), sizeof numbers) == sizeof numbers;
  close(ends[0]);
  int status = 0;
  if (waitpid(child, &status, 0) != child || status != 0 || !isRead) {
    throw std::runtime_error("a measurement failed");
  }
  return numbers;
}

void printRow(const Subject& subject, int count, double seconds) {
  std::array<double, kAlternatives.size()> megabytes{};
  for (std::size_t k = 0; k < megabytes.size(); ++k) {
    megabytes[k] = inProcess<1>([&] {
      const Alternative made = kAlternatives[k](subject, subject.writeNetwork(), count);
      runsPerSecond(made.lanes, seconds / 2);
      return std::array{residentMegabytes()};
    })[0];
  }
  const auto [bare, ours, ratio, throughput, requests] = inProcess<5>([&] {
    const std::string network = subject.writeNetwork();
    std::array<Alternative, kAlternatives.size()> made;
    std::array<std::vector<double>, kAlternatives.size()> rates;
    std::vector<double> ratios;
    for (std::size_t k = 0; k < made.size(); ++k) {
      made[k] = kAlternatives[k](subject, network, count);
      runsPerSecond(made[k].lanes, seconds / 2);
    }
    for (int round = 0; round < kRounds; ++round) {
      // The order is reversed in every second round.
      for (std::size_t i = 0; i < made.size(); ++i) {
        const std::size_t k = round % 2 == 0 ? i : made.size() - 1 - i;
        rates[k].push_back(runsPerSecond(made[k].lanes, seconds));
      }
      ratios.push_back(rates[1].back() / rates[0].back());
    }
    return std::array{medianOf(rates[0]), medianOf(rates[1]), medianOf(ratios), medianOf(rates[2]),
                      static_cast<double>(made[2].lanes.size())};
  });
  std::printf("| %s | %d | %.1f | %.1f | %.3f | %s | %.0f | %.0f | %.1f (%.0f) | %.0f |\n",
              subject.name, count, bare, ours, ratio, ratio >= kMinRatio ? "yes" : "no",
              megabytes[0], megabytes[1], throughput, requests, megabytes[2]);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) try {
  FLAGS_minloglevel = google::GLOG_WARNING;
  const double seconds = argc > 1 ? std::stod(argv[1]) : 0.8;
  std::puts(
      "| network | contexts | engine alone, frames/s | library, frames/s | ratio | met >= 0.95 | "
      "engine alone, MB | library, MB | throughput mode, frames/s (requests) | MB "
      "|\n|---|---|---|---|---|---|---|---|---|---|");
  std::fflush(stdout);
  constexpr int kSmallSide = 160;
  const Subject subjects[] = {
      {"YOLOv8n", [] { return std::string(kYolo); }, kSide, kClasses},
      {"small",
       [] {
         return writePlainNetwork({{kSmallSide, kSmallSide}, 16, 2, {1, 6, 525}});
       },
       kSmallSide, 2}};
  for (const Subject& subject : subjects) {
    for (const int count : {1, 2, 4, 8}) printRow(subject, count, seconds);
  }
  return 0;
} catch (const std::exception& error) {
  std::cerr << "Contexts: " << error.what() << "\n";
  return 1;
}
