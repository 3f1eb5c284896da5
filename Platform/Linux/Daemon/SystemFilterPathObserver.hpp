#pragma once

#include <memory>
#include <string>

#include "PlatformLinuxDaemon/FilterProcessWatch.hpp"
#include "StillowAuthority/FilterPathObserving.hpp"
#include "StillowConcurrency/Task.hpp"

namespace stillow::platform {

/// What the kernel tells of the filter and its rules, without anybody asking:
///
/// - the end of the filter's process, by its pidfd;
/// - rules that were deleted, by the kernel's own notifications (the group of nf_tables). Rules
/// that
///   were made with the older implementation of iptables are not notified: their loss is found by
///   the next validation;
/// - while no filter is known to run, that somebody opened the directive, which is the first thing
///   that a filter does. A sign, no more: whoever looks then has to see for himself.
///
/// What cannot be watched is not told; `problems` says what that is.
class SystemFilterPathObserver final : public authority::FilterPathObserving {
 public:
  /// `executor` belongs to an execution context that can wait for descriptors. `directivePath` is
  /// absolute, and its directory exists.
  SystemFilterPathObserver(const concurrency::Executor& executor, const std::string& directivePath);
  ~SystemFilterPathObserver() override;
  SystemFilterPathObserver(const SystemFilterPathObserver&) = delete;
  SystemFilterPathObserver& operator=(const SystemFilterPathObserver&) = delete;

  [[nodiscard]] concurrency::Channel<authority::FilterPathObservation> observations() override;

  /// To be given each filter that was found to be ours.
  [[nodiscard]] std::shared_ptr<FilterProcessWatch> processWatch() const { return processWatch_; }

  /// One sentence for the log about what is not watched; empty if everything is.
  [[nodiscard]] const std::string& problems() const { return problems_; }

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::shared_ptr<FilterProcessWatch> processWatch_;
  std::string problems_;
};

}  // namespace stillow::platform
