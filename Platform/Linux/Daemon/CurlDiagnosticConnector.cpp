#include "PlatformLinuxDaemon/CurlDiagnosticConnector.hpp"

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include <curl/curl.h>

#include "StillowCore/Text.hpp"

namespace stillow::platform {

namespace {

using authority::DiagnosticConnectionOutcome;
using concurrency::Task;

constexpr long statusOK = 200;

/// What came of the body, up to the limit.
struct Body {
  std::string text;
  bool isTooLong = false;
};

/// Called by libcurl; taking less than was offered ends the transfer.
std::size_t receive(const char* data, std::size_t size, std::size_t count, void* userData) {
  auto& body = *static_cast<Body*>(userData);
  const std::size_t length = size * count;
  if (length > CurlDiagnosticConnector::bodyBytesMax - body.text.size()) {
    body.isTooLong = true;
    return 0;
  }
  body.text.append(data, length);
  return length;
}

struct EasyCleanup {
  void operator()(CURL* handle) const noexcept { ::curl_easy_cleanup(handle); }
};
using EasyHandle = std::unique_ptr<CURL, EasyCleanup>;

EasyHandle makeHandle() {
  // Before the first handle, once for the process: libcurl's own way of doing it is not safe among
  // threads everywhere.
  static const CURLcode global = ::curl_global_init(CURL_GLOBAL_DEFAULT);
  if (global != CURLE_OK) return nullptr;
  return EasyHandle(::curl_easy_init());
}

/// False if libcurl does not know or accept an option: then no connection is made, rather than one
/// that is not what it should be.
bool configure(CURL* handle, const std::string& url, long timeoutMilliseconds, Body& body) {
  bool isAccepted = true;
  const auto set = [&isAccepted, handle](CURLoption option, auto value) {
    isAccepted = ::curl_easy_setopt(handle, option, value) == CURLE_OK && isAccepted;
  };
  set(CURLOPT_URL, url.c_str());
  set(CURLOPT_PROTOCOLS_STR, "https");
  set(CURLOPT_HTTPGET, 1L);

  // Signals are the process's, not this thread's.
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_TIMEOUT_MS, timeoutMilliseconds);
  set(CURLOPT_CONNECTTIMEOUT_MS, timeoutMilliseconds);
  // A resolver that hangs is left to itself; waiting for it would break the limit.
  set(CURLOPT_QUICK_EXIT, 1L);

  set(CURLOPT_FRESH_CONNECT, 1L);
  set(CURLOPT_FORBID_REUSE, 1L);
  set(CURLOPT_DNS_CACHE_TIMEOUT, 0L);
  set(CURLOPT_IPRESOLVE, static_cast<long>(CURL_IPRESOLVE_WHATEVER));
  set(CURLOPT_SSL_SESSIONID_CACHE, 0L);

  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);

  // An empty name means none at all, whatever the environment says.
  set(CURLOPT_PROXY, "");
  set(CURLOPT_NOPROXY, "*");
  set(CURLOPT_FOLLOWLOCATION, 0L);
  set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  set(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_NONE));

  set(CURLOPT_WRITEFUNCTION, &receive);
  set(CURLOPT_WRITEDATA, static_cast<void*>(&body));
  return isAccepted;
}

bool isOwnAnswer(const Body& body, const std::string& host) {
  return core::text::isValidUTF8(body.text) &&
         core::text::trimmingWhitespaceAndNewlines(body.text) == "ok " + host;
}

DiagnosticConnectionOutcome perform(const std::string& host, std::chrono::nanoseconds timeout) {
  const EasyHandle handle = makeHandle();
  if (!handle) return DiagnosticConnectionOutcome::connectionFailed;
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(timeout).count();
  Body body;
  // No limit at all is what 0 would mean.
  if (!configure(handle.get(), "https://" + host + "/", std::max<long>(milliseconds, 1), body)) {
    return DiagnosticConnectionOutcome::connectionFailed;
  }
  const CURLcode result = ::curl_easy_perform(handle.get());
  if (body.isTooLong) return DiagnosticConnectionOutcome::answeredByAnotherHost;
  if (result != CURLE_OK) return DiagnosticConnectionOutcome::connectionFailed;
  long status = 0;
  (void)::curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
  return status == statusOK && isOwnAnswer(body, host)
             ? DiagnosticConnectionOutcome::answered
             : DiagnosticConnectionOutcome::answeredByAnotherHost;
}

}  // namespace

CurlDiagnosticConnector::CurlDiagnosticConnector(
    std::shared_ptr<concurrency::BlockingExecutor> blocking)
    : blocking_(std::move(blocking)) {}

Task<DiagnosticConnectionOutcome> CurlDiagnosticConnector::connect(
    std::string host, std::chrono::nanoseconds timeout) {
  return concurrency::runBlocking(
      blocking_, [host = std::move(host), timeout] { return perform(host, timeout); });
}

}  // namespace stillow::platform
