#include <chrono>
#include <fstream>
#include <memory>
#include <thread>
#include <utility>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/timex.h>
#include <unistd.h>

#include "PlatformLinuxDaemon/CommandRunner.hpp"
#include "PlatformLinuxDaemon/NetworkPathReading.hpp"
#include "PlatformLinuxFilter/FlowMark.hpp"
#include "PlatformLinuxFilter/QueueStatus.hpp"
#include "PlatformLinuxIPC/DaemonSocket.hpp"
#include "PlatformLinuxPeer/RootDaemon.hpp"
#include "PlatformLinuxPeer/SignedExecutableIdentifier.hpp"
#include "StillowCore/SystemTime.hpp"
#include "StillowCore/Text.hpp"
#include "StillowDoctor/Gathering.hpp"
#include "StillowFiltering/EnforcementDirectiveStore.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "StillowIPC/StillowDaemonService.hpp"
#include "StillowReach/BoundedWork.hpp"

namespace stillow::doctor {

namespace {

using authority::CommitmentStateRecovery;
using core::systemTime;
using filtering::PosixFileSystem;

constexpr const char* stateDirectoryPath = STILLOW_STATE_DIRECTORY;
/// For each look that could hang on a file system or a command.
constexpr std::chrono::seconds lookLimit(5);
/// Four listings of rules, each with a limit of its own.
constexpr std::chrono::seconds rulesLimit(20);
/// As long as the daemon waits for each host.
constexpr std::chrono::seconds exchangeLimit(5);
/// Between two looks at packets that wait. The filter answers within a fraction of it.
constexpr std::chrono::milliseconds queuePause(500);
/// Many times the list of all public authorities.
constexpr std::size_t trustStoreBytesMax = std::size_t{16} << 20;

std::string socketPath() {
  return platform::daemonSocketPath(ipc::StillowDaemonService::machServiceName).string();
}

/// What `look` sees; it runs on a thread of its own and may refer to nothing.
template <class T, class Look>
Observed<T> bounded(Look look, std::chrono::seconds limit = lookLimit) {
  auto seen = client::withinLimit(limit, [look]() -> Observed<T> { return look(); });
  if (!seen) return std::unexpected(NotObserved{.reason = "Looking at it takes too long."});
  return std::move(*seen);
}

/// Likewise, of what only root may look at.
template <class T, class Look>
Observed<T> boundedForRoot(Look look, std::chrono::seconds limit = lookLimit) {
  if (::geteuid() != 0) return std::unexpected(NotObserved{.needsRoot = true});
  return bounded<T>(std::move(look), limit);
}

Observed<UnitObservation> observeUnit(std::string_view label) {
  if (!client::hasServiceManager()) {
    return std::unexpected(NotObserved{.reason = "systemd does not run this system."});
  }
  const auto commands = std::make_shared<platform::CommandRunner>();
  const platform::SystemdUnit unit(commands, label);
  const auto installation = unit.installation();
  if (!installation) return std::unexpected(NotObserved{.reason = installation.error() + "."});
  const auto shown = commands->run(
      {.arguments = {"systemctl", "show", "--property=ActiveState", "--value", unit.name()}});
  if (!shown) return std::unexpected(NotObserved{.reason = shown.error().description});
  return UnitObservation{
      .installation = *installation,
      .activeState = std::string(core::text::trimmingWhitespaceAndNewlines(shown->output))};
}

SocketObservation observeSocket() {
  SocketObservation seen{.path = socketPath()};
  struct stat status{};
  if (::lstat(seen.path.c_str(), &status) != 0) return seen;
  seen.kind = S_ISSOCK(status.st_mode) ? SocketObservation::Kind::present
                                       : SocketObservation::Kind::notASocket;
  if (const auto safe = platform::requireRootOnlyDirectory(seen.path); !safe) {
    seen.unsafeDirectory = safe.error();
  }
  return seen;
}

Observed<StateDirectoryObservation> observeStateDirectory() {
  StateDirectoryObservation seen{.path = stateDirectoryPath};
  struct stat status{};
  if (::lstat(stateDirectoryPath, &status) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return seen;
    return std::unexpected(NotObserved{.needsRoot = true});
  }
  seen.exists = S_ISDIR(status.st_mode);
  seen.belongsToRoot = status.st_uid == 0;
  seen.permissions = status.st_mode & 0777U;
  if (const auto safe = platform::requireRootOnlyDirectory(stateDirectoryPath); !safe) {
    seen.unsafeDirectory = safe.error();
  }
  struct statvfs volume{};
  if (::statvfs(stateDirectoryPath, &volume) != 0) {
    return std::unexpected(NotObserved{.reason = "Its file system does not answer."});
  }
  // What is free for root, as whom the daemon writes.
  seen.freeBytes = static_cast<std::uint64_t>(volume.f_bfree) * volume.f_frsize;
  return seen;
}

Observed<CommitmentStateRecovery::Source> observeCheckpoints() {
  PosixFileSystem fileSystem;
  return authority::DurableCommitmentStore(fileSystem, stateDirectoryPath).recover().source;
}

Observed<DirectiveObservation> observeDirective() {
  const std::string path = std::string(stateDirectoryPath) + "/" +
                           std::string(filtering::FileEnforcementDirectiveStore::fileName);
  PosixFileSystem fileSystem;
  filtering::FileEnforcementDirectiveStore store(fileSystem, path);
  DirectiveObservation seen;
  auto read = store.read();
  if (read) {
    seen.read = std::move(*read);
  } else {
    seen.read = std::unexpected(std::move(read.error().description));
  }
  struct stat status{};
  if (::lstat(path.c_str(), &status) == 0) {
    seen.belongsToRoot = status.st_uid == 0;
    seen.permissions = status.st_mode & 0777U;
  }
  return seen;
}

/// Packets wait, and between two looks none was answered.
bool isStuck(const platform::QueueStatus& before) {
  if (before.waiting == 0) return false;
  std::this_thread::sleep_for(queuePause);
  const auto after = platform::QueueStatus::read(platform::filterQueueNumber);
  return after && *after && (*after)->portID == before.portID &&
         (*after)->waiting - before.waiting == (*after)->lastPacketID - before.lastPacketID;
}

Observed<QueueObservation> observeQueue() {
  auto anchor = platform::CodeSigningAnchor::installed();
  const auto bound = platform::QueueStatus::read(platform::filterQueueNumber);
  // A copy of this program that lies elsewhere cannot tell our filter from a stranger.
  if (!anchor && bound && *bound) return std::unexpected(NotObserved{.reason = anchor.error()});
  const auto identifier =
      std::make_shared<platform::SignedExecutableIdentifier>(std::move(anchor), systemTime);
  platform::KernelFilterQueueInspector inspector(
      [identifier](const platform::PinnedProcess& process) {
        return identifier->identify(process);
      },
      nullptr);
  auto holder = inspector.holder();
  if (!holder) return std::unexpected(NotObserved{.reason = std::move(holder.error())});
  QueueObservation seen{.holder = std::move(*holder)};
  if (bound && *bound) {
    seen.waiting = (*bound)->waiting;
    seen.isStuck = isStuck(**bound);
  }
  return seen;
}

Observed<std::vector<FamilyRulesObservation>> observeRules() {
  platform::CommandRunner commands;
  std::vector<FamilyRulesObservation> seen;
  for (const auto family : platform::NetfilterConfiguration::familiesOfThisMachine()) {
    std::string listing;
    for (const auto& command : platform::NetfilterRules::listCommands(family)) {
      const auto result = commands.run({.arguments = command});
      if (!result) return std::unexpected(NotObserved{.reason = result.error().description});
      if (result->exitStatus != 0) {
        return std::unexpected(NotObserved{.reason = "The command " + command.front() +
                                                     " failed with status " +
                                                     std::to_string(result->exitStatus) + "."});
      }
      listing += result->output;
    }
    seen.push_back({family, platform::InstalledRules::parse(listing)});
  }
  return seen;
}

Observed<authority::NetworkPathSnapshot> observeNetwork() {
  auto read = platform::NetworkPathReading::read();
  if (read) return std::move(*read);
  return std::unexpected(
      NotObserved{.reason = "The kernel does not tell: " + read.error().message() + "."});
}

Observed<TrustStoreObservation> observeTrustStore() {
  TrustStoreObservation seen{.path = platform::trustStorePath()};
  if (seen.path.empty()) {
    return std::unexpected(NotObserved{.reason = "It is not kept in one file on this system."});
  }
  std::ifstream file(seen.path);
  seen.isReadable = file.is_open();
  std::size_t bytes = 0;
  for (std::string line; bytes < trustStoreBytesMax && std::getline(file, line);) {
    bytes += line.size() + 1;
    if (line.starts_with("-----BEGIN ") && line.ends_with("CERTIFICATE-----")) ++seen.certificates;
  }
  return seen;
}

bool clockIsSynchronized() {
  ::timex state{};  // asks, and sets nothing
  return ::adjtimex(&state) != TIME_ERROR && (state.status & STA_UNSYNC) == 0;
}

}  // namespace

Instruments systemInstruments(DaemonCalls daemon, std::function<void(std::string_view)> progress) {
  return {
      .now = systemTime,
      .hasServiceManager = client::hasServiceManager,
      .unit = observeUnit,
      .signature = [] { return client::checkOwnSignature(); },
      .socket = observeSocket,
      .status = std::move(daemon.status),
      .reach =
          [](const ipc::DaemonError& error) {
            return client::diagnoseReach({.error = error, .socketPath = socketPath()});
          },
      .stateDirectory = [] { return bounded<StateDirectoryObservation>(observeStateDirectory); },
      .checkpoints =
          [] { return boundedForRoot<CommitmentStateRecovery::Source>(observeCheckpoints); },
      .directive = [] { return boundedForRoot<DirectiveObservation>(observeDirective); },
      .queue = [] { return boundedForRoot<QueueObservation>(observeQueue); },
      .rules =
          [] {
            return boundedForRoot<std::vector<FamilyRulesObservation>>(observeRules, rulesLimit);
          },
      .network = [] { return bounded<authority::NetworkPathSnapshot>(observeNetwork); },
      .trustStore = [] { return bounded<TrustStoreObservation>(observeTrustStore); },
      .clockIsSynchronized = clockIsSynchronized,
      .exchange =
          [](const std::string& host, platform::CertificateTimes times) {
            return platform::exchangeDiagnostic(host, exchangeLimit, times);
          },
      .validate = std::move(daemon.validate),
      .progress = std::move(progress)};
}

}  // namespace stillow::doctor
