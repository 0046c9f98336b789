// What a program without libFuzzer needs of the targets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// Makes `name` the target of what follows; false, after a list of the targets, where there is no such one.
bool chooseTarget(std::string_view name);

/// Quiet logs, one thread in OpenCV. LLVMFuzzerInitialize does it too.
void prepareTargets();

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
