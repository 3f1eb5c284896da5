#include "PlatformLinuxDaemon/NetfilterConfiguration.hpp"

#include <array>
#include <optional>
#include <string_view>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "PlatformLinuxDaemon/FilterProcessWatch.hpp"
#include "PlatformLinuxFilter/FlowMark.hpp"
#include "PlatformLinuxFilter/QueueStatus.hpp"
#include "StillowIPC/CodeSigningRequirement.hpp"
#include "StillowIPC/StillowDaemonService.hpp"

namespace stillow::platform {

using authority::FilterArmingState;
using authority::FilterConfigurationError;
using authority::FilterPathReadiness;
using concurrency::Task;

// ---- who holds the queue

namespace {

/// Every filter of ours and nothing else.
const ipc::CodeSigningRequirement& filterRequirement() {
  static constexpr std::array identifiers{ipc::StillowDaemonService::filterBundleIdentifier};
  static const auto requirement = ipc::CodeSigningRequirement::signedBy(
      ipc::CodeSigningRequirement::teamIdentifier, identifiers);
  return requirement;
}

std::expected<struct stat, std::string> executableFile(const PinnedProcess& process) {
  const auto file = process.openExecutable();
  if (!file) return std::unexpected(file.error());
  struct stat status{};
  if (::fstat(file->get(), &status) != 0) return std::unexpected("its executable is out of reach");
  return status;
}

std::expected<std::optional<QueueStatus>, std::string> queueStatus() {
  auto status = QueueStatus::read(filterQueueNumber);
  if (status) return *status;
  // No packet queue in this kernel yet means that nobody is bound to one.
  if (status.error() == std::errc::no_such_file_or_directory) return std::nullopt;
  return std::unexpected("The packet queue's state could not be read: " + status.error().message() +
                         ".");
}

}  // namespace

KernelFilterQueueInspector::KernelFilterQueueInspector(Identify identify,
                                                       std::shared_ptr<FilterProcessWatch> watch)
    : identify_(std::move(identify)), watch_(std::move(watch)) {}

std::expected<FilterQueueHolder, std::string> KernelFilterQueueInspector::holder() {
  using Kind = FilterQueueHolder::Kind;
  const std::lock_guard lock(mutex_);
  const auto before = queueStatus();
  if (!before) return std::unexpected(before.error());
  if (!*before) return FilterQueueHolder{Kind::nobody};
  const std::uint32_t portID = (*before)->portID;
  if (isTheApprovedFilter(portID)) return FilterQueueHolder{Kind::ourFilter};

  auto judged = judge(portID);
  if (!judged) {
    return FilterQueueHolder{
        Kind::stranger,
        queueHolderDescription(portID) + ", which is not the filter (" + judged.error() + ")"};
  }
  // Still bound, and the process that was looked at still runs: then it held the queue throughout,
  // since a port is given to one socket at a time and the id to one process.
  const auto after = queueStatus();
  if (!after) return std::unexpected(after.error());
  if (!*after || (*after)->portID != portID || !judged->process.isRunning()) {
    return FilterQueueHolder{Kind::nobody};
  }
  approved_ = std::move(*judged);
  // Pinned once more for the watch: the same process, since the first pin shows that it runs.
  if (auto again = PinnedProcess::withID(approved_->process.pid()); watch_ && again) {
    watch_->follow(std::move(*again));
  }
  return FilterQueueHolder{Kind::ourFilter};
}

bool KernelFilterQueueInspector::isTheApprovedFilter(std::uint32_t portID) const {
  if (!approved_ || approved_->process.pid() != static_cast<pid_t>(portID)) return false;
  const auto file = executableFile(approved_->process);
  return file && file->st_dev == approved_->device && file->st_ino == approved_->inode &&
         approved_->process.isRunning();
}

std::expected<KernelFilterQueueInspector::Judged, std::string> KernelFilterQueueInspector::judge(
    std::uint32_t portID) const {
  auto process = PinnedProcess::withID(static_cast<pid_t>(portID));
  if (!process) return std::unexpected(process.error());
  const auto file = executableFile(*process);
  if (!file) return std::unexpected(file.error());
  const auto identity = identify_(*process);
  if (!identity) return std::unexpected(identity.error());
  if (!filterRequirement().isSatisfiedBy(*identity)) {
    return std::unexpected("it is signed as \"" + identity->identifier + "\"");
  }
  return Judged{std::move(*process), file->st_dev, file->st_ino};
}

// ---- the rules

/// What is done on the blocking thread. Shared with the work that is under way there.
struct NetfilterConfiguration::Steps {
  std::shared_ptr<CommandRunning> commands;
  std::shared_ptr<FilterQueueInspecting> queue;
  std::function<std::vector<IPFamily>()> families;

