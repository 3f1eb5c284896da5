#include "StillowClient/RefusalText.hpp"

#include "StillowClient/TextLayout.hpp"
#include "StillowClient/TimeText.hpp"
#include "StillowCore/SumType.hpp"

namespace stillow::client {

using ipc::DaemonError;

namespace {

constexpr const char* askTheDoctor = "To find out why: stillow doctor";

std::string nextStep(const ipc::ActivationValidationRefusal& refusal) {
  using Refusal = ipc::ActivationValidationRefusal;
  return core::match(
      refusal, [](const Refusal::validationStale&) { return std::string("Try again."); },
      [](const Refusal::validationFailed& failed) { return validationText(failed.failure); },
      [](const Refusal::neverValidated&) { return std::string("Test it with: stillow validate"); });
}

std::string nextStep(const DaemonError& error, core::Date now) {
  using Error = DaemonError;
  return core::match(
      error,
      [](const Error::commitmentAlreadyActive&) {
        return std::string(
            "To block more: stillow add SITE. To move its end: stillow extend --by 30m");
      },
      [](const Error::noActiveCommitment&) {
        return std::string("To start one: stillow start --for 2h SITE");
      },
      [](const Error::scopeResolvedEmpty&) {
        return std::string("To see what there is to choose from: stillow sites list");
      },
      [](const Error::strengtheningAddsNoWebsites&) {
        return std::string("To see what is blocked: stillow status");
      },
      [&](const Error::extensionDoesNotStrengthen& refusal) {
        return "It ends at about " + momentText(refusal.currentEndTime.date, now) +
               "; name a later end.";
      },
      [&](const Error::extensionExceedsActivationBoundary& refusal) {
        return "The latest end is " + momentText(refusal.latestPermittedEndTime, now) + ".";
      },
      [](const Error::enforcementNotValidated& refusal) { return nextStep(refusal.refusal); },
      [](const Error::malformedRequest&) {
        return std::string(
            "This program and the daemon may be of different versions; install both anew.");
      },
      [](const Error::internalFailure&) {
        return std::string(
            "The daemon’s log may say more: journalctl -u com.larchmoor.Stillow.daemon");
      },
      [](const Error::notAuthorized&) { return std::string(askTheDoctor); },
      [](const Error::daemonUnavailable&) { return std::string(askTheDoctor); },
      [](const Error::daemonDidNotAnswer&) { return std::string(askTheDoctor); });
}

}  // namespace

bool isUnreachable(const DaemonError& error) {
  return core::is<DaemonError::daemonUnavailable>(error) ||
         core::is<DaemonError::daemonDidNotAnswer>(error) ||
         core::is<DaemonError::notAuthorized>(error);
}

ExitStatus exitStatusOf(const DaemonError& error) {
  return isUnreachable(error) ? ExitStatus::unreachable : ExitStatus::refused;
}

std::string refusalText(const DaemonError& error, core::Date now) {
  return printable(ipc::description(error)) + "\n" + nextStep(error, now);
}

std::string validationText(core::EnforcementValidationFailure failure) {
  using Failure = core::EnforcementValidationFailure;
  const std::string next = std::string("\n") + askTheDoctor;
  switch (failure) {
    case Failure::extensionNotApproved:
      return "The filter is not running, or what runs is not ours." + next;
    case Failure::filterNotArmed:
      return "The filter is not in the path of the traffic, so nothing would be blocked." + next;
    case Failure::connectionNotDropped:
      return "A connection that had to be blocked got through." + next;
    case Failure::networkUnavailable:
      return "The test needs the network, and neither test host could be reached." + next;
    case Failure::inconclusive:
      return "Something else answered for the test hosts: a network’s login page, perhaps." + next;
  }
  return askTheDoctor;
}

}  // namespace stillow::client
