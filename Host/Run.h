// The work itself: every input through every model, results to where they are wanted.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vsa {

/// Exit statuses of the program.
inline constexpr int kDone = 0;
inline constexpr int kSomeFailed = 1;
inline constexpr int kUsageError = 2;
inline constexpr int kInterrupted = 130;

struct RunOptions {
  std::string pipeline;
  std::vector<std::string> inputs;
  bool recursive = false;
  bool json = false;         ///< JSON Lines instead of the table.
  std::string jsonFile;      ///< JSON Lines besides; empty for none.
  std::string outputFolder;  ///< Annotated pictures and videos; empty for none.
  std::string fontFile;
  std::int64_t maxFrames = 0;  ///< Of each video; 0 means all.
  bool quiet = false;
  bool verbose = false;
};

/// Runs the pipeline on the inputs and returns the exit status.
int runPipeline(const RunOptions& options);

/// Prints the names of all engines and devices and returns the exit status.
int listDevices(bool verbose);

}  // namespace vsa
