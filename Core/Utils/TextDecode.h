// From the scores of a text recognition network to text.
#pragma once

#include <string>

#include "Utils/FloatGrid.h"
#include "Utils/PaddleOcrDictionary.h"

namespace TolCompatibleLib {

/// Greedy CTC decoding (Graves et al., "Connectionist Temporal Classification", ICML 2006): the
/// best class of each time step, repetitions merged, blanks (class 0) left out. Classes past the
/// end of the dictionary are skipped. \param scores one row per time step, one column per class.
std::string ctcGreedyDecode(FloatGrid scores, const CharacterDictionary& dictionary);

}  // namespace TolCompatibleLib
