// Whether the mel-spectrogram service, to which the library sends audio, is running.
#pragma once

#include <string>

namespace vsa {

/// How to start the service if nothing answers at its address; empty if something does, or on
/// Windows, where this is not checked.
std::string melServiceProblem();

}  // namespace vsa
