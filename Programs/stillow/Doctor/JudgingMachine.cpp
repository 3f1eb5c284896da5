#include <algorithm>
#include <array>

#include "StillowClient/TextLayout.hpp"
#include "StillowCore/SumType.hpp"
#include "StillowDoctor/Judging.hpp"
#include "StillowIPC/StillowDaemonService.hpp"

/// What is installed and runs here: from the units to the kernel's rules.
namespace stillow::doctor {

namespace {

using Installation = platform::SystemdUnit::Installation;
using Standing = client::OwnSignature::Standing;
using authority::CommitmentStateRecovery;
using client::ReachCause;

/// Less than that and a Scope of a size that people have may not fit any more.
constexpr std::uint64_t freeBytesMin = std::uint64_t{16} << 20;
constexpr std::uint32_t permissionsOfOthers = 077;

constexpr const char* installAgain = "Install Stillow again.";

std::string unitName(std::string_view label) { return std::string(label) + ".service"; }

std::string startFilter(bool hasServiceManager) {
  if (!hasServiceManager) return "Start stillow-filter as root.";
  return "Start it: sudo systemctl restart " +
         unitName(ipc::StillowDaemonService::filterBundleIdentifier);
}

std::string familyName(platform::IPFamily family) {
  return family == platform::IPFamily::v4 ? "IPv4" : "IPv6";
}

std::string familyNames(const std::vector<platform::IPFamily>& families) {
  std::string text;
  for (const auto family : families) text += (text.empty() ? "" : " and ") + familyName(family);
  return text;
}

}  // namespace

void Judgement::judgeMachine() {
  unit(check::daemonUnit, seen_.daemonUnit, ipc::StillowDaemonService::machServiceName);
  unit(check::filterUnit, seen_.filterUnit, ipc::StillowDaemonService::filterBundleIdentifier);
  signature();
  socket();
  daemon();
  stateDirectory();
  checkpoints();
  directive();
  filter();
  rules();
}

void Judgement::unit(std::string_view name, const Observed<UnitObservation>& unit,
                     std::string_view label) {
  if (!unit) return notChecked(name, unit.error());
  const std::string subject = unitName(label);
  switch (unit->installation) {
    case Installation::absent:
      if (seen_.status) {
        return warn(name, "There is no unit " + subject + ": nothing starts it with the system.",
                    installAgain);
      }
      return fail(name, "There is no unit " + subject + ".", installAgain);
    case Installation::masked:
      return fail(name, "The unit " + subject + " is masked, so it may not start.",
                  "Allow it: sudo systemctl unmask " + subject);
    case Installation::disabled:
    case Installation::enabled:
      break;
  }
  if (unit->activeState != "active" && unit->activeState != "reloading") {
    return fail(
        name, "The unit " + subject + " does not run: systemd calls it " + unit->activeState + ".",
        "Start it, then see why it ended: sudo systemctl start " + subject +
            "; sudo journalctl --unit " + subject);
  }
  if (unit->installation == Installation::disabled) {
    return warn(name, "The unit " + subject + " runs, but does not start with the system.",
                "Have it started: sudo systemctl enable " + subject);
  }
  ok(name, subject + " runs, and starts with the system.");
}

void Judgement::signature() {
  constexpr auto name = check::signature;
  switch (seen_.signature.standing) {
    case Standing::trusted:
      return ok(name, "This program is signed as one of Stillow’s.");
    case Standing::refused:
      return fail(name, "The daemon will not talk to this program. " + seen_.signature.reason,
                  std::string(client::useMatchingProgramStep));
    case Standing::unchecked:
      break;
  }
  // A daemon that answers knows this program.
  if (seen_.status) return ok(name, "The daemon knows this program.");
  notChecked(name, {.reason = seen_.signature.reason});
}

void Judgement::socket() {
  constexpr auto name = check::socket;
  const std::string& path = seen_.socket.path;
  switch (seen_.socket.kind) {
    case SocketObservation::Kind::missing:
      return fail(name, "There is no socket at " + path + ", so the daemon does not run.",
                  client::startDaemonStep(seen_.hasServiceManager), {check::daemonUnit});
    case SocketObservation::Kind::notASocket:
      return fail(name, "What lies at " + path + " is no socket.",
                  "Remove it, and restart the daemon.");
    case SocketObservation::Kind::present:
      break;
  }
  if (!seen_.socket.unsafeDirectory.empty()) {
    return fail(name, seen_.socket.unsafeDirectory,
                "Somebody else could put a socket there. Give the directory back to root alone, "
                "and restart the daemon.");
  }
  ok(name, "It is there, and only root could have put it there.");
}

void Judgement::daemon() {
  constexpr auto name = check::daemon;
  if (seen_.status) {
    return ok(name, core::match(
                        seen_.status->commitment,
                        [](const ipc::CommitmentStatus::active&) {
                          return std::string("It answers. A Commitment is active.");
                        },
                        [](const ipc::CommitmentStatus::expired&) {
                          return std::string("It answers. The last Commitment has ended.");
                        },
                        [](const ipc::CommitmentStatus::idle&) {
                          return std::string("It answers. No Commitment is active.");
                        }));
  }
  if (!seen_.reach) {
    return fail(name, ipc::description(seen_.status.error()),
                client::readDaemonLogStep(seen_.hasServiceManager));
  }
  const std::string& sentence = seen_.reach->sentence;
  const std::string& step = seen_.reach->nextStep;
  switch (seen_.reach->cause) {
    case ReachCause::socketMissing:
    case ReachCause::connectionRefused:
      return fail(name, sentence, step, {check::daemonUnit, check::socket});
    case ReachCause::ownSignature:
      return fail(name, sentence, step, {check::signature});
    case ReachCause::notTrusted:
      return fail(name, sentence, step, {check::socket});
    default:
      return fail(name, sentence, step, {});
  }
}

void Judgement::stateDirectory() {
  constexpr auto name = check::stateDirectory;
  if (!seen_.stateDirectory) return notChecked(name, seen_.stateDirectory.error());
  const StateDirectoryObservation& directory = *seen_.stateDirectory;
  if (!directory.exists) {
    return fail(name, "There is no directory " + directory.path + ".",
                "The daemon makes it when it starts. Restart the daemon.", {check::daemon});
  }
  if (!directory.belongsToRoot || (directory.permissions & permissionsOfOthers) != 0) {
    return fail(name, "Others than root may get at " + directory.path + ".",
                "Give it back: sudo chown root:root '" + directory.path + "' && sudo chmod 700 '" +
                    directory.path + "'");
  }
  if (!directory.unsafeDirectory.empty()) {
    return fail(name, directory.unsafeDirectory,
                "Whoever can may exchange the state. Give the directory back to root alone.");
  }
  if (directory.freeBytes < freeBytesMin) {
    return fail(name,
                "The disk that " + directory.path + " lies on is full: " +
                    std::to_string(directory.freeBytes >> 10) + " KiB are left.",
                "Make room. What cannot be saved does not survive a restart.");
  }
  ok(name, "It is root’s alone, and its disk has room.");
}

void Judgement::checkpoints() {
  constexpr auto name = check::checkpoints;
  if (!seen_.checkpoints) return notChecked(name, seen_.checkpoints.error());
  switch (*seen_.checkpoints) {
    case CommitmentStateRecovery::Source::current:
      return ok(name, "What the daemon would start from is sound.");
    case CommitmentStateRecovery::Source::lastKnownGood:
      return warn(name, "The checkpoint cannot be read; the one before it can.",
                  "The daemon writes a new one by itself. If this stays, look at the disk.",
                  {check::stateDirectory, check::daemon});
    case CommitmentStateRecovery::Source::failedOpen:
      break;
  }
  fail(name, "Neither checkpoint can be read: a daemon that starts now knows of no Commitment.",
       "A daemon that runs writes a new one by itself. If this stays, look at the disk.",
       {check::stateDirectory, check::daemon});
}

void Judgement::directive() {
  constexpr auto name = check::directive;
  if (!seen_.directive) return notChecked(name, seen_.directive.error());
  const DirectiveObservation& directive = *seen_.directive;
  const std::string restart = "Restart the daemon, which writes it anew.";
  if (!directive.read) {
    return fail(name, "What the daemon told the filter cannot be read. " + directive.read.error(),
                restart, {check::stateDirectory, check::daemon});
  }
  if (!*directive.read) {
    return fail(name, "The daemon has not told the filter anything yet.", restart,
                {check::stateDirectory, check::daemon});
  }
  if (!directive.belongsToRoot || (directive.permissions & permissionsOfOthers) != 0) {
    return warn(name, "Others than root may get at what the daemon tells the filter.", restart);
  }
  const auto& scope = (*directive.read)->scope;
  if (seen_.status) {
    const ipc::ActiveCommitmentStatus* const active = seen_.status->active();
    // Read after the status, so a newer one is no contradiction.
    if (active != nullptr && (!scope || scope->generation < active->scopeGeneration)) {
      return fail(name, "What the daemon told the filter lags behind the Commitment.",
                  "Look again in a minute; if that does not help, make sure that the disk is "
                  "sound. " +
                      restart,
                  {check::stateDirectory});
    }
    if (active == nullptr && scope) {
      return fail(name, "The filter is told to block although no Commitment is active.",
                  "Look again; if this stays: " + restart, {check::stateDirectory});
    }
  }
  ok(name,
     scope ? "The filter is told to block " + client::counted(scope->domains.size(), "site") + "."
           : "The filter is told that nothing is to be blocked.");
}

bool Judgement::isQueueHeldByStranger() const {
  return seen_.queue && seen_.queue->holder.kind == platform::FilterQueueHolder::Kind::stranger;
}

bool Judgement::filterHoldsTraffic() const {
  return isQueueHeldByStranger() || (seen_.queue && seen_.queue->isStuck);
}

void Judgement::filter() {
  constexpr auto name = check::filter;
  if (!seen_.queue) return notChecked(name, seen_.queue.error());
  using Kind = platform::FilterQueueHolder::Kind;
  const std::string start = startFilter(seen_.hasServiceManager);
  switch (seen_.queue->holder.kind) {
    case Kind::nobody:
      return fail(name, "The filter does not run: nobody reads the packet queue.", start,
                  {check::filterUnit});
    case Kind::stranger:
      return fail(
          name,
          "The packet queue is held by " + seen_.queue->holder.description +
              ", so nothing is blocked.",
          "End that program, or have it use another queue. Then start the filter again. " + start);
    case Kind::ourFilter:
      break;
  }
  if (seen_.queue->isStuck) {
    return fail(name,
                "The filter hangs: " + std::to_string(seen_.queue->waiting) +
                    " packets wait and none is answered.",
                "It ends itself within seconds and is started again. If not: end it. " + start);
  }
  ok(name, "It runs, is ours, and reads the packet queue.");
}

void Judgement::rules() {
  constexpr auto name = check::rules;
  if (!seen_.rules) return notChecked(name, seen_.rules.error());
  std::vector<platform::IPFamily> whole;
  std::vector<platform::IPFamily> broken;
  for (const auto& [family, installed] : *seen_.rules) {
    const bool isWhole = platform::NetfilterRules::areInPlace(family, installed);
    (isWhole ? whole : broken).push_back(family);
  }
  if (broken.empty()) {
    return ok(name, "They lead the traffic of " + familyNames(whole) + " to the filter.");
  }
  const auto must = mustBlock();
  if (must.value_or(false)) {
    const Causes withStranger{check::filter, check::daemon};
    const Causes alone{check::daemon};
    return fail(name,
                "The rules that lead " + familyNames(broken) +
                    " traffic to the filter are gone or incomplete, so it is not blocked.",
                "The daemon puts them back. If it does not, another program keeps taking them "
                "away, such as a firewall that loads its rules anew. " +
                    client::readDaemonLogStep(seen_.hasServiceManager),
                isQueueHeldByStranger() ? withStranger : alone);
  }
  const bool isBare = std::ranges::all_of(*seen_.rules, [](const FamilyRulesObservation& each) {
    return each.installed == platform::InstalledRules{};
  });
  if (!isBare) {
    return warn(name, "Some of the rules that lead traffic to the filter are missing.",
                "The daemon completes them with the next Commitment or test.", {check::daemon});
  }
  if (must) return ok(name, "None are in place, since nothing is to be blocked.");
  notChecked(name, {.reason = "None are in place; whether they should be could not be found out."});
}

}  // namespace stillow::doctor
