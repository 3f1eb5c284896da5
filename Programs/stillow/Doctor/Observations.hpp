#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <vector>

#include "PlatformLinuxDaemon/NetfilterConfiguration.hpp"
#include "PlatformLinuxDiagnostic/DiagnosticExchange.hpp"
#include "PlatformLinuxFilter/NetfilterRules.hpp"
#include "PlatformLinuxInstallation/SystemdUnit.hpp"
#include "StillowAuthority/DurableCommitmentStore.hpp"
#include "StillowAuthority/NetworkPathObserving.hpp"
#include "StillowFiltering/EnforcementDirective.hpp"
#include "StillowIPC/DaemonStatus.hpp"
#include "StillowReach/OwnSignature.hpp"
#include "StillowReach/ReachDiagnosis.hpp"

/// What the doctor has seen, without a judgement.
namespace stillow::doctor {

/// Why something was not looked at.
struct NotObserved {
  std::string reason;  ///< one sentence
  bool needsRoot = false;
  friend bool operator==(const NotObserved&, const NotObserved&) = default;
};

template <class T>
using Observed = std::expected<T, NotObserved>;

struct UnitObservation {
  platform::SystemdUnit::Installation installation = platform::SystemdUnit::Installation::absent;
  std::string activeState = {};  ///< systemd's word, such as "active" or "failed"
};

struct SocketObservation {
  enum class Kind : std::uint8_t { missing, notASocket, present };
  Kind kind = Kind::missing;
  std::string path = {};
  std::string unsafeDirectory = {};  ///< one sentence; empty if only root can write to it
};

struct StateDirectoryObservation {
  bool exists = false;
  std::string path = {};
  bool belongsToRoot = false;
  std::uint32_t permissions = 0;     ///< the nine bits
  std::string unsafeDirectory = {};  ///< one sentence about those above it; empty if there is none
  std::uint64_t freeBytes = 0;       ///< on its file system
};

struct DirectiveObservation {
  /// None: nothing was ever published. The error is one sentence.
  std::expected<std::optional<filtering::EnforcementDirective>, std::string> read;
  bool belongsToRoot = true;
  std::uint32_t permissions = 0600;
};

struct QueueObservation {
  platform::FilterQueueHolder holder;
  std::uint32_t waiting = 0;  ///< packets
  bool isStuck = false;       ///< packets wait, and none was answered between two looks
};

struct FamilyRulesObservation {
  platform::IPFamily family;
  platform::InstalledRules installed;
};

struct TrustStoreObservation {
  std::string path;
  bool isReadable = false;
  std::size_t certificates = 0;
};

struct Observations {
  core::Date now;
  bool hasServiceManager = false;
  Observed<UnitObservation> daemonUnit = std::unexpected(NotObserved{});
  Observed<UnitObservation> filterUnit = std::unexpected(NotObserved{});
  client::OwnSignature signature;
  SocketObservation socket;
  /// The daemon's answer to a status call.
  std::expected<ipc::DaemonStatus, ipc::DaemonError> status =
      std::unexpected(ipc::DaemonError::internalFailure{});
  std::optional<client::ReachFinding> reach;  ///< why there was no answer
  Observed<StateDirectoryObservation> stateDirectory = std::unexpected(NotObserved{});
  Observed<authority::CommitmentStateRecovery::Source> checkpoints = std::unexpected(NotObserved{});
  Observed<DirectiveObservation> directive = std::unexpected(NotObserved{});
  Observed<QueueObservation> queue = std::unexpected(NotObserved{});
  Observed<std::vector<FamilyRulesObservation>> rules = std::unexpected(NotObserved{});
  Observed<authority::NetworkPathSnapshot> network = std::unexpected(NotObserved{});
  Observed<TrustStoreObservation> trustStore = std::unexpected(NotObserved{});
  bool clockIsSynchronized = false;  ///< the kernel says that something keeps it right
  platform::DiagnosticExchange control;
  /// Of the control host once more, times of certificates ignored: only if they were the trouble.
  std::optional<platform::DiagnosticExchange> controlWhateverTheTime;
  core::Date controlAnsweredAt;  ///< by this machine's clock
  platform::DiagnosticExchange probed;
  /// The daemon's answer to a validation; absent if it was not asked for one.
  std::optional<std::expected<ipc::DaemonStatus, ipc::DaemonError>> validation;
};

}  // namespace stillow::doctor
