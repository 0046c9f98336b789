// The library's HTTP client.
#pragma once

#include <chrono>
#include <string>

namespace TolCompatibleLib {

constexpr std::chrono::seconds kRequestLimit(30);

/// Sends `body` to `url` by POST and appends the body of the reply to `response`. Returns true if
/// the transfer was completed, whatever the HTTP status; else, and for a reply of more than 32 MiB,
/// false after one "[E]" line. Ignores proxies of the environment. Every call initialises and
/// cleans up curl, which is thread-safe from curl 7.84 on. @param limit for connecting, and for the
/// whole transfer.
bool PostJson(const std::string& url, const std::string& body, std::string& response,
              std::chrono::milliseconds limit = kRequestLimit);

}  // namespace TolCompatibleLib
