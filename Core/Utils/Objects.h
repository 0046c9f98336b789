// The host's list of results: growing it, thinning it out.
#pragma once

#include <cstddef>
#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "TolCompatible.h"

namespace TolCompatibleLib {

/// Whether a model that works on objects has nothing to do.
inline bool isImageWithoutObjects(const VsaFrame* frame) {
  return frame != nullptr && frame->kind == kVsaImageFrame && frame->objects.empty();
}

/// Moves `found` to the end of `objects`: all of it or, when memory runs out, nothing.
inline void append(std::vector<VsaObject>& objects, std::vector<VsaObject>&& found) {
  objects.insert(objects.end(), std::make_move_iterator(found.begin()),
                 std::make_move_iterator(found.end()));
}

/// The name of a class, or null where it has none in `config` or the host does not want it.
inline const std::string* wantedName(int classId, const VsaModelConfig& config,
                                     const std::set<std::string>& wanted) {
  const auto place = static_cast<std::size_t>(classId);
  if (place >= config.classNames.size()) return nullptr;
  const std::string& name = config.classNames[place];
  return wanted.contains(name) ? &name : nullptr;
}

/// Replaces the feature of object i by the `length` numbers from features[i * length] on. Keeps the
/// vectors' own memory if it is large enough. Either all objects change or, if memory runs out,
/// none.
inline void setFeatures(std::vector<VsaObject>& objects, const std::vector<float>& features,
                        std::size_t length) {
  for (VsaObject& object : objects) object.feature.reserve(length);
  auto begin = features.begin();
  for (VsaObject& object : objects) {
    const auto end = begin + static_cast<std::ptrdiff_t>(length);
    object.feature.assign(begin, end);
    begin = end;
  }
}

/// What a model found out about an object of the frame, by the object's place in the list.
template <class Result>
using Results = std::vector<std::pair<std::size_t, Result>>;

/// Gives each object its result through `write` and drops the objects without one. Does not throw
/// if `write` does not, so that a list changes as a whole or not at all. Places ascend.
template <class Result, class Write>
void rewrite(std::vector<VsaObject>& objects, Results<Result>& results, Write write) {
  for (std::size_t kept = 0; kept < results.size(); ++kept) {
    auto& [place, result] = results[kept];
    if (kept != place) objects[kept] = std::move(objects[place]);
    write(objects[kept], result);
  }
  objects.resize(results.size());
}

}  // namespace TolCompatibleLib
