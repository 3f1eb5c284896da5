#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>

#include "PlatformDarwinFilter/DispatchDirectoryEvents.hpp"
#include "StillowCore/EnforcementHealth.hpp"
#include "StillowFiltering/EnforcementDirectiveStore.hpp"
#include "StillowFiltering/EnforcementDirectiveWatcher.hpp"
#include "StillowFiltering/FlowClassifier.hpp"
#include "StillowFiltering/FlowInspector.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"

namespace stillow::platform {

/// The filter behind the extension's provider: follows the published directive and judges flows by
/// it. A directive that was renamed into place before a flow began is in force when that flow is
/// judged.
///
/// Any thread may show flows.
class DirectiveFilter {
 public:
  explicit DirectiveFilter(const std::string& stateDirectory);
  DirectiveFilter(const DirectiveFilter&) = delete;
  DirectiveFilter& operator=(const DirectiveFilter&) = delete;

  /// Reads what is published and follows it from now on. Once.
  void start();
  /// Follows the directive no longer and logs the counters.
  void stop();

  [[nodiscard]] filtering::FlowDisposition beginFlow(const core::UUID& flow,
                                                     filtering::FlowInspector::Transport transport,
                                                     const filtering::FlowDescription& description);
  [[nodiscard]] filtering::FlowDisposition showOutbound(const core::UUID& flow,
                                                        std::uint64_t offset,
                                                        filtering::WireBytes bytes);
  [[nodiscard]] filtering::FlowDisposition endOutbound(const core::UUID& flow);

 private:
  using Store = filtering::FileEnforcementDirectiveStore;

  void reportHealth(const core::EnforcementHealthStatus& health);

  DispatchDirectoryEvents events_;
  filtering::PosixFileSystem fileSystem_;
  Store store_;
  filtering::FlowClassifier classifier_;
  filtering::FlowInspector inspector_;
  std::mutex healthLock_;
  std::optional<core::EnforcementHealthStatus> health_;
  filtering::EnforcementDirectiveWatcher watcher_;  // last: its handlers use the others
};

}  // namespace stillow::platform
