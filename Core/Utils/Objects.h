// Results on their way into the host's frame.
#pragma once

#include <iterator>
#include <vector>

#include "TolCompatible.h"

namespace TolCompatibleLib {

/// Moves `found` to the end of `objects`: all of it or, when memory runs out, nothing.
inline void append(std::vector<VsaObject>& objects, std::vector<VsaObject>&& found) {
  objects.insert(objects.end(), std::make_move_iterator(found.begin()),
                 std::make_move_iterator(found.end()));
}

}  // namespace TolCompatibleLib