  using Error = FilterConfigurationError;
  template <class T>
  using Outcome = std::expected<T, Error>;

  Outcome<void> arm() const;
  Outcome<void> disarm() const;
  Outcome<FilterPathReadiness> readBack() const;

  Outcome<InstalledRules> installedRules(IPFamily family) const;
  Outcome<void> armFamily(IPFamily family, std::vector<IPFamily>& changed) const;
  Outcome<void> disarmFamily(IPFamily family) const;
  template <class MakeText>
  Outcome<void> load(IPFamily family, MakeText makeText) const;
  std::expected<std::string, CommandFailure> output(const RuleCommand& command,
                                                    std::string input) const;
};

namespace {

/// The first line of what a command complained about.
std::string firstLine(std::string_view text) {
  return std::string(text.substr(0, text.find('\n')));
}

}  // namespace

std::expected<std::string, CommandFailure> NetfilterConfiguration::Steps::output(
    const RuleCommand& command, std::string input) const {
  const auto result = commands->run({.arguments = command, .input = std::move(input)});
  if (!result) return std::unexpected(result.error());
  if (result->exitStatus == 0) return result->output;
  // Its own words are the only hint that there is.
  return std::unexpected(CommandFailure{CommandFailure::Reason::notStarted,
                                        "The command " + command.front() + " failed with status " +
                                            std::to_string(result->exitStatus) + ": " +
                                            firstLine(result->errors)});
}

NetfilterConfiguration::Steps::Outcome<InstalledRules>
NetfilterConfiguration::Steps::installedRules(IPFamily family) const {
  std::string listing;
  for (const auto& command : NetfilterRules::listCommands(family)) {
    const auto part = output(command, {});
    if (!part) return std::unexpected(Error{part.error().description});
    listing += *part;
  }
  return InstalledRules::parse(listing);
}

/// Loads what `makeText` makes of the rules that are there. Should they have changed in between,
/// the load fails as a whole and is tried once more with the rules as they are then; a command that
/// hung is not.
template <class MakeText>
NetfilterConfiguration::Steps::Outcome<void> NetfilterConfiguration::Steps::load(
    IPFamily family, MakeText makeText) const {
  for (int attempt = 1;; ++attempt) {
    const auto installed = installedRules(family);
    if (!installed) return std::unexpected(installed.error());
    const std::string text = makeText(*installed);
    if (text.empty()) return {};
    const auto loaded = output(NetfilterRules::restoreCommand(family), text);
    if (loaded) return {};
    if (attempt == 2 || loaded.error().reason == CommandFailure::Reason::tookTooLong) {
      return std::unexpected(Error{loaded.error().description});
    }
  }
}

/// Notes in `changed` if the rules were not in place before. Those that were are not ours to take
/// back, should the other family fail: they still block, and half of it is more than nothing.
NetfilterConfiguration::Steps::Outcome<void> NetfilterConfiguration::Steps::armFamily(
    IPFamily family, std::vector<IPFamily>& changed) const {
  bool wasInPlace = true;
  const auto armed = load(family, [family, &wasInPlace](const InstalledRules& installed) {
    wasInPlace = wasInPlace && NetfilterRules::areInPlace(family, installed);
    return NetfilterRules::armText(family, installed);
  });
  if (!wasInPlace) changed.push_back(family);
  return armed;
}

NetfilterConfiguration::Steps::Outcome<void> NetfilterConfiguration::Steps::disarmFamily(
    IPFamily family) const {
  return load(family, [family](const InstalledRules& installed) {
    return installed == InstalledRules{} ? std::string()
                                         : NetfilterRules::disarmText(family, installed);
  });
}

NetfilterConfiguration::Steps::Outcome<void> NetfilterConfiguration::Steps::arm() const {
  const auto holder = queue->holder();
  if (!holder) return std::unexpected(Error{holder.error()});
  if (holder->kind == FilterQueueHolder::Kind::stranger) {
    (void)disarm();  // the stranger is the error to report, whatever becomes of this
    return std::unexpected(
        Error{"The filter is not armed: its queue is held by " + holder->description + "."});
  }
  std::vector<IPFamily> changed;
  for (const IPFamily family : families()) {
    const auto armed = armFamily(family, changed);
    if (armed) continue;
    for (const IPFamily undone : changed) (void)disarmFamily(undone);
    return armed;
  }
  return {};
}

NetfilterConfiguration::Steps::Outcome<void> NetfilterConfiguration::Steps::disarm() const {
  Outcome<void> result;
  // One family's failure is no reason to leave the other's rules behind.
  for (const IPFamily family : families()) {
    auto disarmed = disarmFamily(family);
    if (!disarmed && result) result = std::move(disarmed);
  }
  return result;
}

NetfilterConfiguration::Steps::Outcome<FilterPathReadiness>
NetfilterConfiguration::Steps::readBack() const {
  const auto holder = queue->holder();
  if (!holder) return std::unexpected(Error{holder.error()});
  FilterPathReadiness readiness{
      .extensionIsApproved = holder->kind == FilterQueueHolder::Kind::ourFilter,
      .filterConfigurationIsEnabled = holder->kind != FilterQueueHolder::Kind::stranger};
  if (!readiness.filterConfigurationIsEnabled) return readiness;
  for (const IPFamily family : families()) {
    const auto installed = installedRules(family);
    if (!installed) return std::unexpected(installed.error());
    if (!NetfilterRules::areInPlace(family, *installed)) {
      readiness.filterConfigurationIsEnabled = false;
      return readiness;
    }
  }
  return readiness;
}

// ---- operations

NetfilterConfiguration::NetfilterConfiguration(Collaborators collaborators)
    : steps_(std::make_shared<Steps>(Steps{.commands = std::move(collaborators.commands),
                                           .queue = std::move(collaborators.queue),
                                           .families = std::move(collaborators.families)})),
      blocking_(std::move(collaborators.blocking)) {}

Task<NetfilterConfiguration::Result<void>> NetfilterConfiguration::apply(
    FilterArmingState desired) {
  return concurrency::runBlocking(blocking_, [steps = steps_, desired] {
    return desired == FilterArmingState::armed ? steps->arm() : steps->disarm();
  });
}

Task<NetfilterConfiguration::Result<FilterPathReadiness>> NetfilterConfiguration::readiness() {
  return concurrency::runBlocking(blocking_, [steps = steps_] { return steps->readBack(); });
}

NetfilterConfiguration::Result<void> NetfilterConfiguration::remove() { return steps_->disarm(); }

std::vector<IPFamily> NetfilterConfiguration::familiesOfThisMachine() {
  // The file is there as soon as the kernel speaks IPv6, with or without addresses. A kernel that
  // was told not to has no rules for it either.
  if (::access("/proc/net/if_inet6", F_OK) == 0) return {IPFamily::v4, IPFamily::v6};
  return {IPFamily::v4};
}

}  // namespace stillow::platform
