// The directive: what was read is written and read again as the same, and a filter that adopts it
// drops exactly the names that it lists, for as long as it lists them.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "StillowCore/Coding.hpp"
#include "StillowCore/Invariant.hpp"
#include "StillowCore/Text.hpp"
#include "StillowFiltering/EnforcementDirective.hpp"
#include "StillowFiltering/FlowClassifier.hpp"

namespace {

using namespace stillow;
using core::Date;
using core::require;
using filtering::EnforcementDirective;

constexpr std::size_t domainsTried = 32;

void tryInForce(const EnforcementDirective& directive) {
  const Date now = directive.publishedAt;
  filtering::FlowClassifier classifier(
      directive, now, {.lifetime = 600, .maximumAddresses = 4, .maximumNamesPerAddress = 2});
  const auto domains = directive.effectiveDomains(now);
  std::size_t count = 0;
  for (const core::Domain& domain : domains) {
    if (++count > domainsTried) break;
    require(classifier.blocks(domain.name(), now), "a name that is listed is blocked");
    // A combining mark at the front would join the dot, which then separates nothing.
    if (!core::text::isASCII(domain.name().front())) continue;
    require(classifier.blocks("below." + std::string(domain.name()), now),
            "and what lies below it");
  }
  const filtering::FlowEvidence nothing{};
  const bool isHeld = core::is<filtering::FlowDisposition::allowUnderInspection>(
      classifier.classify(nothing, now).disposition);
  require(isHeld == !domains.empty(), "flows are inspected while anything is blocked");

  const auto& probe = directive.validation;
  if (probe && !directive.scope) {
    require(!classifier.blocks(probe->domain.name(), probe->expiresAt), "a probe ends");
  }
  classifier.adopt(std::nullopt, now);
  require(domains.empty() || !classifier.blocks(domains.begin()->name(), now),
          "nothing is blocked without a directive");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const auto directive = core::decode<EnforcementDirective>(bytes);
  if (!directive) {
    require(!directive.error().description.empty(), "a refusal says why");
    return 0;
  }
  const auto encoded = core::encode(*directive);
  require(encoded.has_value(), "what was read can be written");
  const auto again = core::decode<EnforcementDirective>(*encoded);
  require(again && *again == *directive, "what was written reads as the same");
  require(core::encode(*again) == *encoded, "and is written as the same");
  tryInForce(*directive);
  return 0;
}
