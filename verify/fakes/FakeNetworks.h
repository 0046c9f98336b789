// Nodes of the networks that the stand-in for OpenVINO computes, and the registration of networks
// by file name. Part of the library that is built in place of OpenVINO.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "FakeEngines.h"

/// A node: computes its value from the input of the network.
using FakeNode = std::function<FakeTensor(const FakeTensor& input)>;

FakeNode fakeConstant(FakeTensor tensor);
/// A length of -1 is computed from the others.
FakeNode fakeReshape(const FakeNode& value, const std::vector<int>& shape);
FakeNode fakeTranspose(const FakeNode& value, const std::vector<int>& order);
/// Elements `begin` to `end - 1` of one axis.
FakeNode fakeSlice(const FakeNode& value, int axis, int begin, int end);
FakeNode fakeConcat(const std::vector<FakeNode>& values, int axis);
/// For each float, the number at the index 255 times the float, rounded.
FakeNode fakeLookup(const FakeNode& value, const std::vector<float>& numbers);

/// Until the process ends, `file` is the model file of `network`.
void addFakeNetwork(const std::string& file, const FakeNetwork& network);
