#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "StillowDoctor/Observations.hpp"

namespace stillow::doctor {

/// A way to see each thing. Every one blocks, for a few seconds at the most; that of `validate`,
/// for half a minute.
struct Instruments {
  using DaemonAnswer = std::expected<ipc::DaemonStatus, ipc::DaemonError>;

  std::function<core::Date()> now;
  std::function<bool()> hasServiceManager;
  std::function<Observed<UnitObservation>(std::string_view label)> unit;
  std::function<client::OwnSignature()> signature;
  std::function<SocketObservation()> socket;
  std::function<DaemonAnswer()> status;
  std::function<std::optional<client::ReachFinding>(const ipc::DaemonError&)> reach;
  std::function<Observed<StateDirectoryObservation>()> stateDirectory;
  std::function<Observed<authority::CommitmentStateRecovery::Source>()> checkpoints;
  std::function<Observed<DirectiveObservation>()> directive;
  std::function<Observed<QueueObservation>()> queue;
  std::function<Observed<std::vector<FamilyRulesObservation>>()> rules;
  std::function<Observed<authority::NetworkPathSnapshot>()> network;
  std::function<Observed<TrustStoreObservation>()> trustStore;
  std::function<bool()> clockIsSynchronized;
  std::function<platform::DiagnosticExchange(const std::string& host, platform::CertificateTimes)>
      exchange;
  std::function<DaemonAnswer()> validate;
  /// Told what comes next, in a few words.
  std::function<void(std::string_view)> progress;
};

/// Looks at everything once, the daemon's own test of the block last: while it runs, what else is
/// looked at would be as that test needs it. A daemon that does not answer is not asked for it.
[[nodiscard]] Observations gather(const Instruments& with);

/// How to ask the daemon.
struct DaemonCalls {
  std::function<Instruments::DaemonAnswer()> status;
  std::function<Instruments::DaemonAnswer()> validate;
};

/// This machine, as far as the caller may look at it. Connects to the two validation hosts and to
/// nobody else, and changes nothing.
[[nodiscard]] Instruments systemInstruments(DaemonCalls daemon,
                                            std::function<void(std::string_view)> progress);

}  // namespace stillow::doctor
