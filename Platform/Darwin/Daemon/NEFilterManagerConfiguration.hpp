#pragma once

#include <chrono>
#include <expected>
#include <memory>
#include <string>

#include "StillowAuthority/ContentFilterRemoving.hpp"
#include "StillowAuthority/FilterConfiguring.hpp"
#include "StillowConcurrency/Sleeper.hpp"

namespace stillow::platform {

/// The content-filter configuration in the system's preferences. Everything is asked of the system,
/// and answered by it, on the process's main queue, so the first thread has to serve that.
class NEFilterManagerConfiguration final : public authority::FilterConfiguring {
 public:
  /// For what one operation asks of the system. Past it the operation has failed, and an answer
  /// that comes later is dropped.
  static constexpr std::chrono::nanoseconds answerMax = std::chrono::seconds(5);

  struct Identity {
    std::string providerBundleIdentifier;
    std::string localizedDescription;  ///< what the system's settings call the filter
  };

  NEFilterManagerConfiguration(Identity identity, std::shared_ptr<concurrency::Sleeper> sleeper);

  [[nodiscard]] concurrency::Task<std::expected<void, authority::FilterConfigurationError>> apply(
      authority::FilterArmingState desired) override;
  [[nodiscard]] concurrency::Task<
      std::expected<authority::FilterPathReadiness, authority::FilterConfigurationError>>
  readiness() override;

 private:
  const std::shared_ptr<const Identity> identity_;
  const std::shared_ptr<concurrency::Sleeper> sleeper_;
};

/// Takes the configuration out of the preferences. Blocks; not on the process's first thread.
class NEFilterManagerRemoval final : public authority::ContentFilterRemoving {
 public:
  [[nodiscard]] std::expected<void, std::string> remove() override;
};

}  // namespace stillow::platform
