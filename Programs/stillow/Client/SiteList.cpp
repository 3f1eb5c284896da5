#include "StillowClient/SiteList.hpp"

#include <unordered_set>
#include <utility>

#include "StillowClient/TextLayout.hpp"
#include "StillowCore/Scope.hpp"
#include "StillowCore/SumType.hpp"
#include "StillowCore/Text.hpp"
#include "StillowCore/ValidationHosts.hpp"

namespace stillow::client {

using core::DomainNormalizationError;
using core::DomainNormalizationResult;

std::string siteRefusal(std::string_view text, const DomainNormalizationError& error) {
  const std::string input = client::quoted(text) + " ";
  return core::match(
      error,
      [&](const DomainNormalizationError::invalidHostname&) {
        return input + "is not a host name: letters, digits, hyphens and dots, like example.com.";
      },
      [&](const DomainNormalizationError::ipAddressUnsupported&) {
        return input + "is an address; Stillow blocks sites by name, so give the site’s name.";
      },
      [&](const DomainNormalizationError::publicSuffixOnly&) {
        return input + "is shared by many owners (a public suffix); name a site below it.";
      },
      [&](const DomainNormalizationError::emptyInput&) {
        return std::string("An empty text names no site; write something like example.com.");
      },
      [&](const DomainNormalizationError::noHost&) {
        return input + "names no host; write something like example.com.";
      });
}

bool coversValidationHosts(const core::Domain& domain) {
  const core::Scope scope{.generation = 1, .domains = core::DomainSet::of({domain})};
  return scope.contains(core::ValidationHosts::probed) ||
         scope.contains(core::ValidationHosts::control);
}

std::string domainRefusal(std::string_view text, const core::Domain& domain) {
  if (coversValidationHosts(domain)) {
    return client::quoted(text) + " would cover the hosts that Stillow tests its own filter with.";
  }
  if (!isPrintable(domain.name())) {
    return client::quoted(text) + " is not a host name: it has characters that cannot be shown.";
  }
  return "";
}

std::expected<TypedSite, std::string> understandSite(const core::DomainNormalizer& normalizer,
                                                     std::string_view text) {
  const auto normalized = normalizer.normalize(text);
  if (!normalized) return std::unexpected(siteRefusal(text, normalized.error()));
  using Result = DomainNormalizationResult;
  TypedSite site = core::match(
      *normalized,
      [](const Result::alreadyRegistrable& result) { return TypedSite{result.domain, ""}; },
      [](const Result::normalizedToRegistrable& result) {
        return TypedSite{result.registrable, "from " + printable(result.original)};
      },
      [](const Result::narrowerSubdomain& result) {
        return TypedSite{result.narrow, "only this part of " +
                                            std::string(result.registrable.name()) +
                                            ", and what is below it"};
      });
  if (std::string refusal = domainRefusal(text, site.domain); !refusal.empty()) {
    return std::unexpected(std::move(refusal));
  }
  return site;
}

std::expected<std::vector<TypedSite>, std::vector<std::string>> understandSites(
    const core::DomainNormalizer& normalizer, std::span<const std::string> texts) {
  std::vector<TypedSite> sites;
  std::unordered_set<core::Domain> seen;
  std::vector<std::string> refusals;
  for (const std::string& text : texts) {
    auto site = understandSite(normalizer, text);
    if (!site) {
      refusals.push_back(std::move(site.error()));
    } else if (seen.insert(site->domain).second) {
      sites.push_back(std::move(*site));
    }
  }
  if (!refusals.empty()) return std::unexpected(std::move(refusals));
  return sites;
}

std::expected<std::vector<core::Domain>, std::vector<std::string>> understandFile(
    const core::DomainNormalizer& normalizer, std::string_view content, std::string_view fileName) {
  std::vector<core::Domain> domains;
  std::vector<std::string> refusals;
  std::size_t number = 0;
  // Editors of some systems put it in front of every text.
  constexpr std::string_view byteOrderMark = "\uFEFF";
  if (content.starts_with(byteOrderMark)) content.remove_prefix(byteOrderMark.size());
  for (const std::string_view whole : core::text::lines(content)) {
    ++number;
    const std::string_view line = core::text::trimmingWhitespaceAndNewlines(whole);
    if (line.empty() || line.starts_with('#')) continue;
    auto site = understandSite(normalizer, line);
    if (site) {
      domains.push_back(std::move(site->domain));
    } else {
      refusals.push_back(printable(fileName) + ":" + std::to_string(number) + ": " + site.error());
    }
  }
  if (!refusals.empty()) return std::unexpected(std::move(refusals));
  return domains;
}

}  // namespace stillow::client
