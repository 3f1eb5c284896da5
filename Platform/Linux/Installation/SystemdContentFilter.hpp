#pragma once

#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "StillowAuthority/ContentFilterRemoving.hpp"
#include "StillowAuthority/PrivilegedUninstall.hpp"

namespace stillow::platform {

/// The filter as installed: rules that bring traffic to it, a unit that runs it, and the file of
/// that unit where a development install put it there.
class SystemdContentFilter final : public authority::ContentFilterRemoving {
 public:
  struct Parts {
    /// Takes the rules out of the kernel; the error is one sentence.
    std::function<std::expected<void, std::string>()> removeRules;
    std::shared_ptr<authority::PrivilegedJobUnloading> jobs;
    std::filesystem::path developmentUnitPath;
  };

  explicit SystemdContentFilter(Parts parts) : parts_(std::move(parts)) {}

  /// The rules go first, so that no packet waits for a filter that is gone. What fails does not
  /// keep the rest in place.
  [[nodiscard]] std::expected<void, std::string> remove() override;

 private:
  Parts parts_;
};

}  // namespace stillow::platform
