#include "Similarity.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>
#include <stdexcept>

namespace vsa {

const VsaObject& bestWithFeature(const std::vector<VsaObject>& objects) {
  if (objects.empty()) throw std::runtime_error("no object was found");
  const auto rank = [](const VsaObject& object) {
    return object.feature.empty() || std::isnan(object.score) ? -1.0F : object.score;
  };
  const VsaObject& best =
      *std::max_element(objects.begin(), objects.end(),
                        [&](const auto& a, const auto& b) { return rank(a) < rank(b); });
  if (best.feature.empty()) {
    throw std::runtime_error(
        "no object has a feature vector; the pipeline needs a model that computes them");
  }
  return best;
}

double cosineSimilarity(const std::vector<float>& first, const std::vector<float>& second) {
  if (first.size() != second.size()) {
    throw std::runtime_error("the feature vectors have different lengths");
  }
  const auto length = [](const std::vector<float>& feature) {
    // In double the square of a float neither overflows nor underflows.
    const double square =
        std::inner_product(feature.begin(), feature.end(), feature.begin(), 0.0, std::plus<>(),
                           [](double a, double b) { return a * b; });
    if (!std::isfinite(square)) {
      throw std::runtime_error("a feature vector contains numbers that are not finite");
    }
    if (square == 0.0) throw std::runtime_error("all numbers of a feature vector are zero");
    return std::sqrt(square);
  };
  const double lengths = length(first) * length(second);
  const double product =
      std::inner_product(first.begin(), first.end(), second.begin(), 0.0, std::plus<>(),
                         [](double a, double b) { return a * b; });
  return std::clamp(product / lengths, -1.0, 1.0);
}

}  // namespace vsa
