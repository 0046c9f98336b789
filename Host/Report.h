// The results of a frame: a table for people, JSON for programs.
#pragma once

#include <TolCompatible/TolCompatible.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "Frame.h"

namespace vsa {

/// The objects of a frame in aligned columns. If `columns` is not 0, longer lines are wrapped
/// before the column that does not fit.
std::string frameTable(const FrameInfo& info, const std::vector<VsaObject>& objects, int columns);

/// The fields of the object that are set, under the names of the record. Strings are valid UTF-8;
/// numbers that are not finite are null.
Json::Value objectJson(const VsaObject& object);

/// A frame as one line of JSON, including the line break.
std::string frameJson(const FrameInfo& info, const std::vector<VsaObject>& objects);

/// The error of an input as one line of JSON, including the line break.
std::string errorJson(const std::string& input, const std::string& reason);

/// The classes recognised in a block of audio, as one line of text and as one line of JSON.
std::string blockTable(const FrameInfo& info, const VsaFrame& block);
std::string blockJson(const FrameInfo& info, const VsaFrame& block);

}  // namespace vsa
