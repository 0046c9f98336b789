// What the host tells about its results: a table for people, JSON Lines for programs, a summary.
#pragma once

#include <TolCompatible/TolCompatible.h>
#include <json/json.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vsa {

/// Where a frame comes from and how it went.
struct FrameInfo {
  std::string input;
  std::int64_t index = 0;
  std::optional<double> time;  ///< Seconds from the beginning; videos and sound only.
  int width = 0;
  int height = 0;
  std::vector<int> failedModels;        ///< Indices of models that failed or were skipped.
  double duration = 0.0;                ///< Seconds of sound in a block of it.
  std::vector<std::string> crops = {};  ///< A file for each object, "" for none; or empty.
};

/// Whether all four corners are set, which makes the object a text region.
bool isTextRegion(const VsaObject& object);

/// The objects of a frame in aligned columns. Where `columns` is not 0, a line that would be longer
/// is broken before the column that does not fit.
std::string frameTable(const FrameInfo& info, const std::vector<VsaObject>& objects, int columns);

/// The filled fields of an object under the record's own names; strings valid, numbers finite.
Json::Value objectJson(const VsaObject& object);

/// A frame as one line of JSON, the line break included.
std::string frameJson(const FrameInfo& info, const std::vector<VsaObject>& objects);

/// What went wrong with an input, as one line of JSON.
std::string errorJson(const std::string& input, const std::string& reason);

/// What was recognised in a block of sound, as one line for people and as one line of JSON.
std::string blockTable(const FrameInfo& info, const VsaFrame& block);
std::string blockJson(const FrameInfo& info, const VsaFrame& block);

/// The value in one line, the line break included.
std::string jsonLine(const Json::Value& value);

/// Time that one model took.
struct ModelTime {
  std::string name;
  std::int64_t runs = 0;
  double seconds = 0.0;
};

struct Totals {
  std::int64_t inputs = 0;
  std::int64_t failedInputs = 0;
  std::int64_t frames = 0;
  std::string frameNoun = "frame";  ///< What a frame is: of sound, a block.
  std::int64_t objects = 0;
  std::int64_t failedRuns = 0;
  double seconds = 0.0;         ///< From the first input to the end.
  double loadingSeconds = 0.0;  ///< Time that VsaModelInit took for all models.
  std::vector<ModelTime> models;
};

std::string summary(const Totals& totals);

}  // namespace vsa
