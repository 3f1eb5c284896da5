#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "StillowCore/Coding.hpp"
#include "StillowCore/DomainCoding.hpp"
#include "StillowCore/DomainNormalizer.hpp"
#include "StillowIPC/DaemonStatus.hpp"

/// How a text is understood as a site.
namespace stillow::client {

/// The site that would be blocked.
[[nodiscard]] const core::Domain& blockedDomain(const core::DomainNormalizationResult& result);

/// The domain of `scope` that blocks `domain`: itself or one above it. None: it is not blocked.
[[nodiscard]] std::optional<core::Domain> blockedBy(const core::DomainSet& scope,
                                                    const core::Domain& domain);

/// Some lines: what `text` is read as, which registrable domain it belongs to, whether it may be
/// blocked. Each ends with a line end.
[[nodiscard]] std::string explanation(std::string_view text,
                                      const core::DomainNormalizationResult& result);
/// One line on whether the running Commitment blocks `domain`.
[[nodiscard]] std::string scopeSentence(const core::Domain& domain,
                                        const ipc::DaemonStatus& status);

}  // namespace stillow::client

template <>
struct stillow::core::Coding<stillow::core::DomainNormalizationResult> {
  using Result = DomainNormalizationResult;
  static constexpr auto cases = coding::casesOf(
      coding::caseOf<Result::alreadyRegistrable>(
          "alreadyRegistrable", coding::field("_0", &Result::alreadyRegistrable::domain)),
      coding::caseOf<Result::normalizedToRegistrable>(
          "normalizedToRegistrable",
          coding::field("registrable", &Result::normalizedToRegistrable::registrable),
          coding::field("original", &Result::normalizedToRegistrable::original)),
      coding::caseOf<Result::narrowerSubdomain>(
          "narrowerSubdomain", coding::field("narrow", &Result::narrowerSubdomain::narrow),
          coding::field("registrable", &Result::narrowerSubdomain::registrable)));
};
