#pragma once

#include <expected>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "StillowCore/Domain.hpp"
#include "StillowCore/PublicSuffixList.hpp"

namespace stillow::core {

/// What a typed host or URL came down to.
struct DomainNormalizationResult {
  /// The input named a registrable domain; at most case and a final dot were different.
  struct alreadyRegistrable {
    Domain domain;
    friend bool operator==(const alreadyRegistrable&, const alreadyRegistrable&) = default;
  };
  /// The input was reduced to a registrable domain. `original` is the input without the white space
  /// around it: show both, so that the user sees what will be blocked.
  struct normalizedToRegistrable {
    Domain registrable;
    std::string original;
    friend bool operator==(const normalizedToRegistrable&,
                           const normalizedToRegistrable&) = default;
  };
  /// The input names a subdomain. Ask whether the registrable domain above it is meant instead.
  struct narrowerSubdomain {
    Domain narrow;
    Domain registrable;
    friend bool operator==(const narrowerSubdomain&, const narrowerSubdomain&) = default;
  };

  using Cases = std::variant<alreadyRegistrable, normalizedToRegistrable, narrowerSubdomain>;

  template <class Case>
    requires std::is_constructible_v<Cases, Case>
  DomainNormalizationResult(Case value) : cases(std::move(value)) {}

  Cases cases;

  friend bool operator==(const DomainNormalizationResult&,
                         const DomainNormalizationResult&) = default;
};

/// Why an input names no website. `host` is what was left of the input when it was refused.
struct DomainNormalizationError {
  struct invalidHostname {
    std::string host;
    friend bool operator==(const invalidHostname&, const invalidHostname&) = default;
  };
  /// Addresses are not blocked by name; the user has to give the site's name.
  struct ipAddressUnsupported {
    std::string host;
    friend bool operator==(const ipAddressUnsupported&, const ipAddressUnsupported&) = default;
  };
  /// "co.uk": everything below it belongs to different owners.
  struct publicSuffixOnly {
    std::string host;
    friend bool operator==(const publicSuffixOnly&, const publicSuffixOnly&) = default;
  };
  struct emptyInput {
    friend bool operator==(const emptyInput&, const emptyInput&) = default;
  };
  struct noHost {
    friend bool operator==(const noHost&, const noHost&) = default;
  };

  using Cases =
      std::variant<invalidHostname, ipAddressUnsupported, publicSuffixOnly, emptyInput, noHost>;

  template <class Case>
    requires std::is_constructible_v<Cases, Case>
  DomainNormalizationError(Case value) : cases(std::move(value)) {}

  Cases cases;

  friend bool operator==(const DomainNormalizationError&,
                         const DomainNormalizationError&) = default;
};

/// Turns what a user typed or copied from a browser into the Domain to block. May be used from any
/// thread.
struct DomainNormalizer {
  PublicSuffixList publicSuffixList;

  /// Strips a URL down to its host, converts it to its xn-- form, refuses addresses and bare public
  /// suffixes, and drops "www." in front of a registrable domain. Normalizing the name that came
  /// out gives the same name again. Input that is no UTF-8 is an invalid host name.
  [[nodiscard]] std::expected<DomainNormalizationResult, DomainNormalizationError> normalize(
      std::string_view input) const;
};

}  // namespace stillow::core
