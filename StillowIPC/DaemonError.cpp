#include "StillowIPC/DaemonError.hpp"

#include "StillowCore/JSONText.hpp"
#include "StillowIPC/DaemonWireCoding.hpp"

namespace stillow::ipc {

DaemonError DaemonError::from(const PlatformError& error) {
  if (auto inside = decoded(error)) return std::move(*inside);
  if (error.domain == PlatformError::cocoaDomain ||
      error.domain == PlatformError::connectionDomain) {
    return daemonUnavailable{error.description};
  }
  return internalFailure{error.description};
}

std::optional<DaemonError> DaemonError::decoded(const PlatformError& error) {
  if (error.domain != PlatformError::daemonErrorDomain || !error.payload) return std::nullopt;
  auto inside = DaemonWireCoding::decode<DaemonError>(*error.payload);
  if (!inside) return std::nullopt;
  return std::move(*inside);
}

PlatformError DaemonError::platformError() const {
  PlatformError error{.domain = std::string(PlatformError::daemonErrorDomain),
                      .code = PlatformError::daemonErrorCode,
                      .description = description(*this),
                      .payload = std::nullopt};
  if (auto payload = DaemonWireCoding::encode(*this)) error.payload = std::move(*payload);
  return error;
}

std::string description(const ActivationValidationRefusal& refusal) {
  using Refusal = ActivationValidationRefusal;
  return core::match(
      refusal,
      [](const Refusal::validationStale& stale) {
        return "The last enforcement validation is too old to act on (" +
               core::description(stale.validatedAt) + ").";
      },
      [](const Refusal::validationFailed& failed) {
        return "The end-to-end enforcement validation did not pass: " +
               std::string(core::rawValue(failed.failure)) + ".";
      },
      [](const Refusal::neverValidated&) {
        return std::string("Stillow has not run its end-to-end enforcement validation.");
      });
}

std::string description(const DaemonError& error) {
  using Error = DaemonError;
  using Text = std::string;
  return core::match(
      error,
      [](const Error::commitmentAlreadyActive&) {
        return Text("A Commitment is already active; strengthen it instead of starting another.");
      },
      [](const Error::noActiveCommitment&) { return Text("No Commitment is active."); },
      [](const Error::scopeResolvedEmpty&) {
        return Text("The selection resolved to an empty Scope.");
      },
      [](const Error::strengtheningAddsNoWebsites&) {
        return Text("Every Website offered is already in Scope.");
      },
      [](const Error::extensionDoesNotStrengthen&) {
        return Text("The proposed End Time is not later than the current projected End Time.");
      },
      [](const Error::extensionExceedsActivationBoundary& exceeds) {
        return "The proposed End Time is past the 24-hour boundary from activation (" +
               core::description(exceeds.latestPermittedEndTime) + ").";
      },
      [](const Error::enforcementNotValidated& notValidated) {
        return description(notValidated.refusal);
      },
      [](const Error::malformedRequest& malformed) {
        return "The daemon could not decode the request: " + malformed.detail;
      },
      [](const Error::notAuthorized&) {
        return Text("The connection's code-signing requirement could not be established.");
      },
      [](const Error::daemonUnavailable& unavailable) {
        return "The Stillow daemon is unavailable: " + unavailable.detail;
      },
      [](const Error::daemonDidNotAnswer& silent) {
        return "The Stillow daemon did not answer within " +
               core::json::description(silent.afterSeconds) + " seconds.";
      },
      [](const Error::internalFailure& failure) {
        return "The Stillow daemon reported an internal failure: " + failure.detail;
      });
}

}  // namespace stillow::ipc
