// The fuzz targets, for programs without libFuzzer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// Chooses the target of all later inputs. Prints the names of all targets and returns false if
/// there is none of this name.
bool chooseTarget(std::string_view name);

/// Silences logs and limits OpenCV to one thread, as LLVMFuzzerInitialize does.
void prepareTargets();

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
