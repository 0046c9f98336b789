#include "Utils/Log.h"

#include <glog/logging.h>

#include <algorithm>
#include <string>

namespace TolCompatibleLib {
namespace {

/// The path of a source file from "Core/" on, without its extension: "Core/OpenVINO/OvDetectYolo8"
/// for "…/Core/OpenVINO/OvDetectYolo8.cpp".
std::string nameInSourceTree(std::string_view file) {
  std::string name(file);
  std::replace(name.begin(), name.end(), '\\', '/');
  const std::size_t core = name.rfind("Core/");
  if (core != std::string::npos) name.erase(0, core);
  const std::size_t dot = name.rfind('.');
  if (dot != std::string::npos && name.find('/', dot) == std::string::npos) name.erase(dot);
  return name;
}

void logLine(std::string_view tag, std::string_view text,
             const std::source_location& where) noexcept {
  try {
    const std::string file = nameInSourceTree(where.file_name());
    // Deliberate: errors have information severity, too; only the tag shows the level.
    google::LogMessage(file.c_str(), static_cast<int>(where.line())).stream() << tag << text;
  } catch (...) {
    // A lost line must not fail the call that wrote it.
  }
}

}  // namespace

void logInfo(std::string_view text, std::source_location where) noexcept {
  logLine("[I]", text, where);
}

void logError(std::string_view text, std::source_location where) noexcept {
  logLine("[E]", text, where);
}

}  // namespace TolCompatibleLib
