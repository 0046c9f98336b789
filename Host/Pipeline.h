// The pipeline file: JSON that lists the models to run, in order, with their settings.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <cstdint>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Families.h"

namespace vsa {

/// One model of the pipeline.
struct ModelSpec {
  std::string location;  ///< For error messages: "pipeline.json: models[0]".
  std::string name;      ///< For other messages: "models[0] PaddleOCR (Detect)".
  VsaModelConfig config;
  std::string modelRoot;
  std::string namesFile;  ///< The file that classNames refers to; empty if it is a list.
  std::set<std::string> wantedClasses;
  std::set<std::string> wantedLabels;
  /// Value of the pixels that extend a frame to the aspect ratio of a detector's input; nullopt if
  /// the library pads, with black.
  std::optional<std::uint8_t> padding;

  /// Null if the library has no such model.
  const Family* family() const;
  /// Whether the model writes GBK: a text recogniser with the built-in dictionary of the library.
  /// With any other dictionary the text consists of the pipeline's classNames, which are UTF-8.
  bool writesGbk() const;
  /// Path of the network file that the library opens.
  std::string networkFile() const;
  /// Whether the model takes blocks of audio instead of images.
  bool takesAudio() const;
  /// Whether the model works on objects that earlier models found.
  bool needsObjects() const;
  /// Whether the model cuts the box of each object out of the image.
  bool cutsBoxesOut() const;
};

struct Pipeline {
  std::vector<ModelSpec> models;
  bool takesAudio = false;    ///< Whether all models take audio; otherwise all take images.
  double blockSeconds = 1.0;  ///< Length of a block of audio.
};

/// An error in a pipeline. The message is one sentence that begins with its location.
class PipelineError : public std::runtime_error {
 public:
  PipelineError(const std::string& location, const std::string& sentence)
      : std::runtime_error(location + ": " + sentence) {}
};

/// Reads and checks a pipeline file and the files that it names. Throws PipelineError.
Pipeline readPipeline(const std::string& path);

/// The same for the content of a file at `path`, which need not be there: it names the pipeline in
/// messages, and relative paths are relative to its folder.
Pipeline parsePipeline(const std::string& content, const std::string& path);

}  // namespace vsa
