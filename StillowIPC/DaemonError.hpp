#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "StillowCore/Coding.hpp"
#include "StillowCore/Date.hpp"
#include "StillowCore/ProjectedEndTime.hpp"
#include "StillowIPC/DaemonStatus.hpp"
#include "StillowIPC/EnforcementReadinessReport.hpp"
#include "StillowIPC/PlatformError.hpp"

namespace stillow::ipc {

/// The one error that crosses the process boundary: what the daemon refuses with, and what a client
/// turns every other failure into.
struct DaemonError {
  struct commitmentAlreadyActive {
    ActiveCommitmentStatus active;
    friend bool operator==(const commitmentAlreadyActive&,
                           const commitmentAlreadyActive&) = default;
  };
  struct noActiveCommitment {
    friend bool operator==(const noActiveCommitment&, const noActiveCommitment&) = default;
  };
  struct scopeResolvedEmpty {
    friend bool operator==(const scopeResolvedEmpty&, const scopeResolvedEmpty&) = default;
  };
  struct strengtheningAddsNoWebsites {
    friend bool operator==(const strengtheningAddsNoWebsites&,
                           const strengtheningAddsNoWebsites&) = default;
  };
  struct extensionDoesNotStrengthen {
    core::ProjectedEndTime currentEndTime;
    friend bool operator==(const extensionDoesNotStrengthen&,
                           const extensionDoesNotStrengthen&) = default;
  };
  struct extensionExceedsActivationBoundary {
    core::Date latestPermittedEndTime;
    friend bool operator==(const extensionExceedsActivationBoundary&,
                           const extensionExceedsActivationBoundary&) = default;
  };
  struct enforcementNotValidated {
    ActivationValidationRefusal refusal;
    friend bool operator==(const enforcementNotValidated&,
                           const enforcementNotValidated&) = default;
  };
  struct malformedRequest {
    std::string detail;  ///< the name of the record that did not decode
    friend bool operator==(const malformedRequest&, const malformedRequest&) = default;
  };
  /// The text of the code-signing requirement does not compile.
  struct notAuthorized {
    friend bool operator==(const notAuthorized&, const notAuthorized&) = default;
  };
  /// No connection, or it ended before the answer. Trying again may help.
  struct daemonUnavailable {
    std::string detail;
    friend bool operator==(const daemonUnavailable&, const daemonUnavailable&) = default;
  };
  struct daemonDidNotAnswer {
    double afterSeconds;
    friend bool operator==(const daemonDidNotAnswer&, const daemonDidNotAnswer&) = default;
  };
  struct internalFailure {
    std::string detail;
    friend bool operator==(const internalFailure&, const internalFailure&) = default;
  };

  using Cases =
      std::variant<commitmentAlreadyActive, noActiveCommitment, scopeResolvedEmpty,
                   strengtheningAddsNoWebsites, extensionDoesNotStrengthen,
                   extensionExceedsActivationBoundary, enforcementNotValidated, malformedRequest,
                   notAuthorized, daemonUnavailable, daemonDidNotAnswer, internalFailure>;
  Cases cases;

  template <core::CaseOf<Cases> Case>
  DaemonError(Case error) : cases(std::move(error)) {}

  /// What a client makes of any error it meets: the `DaemonError` inside; else `daemonUnavailable`
  /// for errors of the connection and `internalFailure` for all others, with the error's own words.
  [[nodiscard]] static DaemonError from(const PlatformError& error);

  /// The `DaemonError` inside; none unless the domain is ours and a payload decodes.
  [[nodiscard]] static std::optional<DaemonError> decoded(const PlatformError& error);

  /// The form in which this error travels. An error that does not encode loses its payload and
  /// keeps its words.
  [[nodiscard]] PlatformError platformError() const;

  friend bool operator==(const DaemonError&, const DaemonError&) = default;
};

/// The fixed English sentence for a person.
[[nodiscard]] std::string description(const DaemonError& error);
[[nodiscard]] std::string description(const ActivationValidationRefusal& refusal);

}  // namespace stillow::ipc

template <>
struct stillow::core::Coding<stillow::ipc::DaemonError> {
  using Error = ipc::DaemonError;
  static constexpr auto cases = coding::casesOf(
      coding::caseOf<Error::commitmentAlreadyActive>(
          "commitmentAlreadyActive",
          coding::field("active", &Error::commitmentAlreadyActive::active)),
      coding::caseOf<Error::noActiveCommitment>("noActiveCommitment"),
      coding::caseOf<Error::scopeResolvedEmpty>("scopeResolvedEmpty"),
      coding::caseOf<Error::strengtheningAddsNoWebsites>("strengtheningAddsNoWebsites"),
      coding::caseOf<Error::extensionDoesNotStrengthen>(
          "extensionDoesNotStrengthen",
          coding::field("currentEndTime", &Error::extensionDoesNotStrengthen::currentEndTime)),
      coding::caseOf<Error::extensionExceedsActivationBoundary>(
          "extensionExceedsActivationBoundary",
          coding::field("latestPermittedEndTime",
                        &Error::extensionExceedsActivationBoundary::latestPermittedEndTime)),
      coding::caseOf<Error::enforcementNotValidated>(
          "enforcementNotValidated", coding::field("_0", &Error::enforcementNotValidated::refusal)),
      coding::caseOf<Error::malformedRequest>(
          "malformedRequest", coding::field("detail", &Error::malformedRequest::detail)),
      coding::caseOf<Error::notAuthorized>("notAuthorized"),
      coding::caseOf<Error::daemonUnavailable>(
          "daemonUnavailable", coding::field("detail", &Error::daemonUnavailable::detail)),
      coding::caseOf<Error::daemonDidNotAnswer>(
          "daemonDidNotAnswer",
          coding::field("afterSeconds", &Error::daemonDidNotAnswer::afterSeconds)),
      coding::caseOf<Error::internalFailure>(
          "internalFailure", coding::field("detail", &Error::internalFailure::detail)));
};
