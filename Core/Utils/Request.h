// HTTP, as far as the library speaks it.
#pragma once

#include <chrono>
#include <string>

namespace TolCompatibleLib {

constexpr std::chrono::seconds kRequestLimit(30);

/// Sends `body` to `url` by POST and appends the reply's body to `response`, at most 32 MiB of it.
/// True when the transfer was completed, whatever the HTTP status; false after one "[E]" line
/// otherwise. Takes no proxy from the environment. Initialises and ends curl for itself, which is
/// safe beside other threads where curl is (7.84 and later). \param limit for connecting, and for
/// the whole transfer.
bool PostJson(const std::string& url, const std::string& body, std::string& response,
              std::chrono::milliseconds limit = kRequestLimit);

}  // namespace TolCompatibleLib
