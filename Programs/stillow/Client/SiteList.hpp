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
/// validation could ever pass.
[[nodiscard]] std::expected<TypedSite, std::string> understandSite(
    const core::DomainNormalizer& normalizer, std::string_view text);

/// All of `texts`, without repetitions; or one sentence for each that is no site.
[[nodiscard]] std::expected<std::vector<TypedSite>, std::vector<std::string>> understandSites(
    const core::DomainNormalizer& normalizer, std::span<const std::string> texts);

}  // namespace stillow::client
