// The fuzz targets, for programs without libFuzzer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// Selects the target for all following inputs. If there is no target of this name, prints the
/// names of all targets and returns false.
bool chooseTarget(std::string_view name);

/// Silences logs and limits OpenCV to one thread, as LLVMFuzzerInitialize does.
void prepareTargets();

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
