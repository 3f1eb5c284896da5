#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "StillowConcurrency/Channel.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowIPC/DaemonError.hpp"
#include "StillowIPC/DaemonStatus.hpp"
#include "StillowIPC/Requests.hpp"

namespace stillow::ipc {

/// Statuses as the daemon pushes them, for one reader. Letting go of the stream ends it.
class DaemonStatusStream {
 public:
  /// Undelivered statuses that are kept for a slow reader. Each is a full snapshot, so losing older
  /// ones loses no truth; a few are kept so that a reader that is merely late sees each change.
  static constexpr std::size_t undeliveredMax = 8;

  /// `onTermination` runs when the reader lets go.
  DaemonStatusStream(concurrency::Channel<DaemonStatus> statuses,
                     std::function<void()> onTermination)
      : statuses_(std::move(statuses)), termination_(std::move(onTermination)) {}

  /// The next status; none once the connection was lost or could not be opened. One reader at a
  /// time.
  [[nodiscard]] concurrency::Task<std::optional<DaemonStatus>> next() const {
    return statuses_.next();
  }

 private:
  struct Termination {
    explicit Termination(std::function<void()> run) : run_(std::move(run)) {}
    Termination(Termination&& other) noexcept : run_(std::exchange(other.run_, nullptr)) {}
    Termination& operator=(Termination&& other) noexcept {
      std::swap(run_, other.run_);
      return *this;
    }
    Termination(const Termination&) = delete;
    Termination& operator=(const Termination&) = delete;
    ~Termination() {
      if (run_) run_();
    }
    std::function<void()> run_;
  };

  concurrency::Channel<DaemonStatus> statuses_;
  Termination termination_;
};

/// The daemon, as everything but the daemon sees it. Any thread may call any operation. Operations
/// are bounded in time; a caller that wants to try again does so itself.
class CommitmentAuthorityClient {
 public:
  using Result = std::expected<DaemonStatus, DaemonError>;

  virtual ~CommitmentAuthorityClient() = default;

  [[nodiscard]] virtual concurrency::Task<Result> status() = 0;
  [[nodiscard]] virtual concurrency::Task<Result> activate(ActivationRequest request) = 0;
  [[nodiscard]] virtual concurrency::Task<Result> strengthen(ScopeAddition addition) = 0;
  [[nodiscard]] virtual concurrency::Task<Result> extend(ExtensionRequest request) = 0;
  /// Runs an end-to-end validation: takes as long as the network does.
  [[nodiscard]] virtual concurrency::Task<Result> validateEnforcement() = 0;
  [[nodiscard]] virtual concurrency::Task<Result> acknowledgeExpiry() = 0;
  [[nodiscard]] virtual concurrency::Task<Result> armFilterConfiguration() = 0;
  /// Says that this process is a user interface; holds for as long as its connection does.
  [[nodiscard]] virtual concurrency::Task<Result> announceUserInterface() = 0;

  /// The present status, then each change, until the connection is lost; it is not taken up again
  /// on another connection: ask for a new stream then.
  [[nodiscard]] virtual DaemonStatusStream statusChanges() = 0;

  /// Closes the connection and ends every stream. The next operation opens a new one.
  virtual void invalidate() = 0;

 protected:
  CommitmentAuthorityClient() = default;
  CommitmentAuthorityClient(const CommitmentAuthorityClient&) = default;
  CommitmentAuthorityClient& operator=(const CommitmentAuthorityClient&) = default;
};

}  // namespace stillow::ipc
