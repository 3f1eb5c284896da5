#pragma once

#include <expected>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "StillowCore/Domain.hpp"
#include "StillowCore/DomainNormalizer.hpp"

/// Sites as people type them, and what they come down to.
namespace stillow::client {

/// One site to block and how the user will read it.
struct TypedSite {
  core::Domain domain;
  std::string note;  ///< "" or what the user should know, such as "from https://www.example.com/x"

  friend bool operator==(const TypedSite&, const TypedSite&) = default;
};

/// What `text` names. The error is one sentence that names the input and the rule.
///
/// A name that would cover the hosts of the validation is refused: with it in the Scope no later
/// validation could ever pass. So is one with characters that cannot be shown: nobody could see
/// what is being promised.
[[nodiscard]] std::expected<TypedSite, std::string> understandSite(
    const core::DomainNormalizer& normalizer, std::string_view text);

/// The sentence about `text` that `error` calls for.
[[nodiscard]] std::string siteRefusal(std::string_view text,
                                      const core::DomainNormalizationError& error);
/// Whether blocking `domain` would block what Stillow tests its own filter with.
[[nodiscard]] bool coversValidationHosts(const core::Domain& domain);
/// Why `domain`, which came from `text`, is not blocked although it is a site; empty: it may be.
[[nodiscard]] std::string domainRefusal(std::string_view text, const core::Domain& domain);

/// All of `texts`, without repetitions; or one sentence for each that is no site.
[[nodiscard]] std::expected<std::vector<TypedSite>, std::vector<std::string>> understandSites(
    const core::DomainNormalizer& normalizer, std::span<const std::string> texts);

/// The sites of a file with one on each line; blank lines and those that begin with # are passed
/// over. Or one sentence for each line that is no site, with `fileName` and its number in front.
[[nodiscard]] std::expected<std::vector<core::Domain>, std::vector<std::string>> understandFile(
    const core::DomainNormalizer& normalizer, std::string_view content, std::string_view fileName);

}  // namespace stillow::client
