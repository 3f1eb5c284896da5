#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "PlatformLinuxDaemon/CommandRunner.hpp"
#include "PlatformLinuxFilter/NetfilterRules.hpp"
#include "PlatformLinuxPeer/PinnedProcess.hpp"
#include "StillowAuthority/FilterConfiguring.hpp"
#include "StillowConcurrency/BlockingExecutor.hpp"
#include "StillowIPC/CodeIdentity.hpp"

namespace stillow::platform {

class FilterProcessWatch;

/// Who receives the packets that our rules queue.
struct FilterQueueHolder {
  enum class Kind : std::uint8_t { nobody, ourFilter, stranger };
  Kind kind = Kind::nobody;
  std::string description = {};  ///< of a stranger, for an error line
};

/// Looks up who holds the packet queue, from the kernel each time. Blocks. Any thread.
class FilterQueueInspecting {
 public:
  virtual ~FilterQueueInspecting() = default;
  /// The error is one sentence for the log.
  [[nodiscard]] virtual std::expected<FilterQueueHolder, std::string> holder() = 0;

 protected:
  FilterQueueInspecting() = default;
  FilterQueueInspecting(const FilterQueueInspecting&) = default;
  FilterQueueInspecting& operator=(const FilterQueueInspecting&) = default;
};

/// The holder of the filter's queue is the process whose id it bound the queue with; it is our
/// filter if its executable's signature says so. A filter that was found to be ours is handed to
/// the watch, so that its end is noticed.
///
/// A process is judged once. While it runs on with the same executable it stays what it was found
/// to be, so an upgrade, which puts another file and another signature in place before the filter
/// is started again, does not make a stranger of the filter that still runs.
class KernelFilterQueueInspector final : public FilterQueueInspecting {
 public:
  /// Who made the code that a process runs; the error is one sentence.
  using Identify =
      std::function<std::expected<ipc::CodeIdentity, std::string>(const PinnedProcess&)>;

  /// `watch` may be null.
  KernelFilterQueueInspector(Identify identify, std::shared_ptr<FilterProcessWatch> watch);

  [[nodiscard]] std::expected<FilterQueueHolder, std::string> holder() override;

 private:
  /// A process, and the file that it executed when it was looked at.
  struct Judged {
    PinnedProcess process;
    dev_t device;
    ino_t inode;
  };

  /// The error says why it is none of ours.
  [[nodiscard]] std::expected<Judged, std::string> judge(std::uint32_t portID) const;
  [[nodiscard]] bool isTheApprovedFilter(std::uint32_t portID) const;

  const Identify identify_;
  const std::shared_ptr<FilterProcessWatch> watch_;
  std::mutex mutex_;
  std::optional<Judged> approved_;  // guarded by mutex_
};

/// The switch between traffic and filter: the kernel's rules, through the iptables commands.
///
/// The rules of a family come and go with one command; if one family's cannot be put in place, what
/// was put in place for the other is taken back. A machine without IPv6 has one family.
///
/// Rules are never put in place toward a queue that a stranger holds, and those that are there are
/// then taken away: its packets are none of the stranger's business, and it could hold them for
/// ever. Such a system counts as not enabled, with or without rules.
///
/// A hung command ends the step, so every operation is over in 20 s at the latest, and in less than
/// a tenth of a second where nothing hangs. Operations run one at a time.
class NetfilterConfiguration final : public authority::FilterConfiguring {
 public:
  template <class T>
  using Result = std::expected<T, authority::FilterConfigurationError>;

  struct Collaborators {
    /// Of one thread, and for nothing else: a hung command holds it.
    std::shared_ptr<concurrency::BlockingExecutor> blocking;
    std::shared_ptr<CommandRunning> commands;
    std::shared_ptr<FilterQueueInspecting> queue;
    /// The families whose packets have to be seen.
    std::function<std::vector<IPFamily>()> families = familiesOfThisMachine;
  };

  explicit NetfilterConfiguration(Collaborators collaborators);

  [[nodiscard]] concurrency::Task<Result<void>> apply(
      authority::FilterArmingState desired) override;
  [[nodiscard]] concurrency::Task<Result<authority::FilterPathReadiness>> readiness() override;

  /// Takes everything of ours out of the kernel, for when the system is uninstalled. Blocks.
  [[nodiscard]] Result<void> remove();

  /// IPv4, and IPv6 unless the kernel runs without it.
  [[nodiscard]] static std::vector<IPFamily> familiesOfThisMachine();

 private:
  struct Steps;
  const std::shared_ptr<Steps> steps_;
  const std::shared_ptr<concurrency::BlockingExecutor> blocking_;
};

}  // namespace stillow::platform
