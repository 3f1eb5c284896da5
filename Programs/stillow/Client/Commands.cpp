#include "StillowClient/Commands.hpp"

#include <chrono>
#include <istream>
#include <ostream>
#include <utility>

#include "StillowClient/StatusText.hpp"
#include "StillowClient/TimeText.hpp"
#include "StillowConcurrency/Channel.hpp"
#include "StillowConcurrency/Deadline.hpp"
#include "StillowCore/ActivationBoundary.hpp"
#include "StillowCore/Coding.hpp"
#include "StillowIPC/DaemonError.hpp"
#include "StillowIPC/Requests.hpp"

namespace stillow::client {

using concurrency::Task;
using ipc::DaemonError;
using ipc::DaemonStatus;
using Result = ipc::CommitmentAuthorityClient::Result;

namespace {

std::vector<core::Domain> domainsOf(const std::vector<TypedSite>& sites) {
  std::vector<core::Domain> domains;
  domains.reserve(sites.size());
  for (const TypedSite& site : sites) domains.push_back(site.domain);
  return domains;
}

bool isUnreachable(const DaemonError& error) {
  return core::is<DaemonError::daemonUnavailable>(error) ||
         core::is<DaemonError::daemonDidNotAnswer>(error) ||
         core::is<DaemonError::notAuthorized>(error);
}

}  // namespace

ExitStatus Commands::report(const DaemonError& error) const {
  console_.err << ipc::description(error) << '\n' << std::flush;
  return isUnreachable(error) ? ExitStatus::unreachable : ExitStatus::refused;
}

void Commands::show(const DaemonStatus& status, bool asJSON) const {
  if (asJSON) {
    // A status that came out of JSON has a JSON form.
    console_.out << core::encode(status).value_or("") << '\n' << std::flush;
  } else {
    console_.out << statusText(status, console_.isTerminal) << std::flush;
  }
}

bool Commands::confirm(const std::vector<TypedSite>& sites,
                       core::CommitmentDuration duration) const {
  const core::Date now = with_.clock();
  std::ostream& err = console_.err;
  err << "This blocks, for " << durationText(duration.seconds()) << ", until about "
      << momentText(now + duration.seconds(), now) << ":\n";
  for (const TypedSite& site : sites) {
    err << "  " << site.domain.name();
    if (!site.note.empty()) err << "  (" << site.note << ")";
    err << '\n';
  }
  err << "Nobody can end it early, you included; it can only be extended, by "
      << momentText(now + core::ActivationBoundary::spanSeconds, now)
      << " at the latest, and sites can be added.\n"
         "Time asleep counts; time while this machine is shut down does not, so the end can move "
         "later.\n"
         "Start it? Type yes: "
      << std::flush;
  std::string answer;
  std::getline(console_.in, answer);
  return answer == "yes";
}

Task<ExitStatus> Commands::start(std::vector<TypedSite> sites, core::CommitmentDuration duration,
                                 bool isConfirmed) {
  if (!isConfirmed && !confirm(sites, duration)) {
    console_.err << "Nothing was started.\n" << std::flush;
    co_return ExitStatus::declined;
  }
  const Result announced = co_await with_.daemon->announceUserInterface();
  if (!announced) co_return report(announced.error());
  console_.err << "Testing that the filter really blocks …\n" << std::flush;
  const Result validated = co_await with_.daemon->validateEnforcement();
  if (!validated) co_return report(validated.error());

  std::vector<core::Website> websites;
  for (core::Domain& domain : domainsOf(sites)) websites.push_back({std::move(domain), {}});
  ipc::ActivationRequest request{core::CommitmentSelection::allWebsites{}, std::move(websites),
                                 duration};
  const Result activated = co_await with_.daemon->activate(std::move(request));
  if (!activated) co_return report(activated.error());
  show(*activated, false);
  co_return ExitStatus::success;
}

Task<ExitStatus> Commands::add(std::vector<TypedSite> sites) {
  ipc::ScopeAddition addition = ipc::ScopeAddition::websites{core::DomainSet::of(domainsOf(sites))};
  const Result strengthened = co_await with_.daemon->strengthen(std::move(addition));
  if (!strengthened) co_return report(strengthened.error());
  show(*strengthened, false);
  co_return ExitStatus::success;
}

Task<ExitStatus> Commands::extend(double seconds) {
  const Result before = co_await with_.daemon->status();
  if (!before) co_return report(before.error());
  const ipc::ActiveCommitmentStatus* const active = before->active();
  if (active == nullptr) co_return report(DaemonError::noActiveCommitment{});
  const core::Date end = active->projectedEndTime.date + seconds;
  // The daemon's limit lies 24 hours past the activation. Should the clock have been set back
  // behind that, it would allow more than a day from now; nobody means that.
  if (!(end <= with_.clock() + core::ActivationBoundary::spanSeconds)) {
    co_return report(
        DaemonError::extensionExceedsActivationBoundary{active->latestPermittedEndTime});
  }
  const Result extended = co_await with_.daemon->extend(ipc::ExtensionRequest{{end}});
  if (!extended) co_return report(extended.error());
  show(*extended, false);
  co_return ExitStatus::success;
}

Task<ExitStatus> Commands::status(bool asJSON) {
  const Result status = co_await with_.daemon->status();
  if (!status) co_return report(status.error());
  show(*status, asJSON);
  co_return ExitStatus::success;
}

Task<ExitStatus> Commands::acknowledge() {
  const Result status = co_await with_.daemon->acknowledgeExpiry();
  if (!status) co_return report(status.error());
  show(*status, false);
  co_return ExitStatus::success;
}

namespace {

struct Watched {
  concurrency::Channel<std::optional<DaemonStatus>> events{
      8};  ///< none inside: a second has passed
  concurrency::Cancellation cancellation;
};

Task<void> forwardStatuses(std::shared_ptr<ipc::CommitmentAuthorityClient> daemon,
                           Watched watched) {
  const ipc::DaemonStatusStream stream = daemon->statusChanges();
  while (true) {
    std::optional<DaemonStatus> status = co_await stream.next();
    if (!status) break;
    (void)watched.events.give(std::move(status));
  }
  watched.events.finish();
  watched.cancellation.cancel();
}

Task<void> forwardSeconds(std::shared_ptr<concurrency::Sleeper> sleeper, Watched watched) {
  while (true) {
    const auto outcome = co_await sleeper->sleep(std::chrono::seconds(1), watched.cancellation);
    if (outcome == concurrency::SleepOutcome::cancelled) co_return;
    (void)watched.events.give(std::nullopt);
  }
}

}  // namespace

Task<ExitStatus> Commands::watch(bool asJSON) {
  // A call first: its error says why the daemon cannot be reached, which a stream does not.
  const Result first = co_await with_.daemon->status();
  if (!first) co_return report(first.error());
  const concurrency::Executor executor = co_await boost::asio::this_coro::executor;
  const Watched watched;
  const bool rewrites = console_.isTerminal && !asJSON;
  concurrency::spawn(executor, forwardStatuses(with_.daemon, watched));
  if (rewrites) concurrency::spawn(executor, forwardSeconds(with_.sleeper, watched));
  std::optional<DaemonStatus> last;
  while (true) {
    std::optional<std::optional<DaemonStatus>> event = co_await watched.events.next();
    if (!event) break;
    if (*event) last = std::move(**event);
    if (!last) continue;
    if (rewrites) {
      console_.out << "\r\x1b[K" << statusLine(*last, with_.clock()) << std::flush;
    } else {
      show(*last, asJSON);
    }
  }
  if (rewrites) console_.out << '\n' << std::flush;
  console_.err << "The connection to the daemon has ended.\n" << std::flush;
  co_return ExitStatus::unreachable;
}

}  // namespace stillow::client
