#pragma once

#include <cstddef>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "StillowCore/SumType.hpp"
#include "StillowIPC/StillowDaemonService.hpp"
#include "StillowIPC/UninstallGate.hpp"

namespace stillow::authority {

/// What became of one piece of the product.
struct UninstallStepResult {
  struct Outcome {
    struct failed {
      std::string reason;
      friend bool operator==(const failed&, const failed&) = default;
    };
    struct removed {
      friend bool operator==(const removed&, const removed&) = default;
    };
    struct notPresent {
      friend bool operator==(const notPresent&, const notPresent&) = default;
    };

    using Cases = std::variant<failed, removed, notPresent>;
    Cases cases;

    template <core::CaseOf<Cases> Case>
    Outcome(Case outcome) : cases(std::move(outcome)) {}
    friend bool operator==(const Outcome&, const Outcome&) = default;
  };

  std::string item;  ///< the job's label or the path
  Outcome outcome;

  friend bool operator==(const UninstallStepResult&, const UninstallStepResult&) = default;
};

struct UninstallReport {
  /// Present: nothing was touched, and there are no steps.
  std::optional<ipc::UninstallRefusalCause> refusal = std::nullopt;
  std::vector<UninstallStepResult> steps = {};  ///< in the order in which they were taken

  /// Nothing that a step was to remove is there any more. False for a refusal.
  [[nodiscard]] bool isEverythingGone() const noexcept;

  friend bool operator==(const UninstallReport&, const UninstallReport&) = default;
};

/// Ends a job of the system's service manager and keeps it from being started again.
class PrivilegedJobUnloading {
 public:
  virtual ~PrivilegedJobUnloading() = default;
  /// Success too if the manager knows no such job. The error is the reason, for a person. Blocks.
  [[nodiscard]] virtual std::expected<void, std::string> unload(std::string_view label) = 0;

 protected:
  PrivilegedJobUnloading() = default;
  PrivilegedJobUnloading(const PrivilegedJobUnloading&) = default;
  PrivilegedJobUnloading& operator=(const PrivilegedJobUnloading&) = default;
};

/// Removes the daemon's job, its state and what a development install left.
class PrivilegedUninstall {
 public:
  static constexpr std::string_view jobLabel = ipc::StillowDaemonService::machServiceName;

  /// Absolute paths. The defaults are those of macOS, where everything else lies in the
  /// application; another system names its own.
  struct Locations {
    std::filesystem::path stateDirectory = "/Library/Application Support/Stillow";
    std::filesystem::path developmentLaunchDaemonPlist =
        "/Library/LaunchDaemons/com.larchmoor.Stillow.daemon.plist";
    std::filesystem::path developmentHelperBundle =
        "/Library/PrivilegedHelperTools/com.larchmoor.Stillow.daemon.app";
    std::filesystem::path legacyDevelopmentHelperBinary =
        "/Library/PrivilegedHelperTools/com.larchmoor.Stillow.daemon";

    friend bool operator==(const Locations&, const Locations&) = default;
  };

  PrivilegedUninstall(Locations locations, std::shared_ptr<PrivilegedJobUnloading> jobs)
      : locations_(std::move(locations)), jobs_(std::move(jobs)) {}

  /// The job first, so that nothing writes state any more, then the locations in the order of their
  /// fields. A step that fails does not keep the later ones from being taken. A refused ruling
  /// touches nothing. Blocks; needs root.
  [[nodiscard]] UninstallReport run(const ipc::UninstallRuling& ruling) const;

 private:
  Locations locations_;
  std::shared_ptr<PrivilegedJobUnloading> jobs_;
};

}  // namespace stillow::authority

template <>
struct std::hash<stillow::authority::PrivilegedUninstall::Locations> {
  std::size_t operator()(
      const stillow::authority::PrivilegedUninstall::Locations& locations) const noexcept {
    std::size_t seed = 0;
    for (const auto* const path :
         {&locations.stateDirectory, &locations.developmentLaunchDaemonPlist,
          &locations.developmentHelperBundle, &locations.legacyDevelopmentHelperBinary}) {
      stillow::core::hashInto(seed, path->native());
    }
    return seed;
  }
};
