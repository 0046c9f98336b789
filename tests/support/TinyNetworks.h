// Networks of a few nodes, written to a temporary folder as OpenVINO model files.
#pragma once

#include <functional>
#include <openvino/openvino.hpp>
#include <string>
#include <vector>

/// What a tiny network does with its input.
using Body = std::function<ov::OutputVector(const ov::Output<ov::Node>& input)>;

/// A network of one input. Returns the path of its file without ".xml"; the folder goes with the
/// process.
std::string writeNetwork(const ov::PartialShape& input, const Body& body,
                         ov::element::Type inputType = ov::element::f32);

/// A network that ignores its input and returns `values`.
std::string writeConstant(const ov::PartialShape& input, const ov::Shape& output, const std::vector<float>& values);

/// Nodes for bodies.
ov::Output<ov::Node> floats(const ov::Shape& shape, const std::vector<float>& values);
ov::Output<ov::Node> reshaped(const ov::Output<ov::Node>& value, const std::vector<int>& shape);
ov::Output<ov::Node> transposed(const ov::Output<ov::Node>& value, const std::vector<int>& order);
/// Elements `begin` to `end - 1` of one axis.
ov::Output<ov::Node> sliced(const ov::Output<ov::Node>& value, int axis, int begin, int end);
