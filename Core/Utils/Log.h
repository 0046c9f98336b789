// The library's log lines: a level tag and a text, written to the glog that the host set up.
#pragma once

#include <source_location>
#include <string_view>

namespace TolCompatibleLib {

/// Logs "[I]" and `text` with the caller's source file and line. Never throws: a line that cannot
/// be written (out of memory) is dropped, so that destructors may log.
void logInfo(std::string_view text,
             std::source_location where = std::source_location::current()) noexcept;

/// Logs "[E]" and `text`, with glog's information severity as well.
void logError(std::string_view text,
              std::source_location where = std::source_location::current()) noexcept;

}  // namespace TolCompatibleLib
