#include "PlatformLinuxDiagnostic/DiagnosticExchange.hpp"

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <curl/curl.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include "StillowAuthority/DiagnosticAnswer.hpp"

namespace stillow::platform {

namespace {

using authority::DiagnosticAnswer;

/// Called by libcurl with the bytes of the body; taking less than was offered ends the transfer.
std::size_t receive(const char* data, std::size_t size, std::size_t count, void* userData) {
  auto& answer = *static_cast<DiagnosticAnswer*>(userData);
  const std::size_t length = size * count;
  return answer.take({data, length}) ? length : 0;
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
bool configure(CURL* handle, const std::string& url, long timeoutMilliseconds,
               DiagnosticAnswer& answer) {
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
  set(CURLOPT_WRITEDATA, static_cast<void*>(&answer));
  return isAccepted;
}

/// Called by libcurl before the handshake.
CURLcode ignoreTimes(CURL*, void* context, void*) {
  (void)::X509_VERIFY_PARAM_set_flags(::SSL_CTX_get0_param(static_cast<SSL_CTX*>(context)),
                                      X509_V_FLAG_NO_CHECK_TIME);
  return CURLE_OK;
}

using Failure = DiagnosticExchange::Failure;

Failure certificateFailure(CURL* handle) {
  long verified = X509_V_OK;
  (void)::curl_easy_getinfo(handle, CURLINFO_SSL_VERIFYRESULT, &verified);
  const bool isOutsideItsTime =
      verified == X509_V_ERR_CERT_NOT_YET_VALID || verified == X509_V_ERR_CERT_HAS_EXPIRED;
  return isOutsideItsTime ? Failure::certificateOutsideItsTime : Failure::certificateNotTrusted;
}

Failure failureOf(CURL* handle, CURLcode result) {
  switch (result) {
    case CURLE_OK:
      return Failure::none;
    case CURLE_COULDNT_RESOLVE_HOST:
      return Failure::nameNotResolved;
    case CURLE_COULDNT_CONNECT:
      return Failure::notConnected;
    case CURLE_OPERATION_TIMEDOUT:
      return Failure::tookTooLong;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
      return Failure::cut;
    case CURLE_PEER_FAILED_VERIFICATION:
      return certificateFailure(handle);
    case CURLE_SSL_CACERT_BADFILE:
      return Failure::trustStoreUnusable;
    default:
      return Failure::other;
  }
}

std::optional<core::Date> serverDate(CURL* handle) {
  ::curl_header* header = nullptr;
  if (::curl_easy_header(handle, "Date", 0, CURLH_HEADER, -1, &header) != CURLHE_OK) {
    return std::nullopt;
  }
  const auto seconds = ::curl_getdate(header->value, nullptr);
  if (seconds < 0) return std::nullopt;
  return core::Date::fromUnixSeconds(static_cast<double>(seconds));
}

}  // namespace

DiagnosticExchange exchangeDiagnostic(const std::string& host, std::chrono::nanoseconds timeout,
                                      CertificateTimes times) {
  const EasyHandle handle = makeHandle();
  if (!handle) return {.detail = "libcurl could not be set up"};
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(timeout).count();
  DiagnosticAnswer answer(host);
  std::array<char, CURL_ERROR_SIZE> words{};
  // No limit at all is what 0 would mean.
  bool isConfigured =
      configure(handle.get(), "https://" + host + "/", std::max<long>(milliseconds, 1), answer) &&
      ::curl_easy_setopt(handle.get(), CURLOPT_ERRORBUFFER, words.data()) == CURLE_OK;
  if (times == CertificateTimes::ignored) {
    isConfigured = isConfigured && ::curl_easy_setopt(handle.get(), CURLOPT_SSL_CTX_FUNCTION,
                                                      &ignoreTimes) == CURLE_OK;
  }
  if (!isConfigured) return {.detail = "libcurl lacks an option"};
  const CURLcode result = ::curl_easy_perform(handle.get());
  DiagnosticExchange exchange;
  (void)::curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &exchange.httpStatus);
  exchange.serverDate = serverDate(handle.get());
  answer.setHTTPStatus(exchange.httpStatus);
  exchange.outcome = answer.outcome(result != CURLE_OK);
  if (exchange.outcome != authority::DiagnosticConnectionOutcome::connectionFailed) {
    exchange.failure = Failure::none;
    return exchange;
  }
  exchange.failure = failureOf(handle.get(), result);
  exchange.detail = words[0] != '\0' ? words.data() : ::curl_easy_strerror(result);
  // They may quote what the peer sent.
  std::ranges::replace_if(exchange.detail, [](char byte) { return byte < ' ' || byte > '~'; }, '?');
  return exchange;
}

std::string trustStorePath() {
  const auto* const version = ::curl_version_info(CURLVERSION_NOW);
  return version->cainfo == nullptr ? std::string() : version->cainfo;
}

}  // namespace stillow::platform
