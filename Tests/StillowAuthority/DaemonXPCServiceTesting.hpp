#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "AuthorityTesting.hpp"
#include "StillowAuthority/DaemonXPCService.hpp"
#include "StillowIPC/DaemonWireCoding.hpp"

/// A service over a real authority, and connections whose every message the test sees.
namespace stillow::authority::testing {

/// What left on one connection, in order.
struct Message {
  enum class Kind : std::uint8_t { answer, push };
  Kind kind;
  ipc::DaemonReply content;

  [[nodiscard]] std::optional<ipc::DaemonStatus> status() const {
    if (!content.bytes) return std::nullopt;
    auto decoded = ipc::DaemonWireCoding::decode<ipc::DaemonStatus>(*content.bytes);
    if (!decoded) return std::nullopt;
    return std::move(*decoded);
  }
  [[nodiscard]] std::optional<ipc::DaemonError> error() const {
    if (!content.error) return std::nullopt;
    return ipc::DaemonError::decoded(*content.error);
  }
};

class RecordedConnection final : public ipc::ServedConnection {
 public:
  [[nodiscard]] ipc::ConnectionID identity() const noexcept override { return id_; }
  void push(ipc::SharedBytes status) override {
    messages->push_back({Message::Kind::push, ipc::DaemonReply::of(std::move(status))});
    if (onPush) onPush();
  }

  /// Something of the test's within each push, as where a connection finds its peer gone.
  std::function<void()> onPush;
  std::shared_ptr<std::vector<Message>> messages = std::make_shared<std::vector<Message>>();

 private:
  const ipc::ConnectionID id_ = ipc::ConnectionID::next();
};

class RecordingValidator final : public EnforcementValidating {
 public:
  explicit RecordingValidator(AuthorityWorld& world) : world_(world) {}
  concurrency::Task<core::EnforcementValidation> validate() override {
    ++runs;
    co_await world_.authority->record(result, *world_.now);
    co_return result;
  }
  int runs = 0;
  core::EnforcementValidation result = core::EnforcementValidation::passed{};

 private:
  AuthorityWorld& world_;
};

class RecordingReapplier final : public FilterArmingReapplying {
 public:
  concurrency::Task<void> reapply() override {
    ++runs;
    co_return;
  }
  int runs = 0;
};

class RecordingPresence final : public UserInterfacePresenceReporting {
 public:
  concurrency::Task<void> setUserInterfaceRunning(bool isRunning) override {
    reports.push_back(isRunning);
    co_return;
  }
  std::vector<bool> reports;
};

/// Charges a fixed time, as a clock does after a sleep.
class ChargingClock final : public RunningTimeSampling {
 public:
  explicit ChargingClock(AuthorityWorld& world) : world_(world) {}
  concurrency::Task<void> sampleNow() override {
    ++samples;
    (void)co_await world_.authority->recordRunningTime(uncharged, RunningTimeRecording::durable);
    uncharged = alwaysLate ? unchargedLater : std::exchange(unchargedLater, 0);
  }
  [[nodiscard]] double unchargedSeconds() const override { return uncharged; }
  int samples = 0;
  double uncharged = 0;
  double unchargedLater = 0;  ///< what runs behind the next sample
  bool alwaysLate = false;    ///< and behind every other one

 private:
  AuthorityWorld& world_;
};

struct ServiceWorld : AuthorityWorld {
  explicit ServiceWorld(std::uint64_t seed = 0) : AuthorityWorld(seed) { begin(); }

  /// With every part that a daemon has; `change` takes some away.
  void serve(const std::function<void(DaemonXPCService::Dependencies&)>& change = {}) {
    presence =
        UserInterfacePresence::make(executor.executor(), presenceReports, executor.sleeper());
    DaemonXPCService::Dependencies dependencies{
        .executor = executor.executor(),
        .authority = authority,
        .requirement = ipc::CodeSigningRequirement::trustedPeers(),
        .validator = validator,
        .presence = presence,
        .filterArming = reapplier,
        .runningTime = clock};
    if (change) change(dependencies);
    service = DaemonXPCService::make(std::move(dependencies));
  }

  std::shared_ptr<RecordedConnection> connect() {
    auto connection = std::make_shared<RecordedConnection>();
    core::require(service->shouldAcceptNewConnection(connection).has_value(),
                  "the connection was refused");
    return connection;
  }

  /// Hands the call in; its answer is found among `into` once it is there.
  void send(const std::shared_ptr<ipc::ServedConnection>& connection,
            ipc::DaemonOperation operation, std::optional<std::string> request,
            std::shared_ptr<std::vector<Message>> into) {
    ipc::SharedBytes bytes;
    if (request) bytes = std::make_shared<const std::string>(std::move(*request));
    service->received(connection,
                      {operation, std::move(bytes), ipc::CallAnswer([into](ipc::DaemonReply reply) {
                         into->push_back({Message::Kind::answer, std::move(reply)});
                       })});
  }
  /// Hands the call in, runs until everything rests, and gives the answer.
  Message call(const std::shared_ptr<RecordedConnection>& connection,
               ipc::DaemonOperation operation, std::optional<std::string> request = std::nullopt) {
    const auto into = std::make_shared<std::vector<Message>>();
    send(connection, operation, std::move(request), into);
    executor.runReady();
    core::require(into->size() == 1, "a call is answered once");
    return into->front();
  }
  Message call(ipc::DaemonOperation operation, std::optional<std::string> request = std::nullopt) {
    return call(connect(), operation, std::move(request));
  }

  /// A connection with an answered subscription and no messages yet.
  std::shared_ptr<RecordedConnection> subscriber() {
    auto connection = connect();
    core::require(
        call(connection, ipc::DaemonOperation::subscribeToStatusChanges).status().has_value(),
        "a subscription is answered with the status");
    return connection;
  }
  void publish() {
    (void)run(authority->publishStatus());
    executor.runReady();
  }

  std::shared_ptr<RecordingValidator> validator = std::make_shared<RecordingValidator>(*this);
  std::shared_ptr<RecordingReapplier> reapplier = std::make_shared<RecordingReapplier>();
  std::shared_ptr<RecordingPresence> presenceReports = std::make_shared<RecordingPresence>();
  std::shared_ptr<ChargingClock> clock = std::make_shared<ChargingClock>(*this);
  std::shared_ptr<UserInterfacePresence> presence;
  std::shared_ptr<DaemonXPCService> service;
};

template <class Record>
std::string encoded(const Record& record) {
  return *ipc::DaemonWireCoding::encode(record);
}

}  // namespace stillow::authority::testing
