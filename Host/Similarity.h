// How similar the objects of two images are.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <vector>

namespace vsa {

/// The object with the highest score among those with a feature vector. Throws std::runtime_error
/// if there is none.
const VsaObject& bestWithFeature(const std::vector<VsaObject>& objects);

/// Cosine of the angle between two feature vectors, -1 to 1. Throws std::runtime_error if it is not
/// defined: the lengths differ, a vector is all zeros, or a number is not finite.
double cosineSimilarity(const std::vector<float>& first, const std::vector<float>& second);

}  // namespace vsa
