#include "StillowClient/Commands.hpp"

#include <algorithm>
#include <iterator>
#include <ostream>
#include <utility>

#include "StillowClient/Confirmation.hpp"
#include "StillowClient/Explanation.hpp"
#include "StillowClient/RefusalText.hpp"
#include "StillowClient/StatusText.hpp"
#include "StillowClient/TimeText.hpp"
#include "StillowCore/ActivationBoundary.hpp"
#include "StillowCore/Coding.hpp"
#include "StillowIPC/Requests.hpp"

namespace stillow::client {

using concurrency::Task;
using ipc::DaemonError;
using ipc::DaemonStatus;
using Result = ipc::CommitmentAuthorityClient::Result;

namespace {

std::vector<TypedSite> sitesOf(const core::DomainSet& scope) {
  std::vector<TypedSite> sites;
  sites.reserve(scope.size());
  for (const core::Domain& domain : scope) sites.push_back({domain, ""});
  return sites;
}

/// What the daemon is asked for: by name where only names were typed.
ipc::ScopeAddition additionOf(Selection selection) {
  if (selection.usesCollection) {
    return ipc::ScopeAddition::selection{std::move(selection.selected),
                                         std::move(selection.collectionSnapshot)};
  }
  std::vector<core::Domain> domains;
  domains.reserve(selection.sites.size());
  for (TypedSite& site : selection.sites) domains.push_back(std::move(site.domain));
  return ipc::ScopeAddition::websites{core::DomainSet::of(std::move(domains))};
}

/// Why the end cannot be moved to `end`, as far as that is clear without the daemon, in its words.
std::optional<DaemonError> refusalOfExtension(const ipc::ActiveCommitmentStatus* active,
                                              core::Date end, core::Date now) {
  if (active == nullptr) return DaemonError::noActiveCommitment{};
  if (!(end > active->projectedEndTime.date)) {
    return DaemonError::extensionDoesNotStrengthen{active->projectedEndTime};
  }
  // The daemon's limit lies 24 hours past the activation. Should the clock have been set back
  // behind that, it would allow more than a day from now; nobody means that.
  if (!(end <= active->latestPermittedEndTime) ||
      !(end <= now + core::ActivationBoundary::spanSeconds)) {
    return DaemonError::extensionExceedsActivationBoundary{active->latestPermittedEndTime};
  }
  return std::nullopt;
}

/// More refusals than that tell a reader nothing new.
constexpr std::size_t refusalsShown = 20;

}  // namespace

ExitStatus Commands::refuse(const std::vector<std::string>& sentences, ExitStatus status) const {
  tellRefusals(sentences, console_);
  return status;
}

void tellRefusals(const std::vector<std::string>& sentences, const Console& console) {
  for (std::size_t index = 0; index < std::min(sentences.size(), refusalsShown); ++index) {
    console.tell(sentences[index]);
  }
  if (sentences.size() > refusalsShown) {
    console.tell("And " + std::to_string(sentences.size() - refusalsShown) + " more.");
  }
}

ExitStatus Commands::report(const DaemonError& error) const {
  std::string text;
  if (isUnreachable(error) && with_.explainUnreachable) text = with_.explainUnreachable(error);
  console_.tell(text.empty() ? refusalText(error, with_.clock()) : text);
  return exitStatusOf(error);
}

bool Commands::isAgreed(const Promise& promise, CommandOptions options) const {
  if (options.isConfirmed) return true;
  if (!confirm(promise, console_)) return false;
  // While somebody thought, nobody looked at the connection: the daemon may be another one by now.
  with_.daemon->invalidate();
  return true;
}

void Commands::show(const DaemonStatus& status, CommandOptions options) const {
  if (options.asJSON) {
    console_.printRecord(status);
  } else {
    console_.out << statusText(status, console_.outStyle()) << std::flush;
  }
}

std::expected<Commands::Length, std::string> Commands::understandLength(
    const EndRequest& end) const {
  if (end.duration.empty() == end.until.empty()) {
    return std::unexpected("Say how long: --for 2h, or --until 18:00.");
  }
  if (!end.until.empty()) {
    const auto moment = parseEndTime(end.until, with_.clock(), with_.offset);
    if (!moment) return std::unexpected(moment.error());
    return Length(*moment);
  }
  const auto duration = parseDuration(end.duration);
  if (!duration) return std::unexpected(duration.error());
  return Length(*duration);
}

Task<ExitStatus> Commands::start(SelectionWords words, EndRequest end, CommandOptions options) {
  const auto length = understandLength(end);
  if (!length) co_return refuse({length.error()});
  auto selection = understandSelection(words, with_.normalizer(), with_.readCollection);
  if (!selection) co_return refuse(selection.error().sentences, selection.error().status);

  const Result before = co_await with_.daemon->status();
  if (!before) co_return report(before.error());
  if (const ipc::ActiveCommitmentStatus* const active = before->active()) {
    co_return report(DaemonError::commitmentAlreadyActive{*active});
  }
  const auto endFrom = [&](core::Date now) {
    const auto* const duration = std::get_if<core::CommitmentDuration>(&*length);
    return duration != nullptr ? now + duration->seconds() : std::get<core::Date>(*length);
  };
  const core::Date asked = with_.clock();
  const Promise promise{.step = Promise::Step::start,
                        .sites = std::move(selection->sites),
                        .now = asked,
                        .end = endFrom(asked),
                        .latestEnd = asked + core::ActivationBoundary::spanSeconds};
  if (!isAgreed(promise, options)) co_return ExitStatus::declined;

  const Result announced = co_await with_.daemon->announceUserInterface();
  if (!announced) co_return report(announced.error());
  console_.tell("Testing that the filter really blocks …");
  const Result validated = co_await with_.daemon->validateEnforcement();
  if (!validated) co_return report(validated.error());

  const core::Date now = with_.clock();
  const auto duration = core::CommitmentDuration::fromSeconds(endFrom(now) - now);
  if (!duration) {
    co_return refuse(
        {client::quoted(end.until) + " has passed meanwhile, so nothing was started."});
  }
  ipc::ActivationRequest request{std::move(selection->selected),
                                 std::move(selection->collectionSnapshot), *duration};
  const Result activated = co_await with_.daemon->activate(std::move(request));
  if (!activated) co_return report(activated.error());
  show(*activated, options);
  co_return ExitStatus::success;
}

Promise Commands::promiseToAdd(const ipc::ActiveCommitmentStatus& active,
                               const std::vector<TypedSite>& sites) const {
  Promise promise{.step = Promise::Step::add,
                  .sites = {},
                  .now = with_.clock(),
                  .end = active.projectedEndTime.date,
                  .latestEnd = active.latestPermittedEndTime};
  std::ranges::copy_if(sites, std::back_inserter(promise.sites),
                       [&](const TypedSite& site) { return !active.scope.contains(site.domain); });
  return promise;
}

Task<ExitStatus> Commands::add(SelectionWords words, CommandOptions options) {
  auto selection = understandSelection(words, with_.normalizer(), with_.readCollection);
  if (!selection) co_return refuse(selection.error().sentences, selection.error().status);
  if (!options.isConfirmed) {
    const Result before = co_await with_.daemon->status();
    if (!before) co_return report(before.error());
    const ipc::ActiveCommitmentStatus* const active = before->active();
    if (active == nullptr) {
      co_return report(DaemonError::noActiveCommitment{});
    }
    const Promise promise = promiseToAdd(*active, selection->sites);
    if (promise.sites.empty()) {
      co_return report(DaemonError::strengtheningAddsNoWebsites{});
    }
    if (!isAgreed(promise, options)) co_return ExitStatus::declined;
  }
  const Result strengthened = co_await with_.daemon->strengthen(additionOf(std::move(*selection)));
  if (!strengthened) co_return report(strengthened.error());
  show(*strengthened, options);
  co_return ExitStatus::success;
}

Task<ExitStatus> Commands::extend(EndRequest request, CommandOptions options) {
  if (request.duration.empty() == request.until.empty()) {
    co_return refuse({"Say until when: --by 30m, or --until 18:00."});
  }
  std::expected<double, std::string> seconds = 0;
  std::expected<core::Date, std::string> until = core::Date{};
  if (request.until.empty()) {
    seconds = parseSeconds(request.duration);
    if (seconds && !(*seconds > 0 && *seconds <= core::CommitmentDuration::secondsMax)) {
      seconds = std::unexpected(
          client::quoted(request.duration) +
          " is not possible: an end moves by more than 0 seconds and at most 24 hours.");
    }
  } else {
    until = parseEndTime(request.until, with_.clock(), with_.offset);
  }
  if (!seconds) co_return refuse({seconds.error()});
  if (!until) co_return refuse({until.error()});

  const Result before = co_await with_.daemon->status();
  if (!before) co_return report(before.error());
  const ipc::ActiveCommitmentStatus* const active = before->active();
  const core::Date now = with_.clock();
  const core::Date end = active == nullptr       ? core::Date{}
                         : request.until.empty() ? active->projectedEndTime.date + *seconds
                                                 : *until;
  if (const auto refusal = refusalOfExtension(active, end, now)) co_return report(*refusal);
  if (!options.isConfirmed) {
    const Promise promise{.step = Promise::Step::extend,
                          .sites = sitesOf(active->scope),
                          .now = now,
                          .end = end,
                          .latestEnd = active->latestPermittedEndTime};
    if (!isAgreed(promise, options)) co_return ExitStatus::declined;
  }
  const Result extended = co_await with_.daemon->extend(ipc::ExtensionRequest{{end}});
  if (!extended) co_return report(extended.error());
  show(*extended, options);
  co_return ExitStatus::success;
}

Task<ExitStatus> Commands::status(CommandOptions options) {
  const Result status = co_await with_.daemon->status();
  if (!status) co_return report(status.error());
  show(*status, options);
  co_return ExitStatus::success;
}

Task<ExitStatus> Commands::acknowledge(CommandOptions options) {
  const Result status = co_await with_.daemon->acknowledgeExpiry();
  if (!status) co_return report(status.error());
  show(*status, options);
  co_return ExitStatus::success;
}

Task<ExitStatus> Commands::validate(CommandOptions options) {
  if (!options.asJSON) console_.tell("Testing that the filter really blocks …");
  const Result status = co_await with_.daemon->validateEnforcement();
  if (!status) co_return report(status.error());
  const std::optional<core::EnforcementValidation>& validation = status->readiness.validation;
  const auto* const failed =
      validation ? core::getIf<core::EnforcementValidation::failed>(*validation) : nullptr;
  const bool hasPassed = validation && failed == nullptr;
  if (options.asJSON) {
    console_.printRecord(status->readiness);
  } else if (hasPassed) {
    console_.say(
        "The block works: a connection that had to be blocked was, and another one got through.");
  } else {
    console_.say(failed != nullptr ? validationText(failed->failure)
                                   : "The daemon tested nothing. Try again.");
  }
  co_return hasPassed ? ExitStatus::success : ExitStatus::refused;
}

Task<ExitStatus> Commands::explain(std::string site, CommandOptions options) {
  const auto understood = with_.normalizer().normalize(site);
  if (!understood) co_return refuse({siteRefusal(site, understood.error())});
  if (options.asJSON) {
    console_.printRecord(*understood);
    co_return ExitStatus::success;
  }
  const TextStyle style = console_.outStyle();
  console_.out << wrapped(explanation(site, *understood), style.columns) << std::flush;
  const Result status = co_await with_.daemon->status();
  if (status) {
    console_.say(scopeSentence(blockedDomain(*understood), *status));
  } else {
    // The explanation stands without it.
    console_.tell("Whether it is blocked now is not known.");
    (void)report(status.error());
  }
  co_return ExitStatus::success;
}

}  // namespace stillow::client
