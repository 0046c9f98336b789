// A network file as the engine itself sees it: opened with the engine's own reader, and run bare,
// without the library. The one place of the host that uses the engines.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace vsa {

/// Stands for a dimension that the file leaves open.
inline constexpr std::int64_t kAnySize = -1;

/// An input or output.
struct Port {
  std::string name;
  std::string type;    ///< Element type in OpenVINO's words, "f32"; empty where it is no tensor.
  bool ranked = true;  ///< Whether the number of dimensions is known.
  std::vector<std::int64_t> shape = {};

  /// "f32 [1,3,?,?]".
  std::string text() const;
};

/// What a file holds besides its weights.
struct ModelFile {
  std::string path;
  std::string engine;  ///< "OpenVINO" or "ONNXRuntime".
  std::vector<Port> inputs;
  std::vector<Port> outputs;
  /// What exporters write about names and sizes, by its own key ("names", "imgsz", "task").
  std::map<std::string, std::string> metadata;
};

/// Opens an .xml file with OpenVINO, any other with ONNX Runtime. Throws std::runtime_error with
/// one sentence where there is no such file or the engine refuses it.
ModelFile readModelFile(const std::string& path);

/// Opens a network of one float input with the settings that the library uses. The function that it
/// gives runs it once on a grey input of that shape. Both throw std::exception.
using BareNetwork = std::function<void(const std::vector<std::int64_t>& shape)>;
BareNetwork openBare(const std::string& engine, const std::string& path, const std::string& device);

}  // namespace vsa
