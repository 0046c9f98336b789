#include "Utils/Request.h"

#include <curl/curl.h>

#include <memory>

#include "Utils/Log.h"

namespace TolCompatibleLib {
namespace {

/// A spectrogram takes a few megabytes; a service that never stops sending must not use up the
/// host's memory.
constexpr std::size_t kMaxBytes = std::size_t{32} << 20;

/// Called by curl with `count` bytes (`size` is always 1).
std::size_t receive(char* data, std::size_t size, std::size_t count, void* response) {
  constexpr auto kAbort = static_cast<std::size_t>(-1);
  if (data == nullptr || response == nullptr) return kAbort;
  auto& text = *static_cast<std::string*>(response);
  if (size * count > kMaxBytes - text.size()) return kAbort;
  try {
    text.append(data, size * count);
  } catch (...) {
    return kAbort;  // curl is C: nothing may be thrown through it
  }
  return count;
}

struct CurlSession {
  CurlSession() { curl_global_init(CURL_GLOBAL_WIN32); }
  ~CurlSession() { curl_global_cleanup(); }
  CurlSession(const CurlSession&) = delete;
  CurlSession& operator=(const CurlSession&) = delete;
};

}  // namespace

bool PostJson(const std::string& url, const std::string& body, std::string& response,
              std::chrono::milliseconds limit) {
  const CurlSession session;
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(),
                                                                   curl_easy_cleanup);
  if (!handle) {
    logError("curl_easy_init error: url=" + url);
    return false;
  }
  // The last header keeps curl from waiting for "100 Continue" before it sends the body.
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(nullptr, curl_slist_free_all);
  for (const char* header :
       {"User-Agent: vsrt_core;", "Content-Type: application/json;", "expect: ;"}) {
    curl_slist* const longer = curl_slist_append(headers.get(), header);
    if (longer == nullptr) {
      logError("curl_easy_perform error: url=" + url + ", " +
               curl_easy_strerror(CURLE_OUT_OF_MEMORY));
      return false;
    }
    static_cast<void>(headers.release());
    headers.reset(longer);
  }
  std::string received;
  // A missing option would change the request or its destination: without the last one, curl would
  // use a proxy from the environment.
  CURLcode code = CURLE_OK;
  const auto set = [&](CURLoption option, auto value) {
    if (curl_easy_setopt(handle.get(), option, value) == CURLE_OUT_OF_MEMORY) {
      code = CURLE_OUT_OF_MEMORY;
    }
  };
  set(CURLOPT_HTTPHEADER, headers.get());
  set(CURLOPT_HEADER, 0L);
  set(CURLOPT_URL, url.c_str());
  set(CURLOPT_POST, 1L);
  set(CURLOPT_POSTFIELDS, body.c_str());
  set(CURLOPT_SSL_VERIFYPEER, 0L);
  set(CURLOPT_SSL_VERIFYHOST, 0L);
  set(CURLOPT_VERBOSE, 0L);
  set(CURLOPT_READFUNCTION, nullptr);
  set(CURLOPT_WRITEFUNCTION, receive);
  set(CURLOPT_WRITEDATA, &received);
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limit.count()));
  set(CURLOPT_TIMEOUT_MS, static_cast<long>(limit.count()));
  set(CURLOPT_PROXY, "");
  if (code == CURLE_OK) code = curl_easy_perform(handle.get());
  response += received;
  if (code == CURLE_OK) return true;
  logError("curl_easy_perform error: url=" + url + ", " + curl_easy_strerror(code));
  return false;
}

}  // namespace TolCompatibleLib
