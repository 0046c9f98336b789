// The command "compare".
#include "Compare.h"

#include <glog/logging.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <opencv2/core/utils/logger.hpp>
#include <stdexcept>

#include "Chain.h"
#include "Console.h"
#include "Inputs.h"
#include "Log.h"
#include "Pipeline.h"
#include "Report.h"
#include "Run.h"
#include "Text.h"

namespace vsa {
namespace {

// The best object of a picture, of a video in its first frame.
VsaObject bestObject(const std::string& input, Chain* chain) {
  Source source(input);
  cv::Mat picture;
  if (!source.next(&picture)) throw std::runtime_error("no frame can be read");
  VsaFrame frame = frameOf(picture);
  const std::vector<Failure> failures = chain->run(&frame);
  if (!failures.empty()) {
    throw std::runtime_error(chain->nameOf(failures[0].model) + ": " + failures[0].reason);
  }
  return bestWithFeature(frame.objects);
}

Pipeline picturePipeline(const std::string& path) {
  Pipeline pipeline = readPipeline(path);
  if (pipeline.takesSound) throw PipelineError(path, "compare takes pictures, not sound");
  return pipeline;
}

}  // namespace

const VsaObject& bestWithFeature(const std::vector<VsaObject>& objects) {
  if (objects.empty()) throw std::runtime_error("no object was found");
  const auto rank = [](const VsaObject& object) {
    return object.feature.empty() || std::isnan(object.score) ? -1.0F : object.score;
  };
  const VsaObject& best =
      *std::max_element(objects.begin(), objects.end(),
                        [&](const auto& a, const auto& b) { return rank(a) < rank(b); });
  if (best.feature.empty()) {
    throw std::runtime_error("no object has a feature; the pipeline needs a model that makes them");
  }
  return best;
}

double cosineSimilarity(const std::vector<float>& first, const std::vector<float>& second) {
  if (first.size() != second.size()) {
    throw std::runtime_error("the features have different lengths");
  }
  const auto length = [](const std::vector<float>& feature) {
    // In double, where the square of no float overflows or vanishes.
    const double square =
        std::inner_product(feature.begin(), feature.end(), feature.begin(), 0.0, std::plus<>(),
                           [](double a, double b) { return a * b; });
    if (!std::isfinite(square))
      throw std::runtime_error("a feature holds numbers that are not finite");
    if (square == 0.0) throw std::runtime_error("a feature is all zeros and has no direction");
    return std::sqrt(square);
  };
  const double lengths = length(first) * length(second);
  const double product =
      std::inner_product(first.begin(), first.end(), second.begin(), 0.0, std::plus<>(),
                         [](double a, double b) { return a * b; });
  return std::clamp(product / lengths, -1.0, 1.0);
}

int comparePictures(const CompareOptions& options) {
  if (!options.verbose) cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  Console console;
  const LogToConsole log(&console, options.verbose);
  std::unique_ptr<Chain> chain;
  try {
    chain = std::make_unique<Chain>(picturePipeline(options.pipeline), &log);
  } catch (const std::exception& error) {
    console.note(error.what());
    return kUsageError;
  }
  std::array<VsaObject, 2> best;
  int status = kDone;
  for (std::size_t i = 0; i < best.size(); ++i) {
    try {
      best[i] = bestObject(options.pictures[i], chain.get());
    } catch (const std::exception& error) {
      console.note(options.pictures[i] + ": " + oneLine(error.what()));
      status = kSomeFailed;
    }
  }
  if (status != kDone) return status;
  double similarity = 0.0;
  try {
    similarity = cosineSimilarity(best[0].feature, best[1].feature);
  } catch (const std::exception& error) {
    console.note(error.what());
    return kSomeFailed;
  }

  std::string text;
  Json::Value json;
  json["similarity"] = similarity;
  for (std::size_t i = 0; i < best.size(); ++i) {
    FrameInfo info;
    info.input = options.pictures[i];
    info.width = best[i].imageWidth;
    info.height = best[i].imageHeight;
    text += frameTable(info, {best[i]}, console.columns());
    Json::Value& entry = json["objects"].append(objectJson(best[i]));
    entry["input"] = repairUtf8(options.pictures[i]);
  }
  char line[64];
  std::snprintf(line, sizeof line, "cosine similarity %.4f\n", similarity);
  return console.write(options.json ? jsonLine(json) : text + line) ? kDone : kSomeFailed;
}

}  // namespace vsa
