#pragma once

#include <optional>

#include "StillowCore/Coding.hpp"
#include "StillowCore/Date.hpp"
#include "StillowCore/DomainCoding.hpp"
#include "StillowCore/Scope.hpp"

namespace stillow::filtering {

/// A domain that the filter drops for a few seconds so that the daemon can see that it does.
struct ValidationProbe {
  /// A probe can never keep a domain blocked for longer, whatever its issuer asks for.
  static constexpr double lifetimeMaxSeconds = 20;

  core::Domain domain;
  core::Date expiresAt;  ///< from this moment on it no longer counts

  /// `lifetimeSeconds` is clamped to 0 ... lifetimeMaxSeconds.
  [[nodiscard]] static ValidationProbe issued(core::Domain domain, core::Date issuedAt,
                                              double lifetimeSeconds);

  friend bool operator==(const ValidationProbe&, const ValidationProbe&) = default;
};

/// What the daemon tells the filter to block: the only thing that passes between the two.
struct EnforcementDirective {
  std::optional<core::Scope> scope;           ///< absent: nothing is blocked
  std::optional<ValidationProbe> validation;  ///< absent: no probe is under way
  core::Date publishedAt;

  /// The Scope's domains, and the probe's while it lives.
  [[nodiscard]] core::DomainSet effectiveDomains(core::Date now) const;

  friend bool operator==(const EnforcementDirective&, const EnforcementDirective&) = default;
};

}  // namespace stillow::filtering

template <>
struct stillow::core::Coding<stillow::filtering::ValidationProbe> {
  using Probe = filtering::ValidationProbe;
  static constexpr auto fields = coding::fieldsOf(coding::field("domain", &Probe::domain),
                                                  coding::field("expiresAt", &Probe::expiresAt));
};

template <>
struct stillow::core::Coding<stillow::filtering::EnforcementDirective> {
  using Directive = filtering::EnforcementDirective;
  static constexpr auto fields =
      coding::fieldsOf(coding::field("scope", &Directive::scope),
                       coding::field("validation", &Directive::validation),
                       coding::field("publishedAt", &Directive::publishedAt));
};
