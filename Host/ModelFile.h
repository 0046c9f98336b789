// Network files: reads them with the engine's own reader, and runs networks without the library. No
// other file of the host uses the engines.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace vsa {

/// A dynamic dimension.
inline constexpr std::int64_t kAnySize = -1;

/// An input or output of a network.
struct Port {
  std::string name;
  std::string type;    ///< Element type as OpenVINO names it, "f32"; empty if not a tensor.
  bool ranked = true;  ///< Whether the number of dimensions is known.
  std::vector<std::int64_t> shape = {};

  /// "f32 [1,3,?,?]".
  std::string text() const;
};

/// The content of a network file besides the weights.
struct ModelFile {
  std::string path;
  std::string engine;  ///< "OpenVINO" or "ONNXRuntime".
  std::vector<Port> inputs;
  std::vector<Port> outputs;
  /// Metadata of the exporter, by its keys ("names", "imgsz", "task").
  std::map<std::string, std::string> metadata;
};

/// Reads an .xml file with OpenVINO, any other file with ONNX Runtime. Throws std::runtime_error
/// with one sentence if there is no such file or the engine cannot read it.
ModelFile readModelFile(const std::string& path);

/// Runs a network once on a grey input of that shape. Throws std::exception.
using BareNetwork = std::function<void(const std::vector<std::int64_t>& shape)>;

/// Opens a network with one float input, with the settings that the library uses. Throws
/// std::exception.
BareNetwork openBare(const std::string& engine, const std::string& path, const std::string& device);

}  // namespace vsa
