#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "StillowAuthority/DiagnosticConnecting.hpp"

namespace stillow::authority {

/// What a host answered to the diagnostic request, piece by piece, and what that amounts to.
class DiagnosticAnswer {
 public:
  /// Far more than "ok " and a host name. Whoever sends more is another host.
  static constexpr std::size_t bodyBytesMax = 1024;

  explicit DiagnosticAnswer(std::string host) : host_(std::move(host)) {}

  /// A response began, in place of any before. `httpStatus` is absent where it was not HTTP.
  void respond(std::optional<long> httpStatus);
  /// For a transport that tells the status after the body.
  void setHTTPStatus(long httpStatus) { httpStatus_ = httpStatus; }

  /// Takes a piece of the body. False if no more is wanted: the connection may be ended.
  [[nodiscard]] bool take(std::string_view bytes);

  /// `transportFailed`: the connection ended with an error, a time-out included. An error that came
  /// of ending the connection because no more was wanted does not count.
  [[nodiscard]] DiagnosticConnectionOutcome outcome(bool transportFailed) const;

 private:
  std::string host_;
  std::optional<long> httpStatus_;
  std::string body_;
  bool isTooLong_ = false;
};

}  // namespace stillow::authority
