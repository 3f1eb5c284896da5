#include "StillowClient/SiteList.hpp"

#include <algorithm>

#include "StillowCore/Scope.hpp"
#include "StillowCore/SumType.hpp"
#include "StillowCore/ValidationHosts.hpp"

namespace stillow::client {

namespace {

using core::DomainNormalizationError;
using core::DomainNormalizationResult;

std::string sentence(std::string_view text, const DomainNormalizationError& error) {
  const std::string quoted = "“" + std::string(text) + "” ";
  return core::match(
      error,
      [&](const DomainNormalizationError::invalidHostname&) {
        return quoted + "is not a host name: letters, digits, hyphens and dots, like example.com.";
      },
      [&](const DomainNormalizationError::ipAddressUnsupported&) {
        return quoted + "is an address; Stillow blocks sites by name, so give the site’s name.";
      },
      [&](const DomainNormalizationError::publicSuffixOnly&) {
        return quoted + "is shared by many owners (a public suffix); name a site below it.";
      },
      [&](const DomainNormalizationError::emptyInput&) {
        return std::string("An empty text names no site; write something like example.com.");
      },
      [&](const DomainNormalizationError::noHost&) {
        return quoted + "names no host; write something like example.com.";
      });
}

bool coversValidationHosts(const core::Domain& domain) {
  const core::Scope scope{.generation = 1, .domains = core::DomainSet::of({domain})};
  return scope.contains(core::ValidationHosts::probed) ||
         scope.contains(core::ValidationHosts::control);
}

}  // namespace

std::expected<TypedSite, std::string> understandSite(const core::DomainNormalizer& normalizer,
                                                     std::string_view text) {
  const auto normalized = normalizer.normalize(text);
  if (!normalized) return std::unexpected(sentence(text, normalized.error()));
  using Result = DomainNormalizationResult;
  TypedSite site = core::match(
      *normalized,
      [](const Result::alreadyRegistrable& result) { return TypedSite{result.domain, ""}; },
      [](const Result::normalizedToRegistrable& result) {
        return TypedSite{result.registrable, "from " + result.original};
      },
      [](const Result::narrowerSubdomain& result) {
        return TypedSite{result.narrow, "only this part of " + result.registrable.name() +
                                            ", and what is below it"};
      });
  if (coversValidationHosts(site.domain)) {
    return std::unexpected("“" + std::string(text) +
                           "” would cover the hosts that Stillow tests its own filter with.");
  }
  return site;
}

std::expected<std::vector<TypedSite>, std::vector<std::string>> understandSites(
    const core::DomainNormalizer& normalizer, std::span<const std::string> texts) {
  std::vector<TypedSite> sites;
  std::vector<std::string> refusals;
  for (const std::string& text : texts) {
    auto site = understandSite(normalizer, text);
    if (!site) {
      refusals.push_back(std::move(site.error()));
    } else if (std::ranges::find(sites, site->domain, &TypedSite::domain) == sites.end()) {
      sites.push_back(std::move(*site));
    }
  }
  if (!refusals.empty()) return std::unexpected(std::move(refusals));
  return sites;
}

}  // namespace stillow::client
