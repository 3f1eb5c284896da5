#include "StillowAuthority/DiagnosticAnswer.hpp"

#include "StillowCore/Text.hpp"

namespace stillow::authority {

void DiagnosticAnswer::respond(std::optional<long> httpStatus) {
  httpStatus_ = httpStatus;
  body_.clear();
  isTooLong_ = false;
}

bool DiagnosticAnswer::take(std::string_view bytes) {
  isTooLong_ = isTooLong_ || bytes.size() > bodyBytesMax - body_.size();
  if (!isTooLong_) body_ += bytes;
  return !isTooLong_;
}

DiagnosticConnectionOutcome DiagnosticAnswer::outcome(bool transportFailed) const {
  constexpr long statusOK = 200;
  if (isTooLong_) return DiagnosticConnectionOutcome::answeredByAnotherHost;
  if (transportFailed) return DiagnosticConnectionOutcome::connectionFailed;
  const bool isOwnAnswer = httpStatus_ == statusOK && core::text::isValidUTF8(body_) &&
                           core::text::trimmingWhitespaceAndNewlines(body_) == "ok " + host_;
  return isOwnAnswer ? DiagnosticConnectionOutcome::answered
                     : DiagnosticConnectionOutcome::answeredByAnotherHost;
}

}  // namespace stillow::authority
