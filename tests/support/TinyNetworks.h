// Networks of a few nodes, written to a temporary folder as OpenVINO model files.
#pragma once

#include <functional>
#include <openvino/openvino.hpp>
#include <string>
#include <vector>

#include "support/Families.h"
#if TOL_FAKE_OPENVINO
#include "verify/fakes/FakeNetworks.h"
#endif

/// Nodes of a network.
#if TOL_FAKE_OPENVINO
using Value = FakeNode;
using Values = std::vector<Value>;
#else
using Value = ov::Output<ov::Node>;
using Values = ov::OutputVector;
#endif

/// What a tiny network does with its input.
using Body = std::function<Values(const Value& input)>;

/// Writes a network of one input. Returns the path of its file without ".xml"; the folder is
/// removed when the process ends.
std::string writeNetwork(const ov::PartialShape& input, const Body& body,
                         ov::element::Type inputType = ov::element::f32);

/// Writes a network that ignores its input and returns `values`.
std::string writeConstant(const ov::PartialShape& input, const ov::Shape& output,
                          const std::vector<float>& values);

/// The number that a byte selects wherever arbitrary floats are needed: 16 special values, then
/// coordinates, then scores.
const std::vector<float>& byteNumbers();

/// Writes a network of a family on OpenVINO that returns, for each byte of its image, the number
/// that the byte selects. Returns its path as writeNetwork does.
std::string writeFamilyNetwork(const Family& family);

/// The model file of a family, as VsaModelContext::modelRoot takes it. On ONNX Runtime it is in
/// `onnxFolder`; on OpenVINO it is written first.
std::string networkOf(const Family& family, const std::string& onnxFolder);

/// Nodes for a Body.
Value constant(ov::element::Type type, const ov::Shape& shape, const std::vector<float>& values);
Value floats(const ov::Shape& shape, const std::vector<float>& values);
Value reshaped(const Value& value, const std::vector<int>& shape);
Value transposed(const Value& value, const std::vector<int>& order);
/// Elements `begin` to `end - 1` of one axis.
Value sliced(const Value& value, int axis, int begin, int end);
Value concatenated(const Values& values, int axis);
/// For an input of bytes divided by 255: for each byte, the number with that index.
Value lookedUp(const Value& value, const std::vector<float>& numbers);
