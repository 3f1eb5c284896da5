#include "StillowReach/ReachDiagnosis.hpp"

#include <cmath>

#include <unistd.h>

#include "StillowCore/SumType.hpp"
#include "StillowIPC/StillowDaemonService.hpp"

namespace stillow::client {

namespace {

using Failure = platform::DaemonConnectionFailure;
using ipc::DaemonError;
using Standing = OwnSignature::Standing;

std::string daemonUnit() {
  return std::string(ipc::StillowDaemonService::machServiceName) + ".service";
}

/// "5 s", or "time" where nobody knows how long it was.
std::string waitedText(double seconds) {
  if (!(seconds > 0) || seconds > 1e6) return "time";
  return std::to_string(std::lround(std::ceil(seconds))) + " s";
}

ReachFinding closedFinding(const ReachObservation& observed) {
  const std::string closed = "The daemon closed the connection before it answered";
  const std::string readLog = readDaemonLogStep(observed.hasServiceManager);
  switch (observed.signature.standing) {
    case Standing::refused:
      return {ReachCause::ownSignature,
              closed + ", because it does not know this program. " + observed.signature.reason,
              std::string(useMatchingProgramStep)};
    case Standing::trusted:
      return {ReachCause::closedUnanswered,
              closed + ". The signature of this program is not the cause: it is valid.",
              "Try again; if that does not help, its log says why. " + readLog +
                  " (A daemon of another build refuses this program all the same.)"};
    case Standing::unchecked:
      break;
  }
  return {
      ReachCause::closedUnanswered,
      closed + ". Whether it knows this program could not be checked: " + observed.signature.reason,
      "Try again; if that does not help, its log says why. " + readLog};
}

}  // namespace

std::string startDaemonStep(bool hasServiceManager) {
  if (!hasServiceManager) return "Start StillowDaemon as root.";
  return "Start it: sudo systemctl start " + daemonUnit();
}

std::string readDaemonLogStep(bool hasServiceManager) {
  if (!hasServiceManager) return "Read what StillowDaemon has printed.";
  return "Read its log: sudo journalctl --unit " + daemonUnit();
}

bool hasServiceManager() {
  // How systemd itself says that it runs the system.
  return ::access("/run/systemd/system", F_OK) == 0;
}

std::optional<ReachObservation> observeReach(const ReachTarget& target) {
  ReachObservation observed{.failure = std::nullopt,
                            .hasServiceManager = hasServiceManager(),
                            .socketPath = target.socketPath};
  if (const auto* const late = core::getIf<DaemonError::daemonDidNotAnswer>(target.error)) {
    observed.waitedSeconds = late->afterSeconds;
    return observed;
  }
  if (core::is<DaemonError::notAuthorized>(target.error)) {
    // The requirement was built wrong, so no connection was even tried.
    observed.failure = Failure::other;
    observed.detail = ipc::description(target.error);
    return observed;
  }
  const auto* const unavailable = core::getIf<DaemonError::daemonUnavailable>(target.error);
  if (unavailable == nullptr) return std::nullopt;
  observed.failure = platform::connectionFailure(target.error).value_or(Failure::other);
  observed.detail = unavailable->detail;
  if (observed.failure == Failure::closedUnanswered) observed.signature = checkOwnSignature();
  return observed;
}

ReachFinding judgeReach(const ReachObservation& observed) {
  const std::string path = observed.socketPath.string();
  const std::string start = startDaemonStep(observed.hasServiceManager);
  const std::string readLog = readDaemonLogStep(observed.hasServiceManager);
  if (!observed.failure) {
    return {ReachCause::timedOut,
            "The daemon accepted the connection but did not answer within " +
                waitedText(observed.waitedSeconds) + ".",
            "Try again when the system is less busy. If that does not help, the daemon hangs. " +
                readLog};
  }
  switch (*observed.failure) {
    case Failure::socketMissing:
      return {ReachCause::socketMissing,
              "The daemon is not running: there is no socket at " + path + ".", start};
    case Failure::connectionRefused:
      return {ReachCause::connectionRefused,
              "The daemon is not running: its socket is there, but nobody listens at " + path + ".",
              start + " If it does not stay up: " + readLog};
    case Failure::notPermitted:
      return {ReachCause::notPermitted, "This user may not connect to " + path + ".",
              "Every user may, as the daemon leaves it. Start the daemon again, or run stillow "
              "outside the sandbox that keeps it away."};
    case Failure::timedOut:
      return {ReachCause::timedOut, "The daemon accepted no connection in time at " + path + ".",
              "Too many programs wait for it, or it hangs. Try again. " + readLog};
    case Failure::notTrusted:
      return {ReachCause::notTrusted, observed.detail,
              "Whatever listens there was not talked to. Find out who put it there, and give " +
                  observed.socketPath.parent_path().string() + " back to root alone."};
    case Failure::closedUnanswered:
      return closedFinding(observed);
    case Failure::answerUnreadable:
      return {ReachCause::answerUnreadable, observed.detail,
              "stillow and the daemon are probably not of one version: install Stillow again and "
              "restart the daemon."};
    case Failure::other:
      break;
  }
  return {ReachCause::other, observed.detail, "Try again. " + readLog};
}

std::optional<ReachFinding> diagnoseReach(const ReachTarget& target) {
  const auto observed = observeReach(target);
  if (!observed) return std::nullopt;
  return judgeReach(*observed);
}

}  // namespace stillow::client
