// The model families of the library: one row for each, with everything that the host knows about
// it. This is data only; no other file of the host names a family.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vsa {

/// How the values of a network's first output are arranged.
enum class OutputLayout {
  kColumns,    ///< [1, values, N]: one column for each candidate.
  kRows,       ///< [1, N, values]: one row for each candidate.
  kEndToEnd,   ///< [1, N, 6]: one row for each object, non-maximum suppression included.
  kTextMap,    ///< [1, 1, H, W]: how likely each pixel belongs to text.
  kTextLine,   ///< [1, T, classes]: the scores of each character at each of T steps.
  kTextTable,  ///< The same in any of several layouts.
  kVector,     ///< One row of numbers.
};

/// Input of a model.
enum class Media { kImages, kAudio };

/// The objects that a model works on: those that earlier models appended to the frame.
enum class Needs {
  kNothing,
  kBoxes,
  kTextRegions,  ///< The model also accepts boxes and reads each as an upright line.
};

/// Results that a model adds to the frame.
enum class Gives { kBoxes, kTextRegions, kLabels, kText, kFeatures, kAudioClasses };

/// One row of the table.
struct Family {
  std::string category;
  std::string modelName;
  std::vector<std::string> engines;
  OutputLayout layout;
  std::string outputText;  ///< The output for messages: "[1, 4 + classes, N]".
  Gives gives;
  Needs needs = Needs::kNothing;
  Media takes = Media::kImages;

  std::string task = "";            ///< Name that exporters use for the task of such a network.
  std::int64_t fixedValues = 0;     ///< Values of a candidate other than its classes.
  std::int64_t valuesPerClass = 1;  ///< 3 if the values are those of key points.
  std::int64_t keyPoints = 0;       ///< Pose networks: key points if classCount is 1; else 0.
  bool hasMasks = false;            ///< A second output holds prototype masks.
  int preference = 0;  ///< Of families that fit the same shapes, the higher is likelier.

  /// Recommended inputWidth and inputHeight if those of the network are dynamic; 0 if they must not
  /// be dynamic.
  std::int64_t width = 0;
  std::int64_t height = 0;
  /// Sizes that the library uses if inputWidth or inputHeight is 0; 0 if the library has no
  /// default.
  std::int64_t unsetWidth = 0;
  std::int64_t unsetHeight = 0;

  std::int64_t featureLength = 0;    ///< Numbers in a feature vector.
  std::string builtInNames = "";     ///< classNames that select the built-in dictionary, if any.
  std::int64_t builtInClasses = 0;   ///< Its number of classes, with the CTC blank and the space.
  std::string onlyName = "";         ///< classNames of a model that has a single class or none.
  std::string engineNote = "";       ///< Why results differ between the engines, if they do.
  std::optional<float> score = {};   ///< Recommended scoreThreshold; none if it is not used.
  std::optional<float> object = {};  ///< The same for objThreshold.
  std::optional<float> nms = {};     ///< The same for nmsThreshold.

  bool isOn(const std::string& engine) const;
  /// Whether the output holds candidates. Such a network needs an input of fixed size.
  bool isYolo() const;
  bool isClassifier() const { return gives == Gives::kLabels || gives == Gives::kAudioClasses; }
  bool isEmbedding() const { return gives == Gives::kFeatures; }
  bool readsText() const { return gives == Gives::kText; }
  bool hasKeyPoints() const { return keyPoints > 0; }
};

/// All families, in the order in which messages list them.
const std::vector<Family>& families();

/// The family of that model; null if the library has none.
const Family* findFamily(const std::string& category, const std::string& modelName);

}  // namespace vsa
