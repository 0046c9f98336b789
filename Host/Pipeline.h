// The pipeline file: JSON that says which models run, in which order and with which settings.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace vsa {

/// One model of the pipeline, as the library wants to be told about it.
struct ModelSpec {
  std::string place;  ///< Where it stands, for messages: "pipeline.json: models[0]".
  std::string name;   ///< For people: "models[0] PaddleOCR (Detect)".
  VsaModelConfig config;
  std::string modelRoot;
  std::string namesFile;  ///< The file that classNames names; empty where they are a list.
  std::set<std::string> wantedClasses;
  std::set<std::string> wantedLabels;

  /// Whether the model writes GBK: a text recogniser with the library's built-in dictionary. With
  /// any other dictionary the text is what the pipeline's classNames hold, which is UTF-8.
  bool writesGbk() const;
  /// Path of the network file that the library opens.
  std::string networkFile() const;
  /// Whether the model takes blocks of sound instead of pictures.
  bool takesSound() const;
};

struct Pipeline {
  std::vector<ModelSpec> models;
  bool takesSound = false;    ///< Whether all models take sound; else all take pictures.
  double blockSeconds = 1.0;  ///< Length of a block of sound.
};

/// Something is wrong with the pipeline; the message is one sentence that begins with the place.
class PipelineError : public std::runtime_error {
 public:
  PipelineError(const std::string& place, const std::string& sentence)
      : std::runtime_error(place + ": " + sentence) {}
};

/// Reads and checks a pipeline file, the files that it names included. Throws PipelineError.
Pipeline readPipeline(const std::string& path);

/// "; did you mean ...?" with the candidate nearest to `given`; empty where none is near.
std::string suggestion(const std::string& given, const std::vector<std::string>& candidates);

}  // namespace vsa
