// How much alike the features of two pictures' objects are.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <string>
#include <vector>

namespace vsa {

struct CompareOptions {
  std::string pipeline;
  std::string pictures[2];
  bool json = false;
  bool verbose = false;
};

/// Runs the pipeline on two pictures, prints the similarity of their best objects and returns the
/// exit status.
int comparePictures(const CompareOptions& options);

/// The object with the highest score among those with a feature. Throws std::runtime_error where
/// there is none.
const VsaObject& bestWithFeature(const std::vector<VsaObject>& objects);

/// Cosine of the angle between two features, -1 to 1. Throws std::runtime_error where they have
/// none: features of different lengths, all zeros, or with numbers that are not finite.
double cosineSimilarity(const std::vector<float>& first, const std::vector<float>& second);

}  // namespace vsa
