// Tiny networks of every family whose answers their input chooses.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

/// What a byte stands for where floats are wanted: 256 numbers that break things, coordinates, scores.
const std::vector<float>& numberTable();

/// A family of networks: its input, and what it answers with, out of the bytes that it is shown.
struct Family {
  const char* category;
  const char* name;
  cv::Size input;
  std::vector<int> output;
  std::vector<int> second = {};
};

/// One family per OpenVINO model.
extern const std::vector<Family> kFamilies;

/// Writes the network of a family, in which every byte of the input becomes the number of the table that it stands for.
/// Returns its path as writeNetwork does.
std::string writeFamily(const Family& family);
