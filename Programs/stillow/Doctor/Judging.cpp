#include "StillowDoctor/Judging.hpp"

#include <algorithm>
#include <utility>

#include "StillowCore/SumType.hpp"
#include "StillowCore/ValidationHosts.hpp"

namespace stillow::doctor {

namespace {

using core::DegradedReason;
using core::EnforcementHealthStatus;
using core::EnforcementValidation;
using core::EnforcementValidationFailure;

std::string degradedText(DegradedReason reason) {
  switch (reason) {
    case DegradedReason::recoveringFromCorruption:
      return "its state or directive was damaged and is being restored";
    case DegradedReason::pathUnverified:
      return "the last test of the block did not pass";
    case DegradedReason::failedOpen:
      return "nothing was being blocked";
  }
  return "it does not say why";
}

}  // namespace

Report judge(const Observations& seen) {
  Judgement judgement(seen);
  judgement.judgeNetwork();
  judgement.judgeMachine();
  judgement.judgeHosts();
  judgement.judgeBlocking();
  return judgement.report();
}

Report Judgement::report() const {
  Report report = report_;
  report.healthy = std::ranges::none_of(report.findings, &Finding::isWrong);
  return report;
}

void Judgement::ok(std::string_view check, std::string meaning) {
  report_.findings.push_back({.check = std::string(check), .meaning = std::move(meaning)});
}

void Judgement::notChecked(std::string_view check, const NotObserved& why, Causes causes) {
  Finding finding{.check = std::string(check),
                  .state = FindingState::notChecked,
                  .meaning = why.needsRoot ? "Only root may look at it." : why.reason};
  if (why.needsRoot) finding.action = "Run: sudo stillow doctor";
  add(std::move(finding), causes);
}

void Judgement::warn(std::string_view check, std::string meaning, std::string action,
                     Causes causes) {
  add({.check = std::string(check),
       .state = FindingState::warning,
       .meaning = std::move(meaning),
       .action = std::move(action)},
      causes);
}

void Judgement::fail(std::string_view check, std::string meaning, std::string action,
                     Causes causes) {
  add({.check = std::string(check),
       .state = FindingState::failed,
       .meaning = std::move(meaning),
       .action = std::move(action)},
      causes);
}

void Judgement::add(Finding finding, Causes causes) {
  for (const auto name : causes) {
    const Finding* const cause = find(name);
    if (cause == nullptr || !cause->isWrong()) continue;
    finding.consequenceOf = cause->consequenceOf.value_or(cause->check);
    finding.action.reset();
    break;
  }
  report_.findings.push_back(std::move(finding));
}

const Finding* Judgement::find(std::string_view check) const {
  const auto found = std::ranges::find(report_.findings, check, &Finding::check);
  return found == report_.findings.end() ? nullptr : &*found;
}

bool Judgement::isWrong(std::string_view check) const {
  const Finding* const finding = find(check);
  return finding != nullptr && finding->isWrong();
}

std::optional<bool> Judgement::mustBlock() const {
  if (seen_.status) return seen_.status->active() != nullptr;
  if (seen_.directive && seen_.directive->read) {
    const auto& directive = *seen_.directive->read;
    return directive && directive->scope.has_value();
  }
  return std::nullopt;
}

std::optional<bool> Judgement::probedHostIsBlocked() const {
  const auto blocks = [](const core::DomainSet& domains) {
    return core::Scope{.generation = 1, .domains = domains}.contains(core::ValidationHosts::probed);
  };
  if (seen_.status && seen_.status->active() != nullptr && blocks(seen_.status->active()->scope)) {
    return true;
  }
  if (!seen_.directive || !seen_.directive->read) return std::nullopt;
  const auto& directive = *seen_.directive->read;
  return directive && blocks(directive->effectiveDomains(seen_.now));
}

void Judgement::judgeBlocking() {
  constexpr auto name = check::blocking;
  if (!seen_.validation) {
    return notChecked(name, {.reason = "The daemon could not be asked for a test of the block."},
                      {check::daemon});
  }
  if (!*seen_.validation) {
    return fail(
        name, "The daemon could not test the block: " + ipc::description(seen_.validation->error()),
        "Try again; if that does not help: " + client::readDaemonLogStep(seen_.hasServiceManager),
        {check::daemon});
  }
  const ipc::DaemonStatus& status = **seen_.validation;
  const std::string again = "Put right what is reported above, or look into the daemon’s log. " +
                            client::readDaemonLogStep(seen_.hasServiceManager);
  if (!status.readiness.validation) {
    return fail(name, "The daemon tested the block and has no result.", again, {check::daemon});
  }
  const auto* const failed =
      core::getIf<EnforcementValidation::failed>(*status.readiness.validation);
  if (failed != nullptr) {
    switch (failed->failure) {
      case EnforcementValidationFailure::extensionNotApproved:
        return fail(name, "Nothing is blocked: the daemon finds no filter of ours.", again,
                    {check::filter, check::filterUnit});
      case EnforcementValidationFailure::filterNotArmed:
        return fail(name, "Nothing is blocked: no traffic is led to the filter.", again,
                    {check::filter, check::rules});
      case EnforcementValidationFailure::connectionNotDropped:
        return fail(name, "Nothing is blocked: a connection that had to be dropped was answered.",
                    again, {check::filter, check::rules, check::directive});
      case EnforcementValidationFailure::networkUnavailable:
        return fail(
            name,
            "Not proven: neither of the two test hosts could be reached, so nobody can "
            "tell whether the filter dropped anything.",
            again,
            {check::network, check::trustStore, check::clock, check::portal, check::controlHost});
      case EnforcementValidationFailure::inconclusive:
        return fail(name, "Not proven: somebody else answered, or the test could not be set up.",
                    again,
                    {check::portal, check::clock, check::stateDirectory, check::directive,
                     check::controlHost, check::probedHost});
    }
  }
  const auto* const degraded = core::getIf<EnforcementHealthStatus::degraded>(status.enforcement);
  if (degraded != nullptr) {
    return warn(name,
                "The block works, but the daemon does not vouch for it yet: " +
                    degradedText(degraded->reason) + ".",
                "It repairs that by itself; look again in a minute.");
  }
  if (isWrong(check::probedHost)) {
    return warn(name, "The test of the block passed, but it proves nothing.", again,
                {check::probedHost});
  }
  ok(name, "A connection that had to be dropped was dropped, and its neighbour was not.");
}

}  // namespace stillow::doctor
