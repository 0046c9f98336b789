// A network file as the engine sees it: opened with the engine's own reader, or run without the
// library. No other file of the host uses the engines.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace vsa {

/// A dimension that the file leaves open.
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

/// What a file holds besides the weights.
struct ModelFile {
  std::string path;
  std::string engine;  ///< "OpenVINO" or "ONNXRuntime".
  std::vector<Port> inputs;
  std::vector<Port> outputs;
  /// What the exporter wrote about names and sizes, by its keys ("names", "imgsz", "task").
  std::map<std::string, std::string> metadata;
};

/// Opens an .xml file with OpenVINO, any other with ONNX Runtime. Throws std::runtime_error with
/// one sentence if there is no such file or the engine refuses it.
ModelFile readModelFile(const std::string& path);

/// Runs a network once on a grey input of that shape. Throws std::exception.
using BareNetwork = std::function<void(const std::vector<std::int64_t>& shape)>;

/// Opens a network with one float input, with the settings that the library uses. Throws
/// std::exception.
BareNetwork openBare(const std::string& engine, const std::string& path, const std::string& device);

}  // namespace vsa
