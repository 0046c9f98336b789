// The work itself: every input through every model, results to where they are wanted.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Inputs.h"

namespace vsa {

/// Exit statuses of the program.
inline constexpr int kDone = 0;
inline constexpr int kSomeFailed = 1;
inline constexpr int kUsageError = 2;
inline constexpr int kInterrupted = 130;

struct RunOptions {
  std::string pipeline;
  std::vector<std::string> inputs;
  bool standardInput = false;  ///< Inputs are read from there, one a line; results are JSON Lines.
  bool recursive = false;
  bool json = false;         ///< JSON Lines instead of the table.
  std::string jsonFile;      ///< JSON Lines besides; empty for none.
  std::string outputFolder;  ///< Annotated pictures and videos; empty for none.
  std::string fontFile;
  std::string cropsFolder;              ///< Pictures of the objects; empty for none.
  std::string objectsFile;              ///< Recorded results; empty for none.
  std::vector<std::string> only;        ///< Classes that are told of; empty for all.
  int maxSide = 0;                      ///< Larger frames are shrunk for the models; 0 for never.
  std::int64_t maxPixels = kMaxPixels;  ///< Larger pictures and videos are refused.
  std::int64_t maxFrames = 0;           ///< Of each video; 0 means all.
  bool quiet = false;
  bool verbose = false;
};

/// Runs the pipeline on the inputs and returns the exit status.
int runPipeline(const RunOptions& options);

/// Prints the names of all engines and devices and returns the exit status.
int listDevices(bool verbose);

}  // namespace vsa
