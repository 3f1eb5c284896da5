#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "StillowCore/Date.hpp"
#include "StillowCore/ProjectedEndTime.hpp"
#include "StillowCore/SumType.hpp"
#include "StillowIPC/DaemonStatus.hpp"

namespace stillow::ipc {

/// Why the product has to stay.
struct UninstallRefusalCause {
  struct commitmentActive {
    core::ProjectedEndTime endsAt;
    friend bool operator==(const commitmentActive&, const commitmentActive&) = default;
  };
  /// Nobody could say whether a Commitment is active.
  struct enforcementStateUnknown {
    friend bool operator==(const enforcementStateUnknown&,
                           const enforcementStateUnknown&) = default;
  };

  using Cases = std::variant<commitmentActive, enforcementStateUnknown>;
  Cases cases;

  template <core::CaseOf<Cases> Case>
  UninstallRefusalCause(Case cause) : cases(std::move(cause)) {}
  friend bool operator==(const UninstallRefusalCause&, const UninstallRefusalCause&) = default;
};

/// Whether the product may be removed.
struct UninstallRuling {
  struct refused {
    UninstallRefusalCause cause;
    friend bool operator==(const refused&, const refused&) = default;
  };
  struct mayUninstall {
    friend bool operator==(const mayUninstall&, const mayUninstall&) = default;
  };

  using Cases = std::variant<refused, mayUninstall>;
  Cases cases;

  template <core::CaseOf<Cases> Case>
  UninstallRuling(Case ruling) : cases(std::move(ruling)) {}
  friend bool operator==(const UninstallRuling&, const UninstallRuling&) = default;
};

/// Nothing is removed while a Commitment is active, nor while nobody knows whether one is.
struct UninstallGate {
  /// `status` is what the daemon answered; none: it could not be reached or did not answer. Only
  /// the Commitment counts: neither degraded enforcement nor an unacknowledged end keeps the
  /// product in place.
  [[nodiscard]] static UninstallRuling ruling(const std::optional<DaemonStatus>& status);
};

/// What somebody without root is told. Its apostrophe is straight, unlike those of the refusals.
inline constexpr std::string_view uninstallNeedsRootText =
    "Stillow's uninstaller needs root — re-run it with sudo.";

/// What a person is told, as one line without its end. `formatted` writes a moment the way the
/// person does.
[[nodiscard]] std::string refusalText(const UninstallRefusalCause& cause,
                                      const std::function<std::string(core::Date)>& formatted);

}  // namespace stillow::ipc

template <>
struct std::hash<stillow::ipc::UninstallRefusalCause> {
  std::size_t operator()(const stillow::ipc::UninstallRefusalCause& cause) const noexcept {
    using Cause = stillow::ipc::UninstallRefusalCause;
    std::size_t seed = cause.cases.index();
    if (const auto* const active = stillow::core::getIf<Cause::commitmentActive>(cause)) {
      stillow::core::hashInto(seed, active->endsAt);
    }
    return seed;
  }
};

template <>
struct std::hash<stillow::ipc::UninstallRuling> {
  std::size_t operator()(const stillow::ipc::UninstallRuling& ruling) const noexcept {
    using Ruling = stillow::ipc::UninstallRuling;
    std::size_t seed = ruling.cases.index();
    if (const auto* const refused = stillow::core::getIf<Ruling::refused>(ruling)) {
      stillow::core::hashInto(seed, refused->cause);
    }
    return seed;
  }
};
