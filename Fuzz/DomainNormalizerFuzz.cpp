// What a user typed, and the names that come with it: whatever is accepted is a fixed point, stays
// within the promises of Domain, and is matched by a matcher that holds it.

#include <cstdint>
#include <string>
#include <string_view>

#include "StillowCore/DomainMatcher.hpp"
#include "StillowCore/DomainNormalizer.hpp"
#include "StillowCore/DomainSet.hpp"
#include "StillowCore/Invariant.hpp"
#include "StillowCore/SumType.hpp"
#include "StillowCore/Text.hpp"

namespace {

using namespace stillow::core;

const DomainNormalizer& normalizer() {
  static const DomainNormalizer instance{PublicSuffixList::fromResource()};
  return instance;
}

void checkDomain(std::string_view input) {
  const auto domain = Domain::make(input);
  if (!domain) return;
  const std::string name(domain->name());
  require(!name.empty(), "a name is not empty");
  const DomainMatcher matcher(DomainSet{*domain});
  require(matcher.matches(name), "a name matches itself");
  require(matcher.matches("www." + name) || !text::isCharacterBoundary("." + name, 1),
          "a name below a name matches");
  require(!matcher.matches(std::string_view(name).substr(1)) || name.starts_with('.') ||
              !text::isASCII(name),
          "a shorter name does not match");
  // One more dot is no longer the final one; without it the name is as it should be.
  const auto again = Domain::make(name);
  require((again && again->name() == name) || text::hasSuffix(name, '.'),
          "making a name of a name changes nothing");
}

/// www.192.11 comes down to 192.11, which typed alone is taken for an address.
bool isOfDigits(const Domain& domain) {
  return domain.name().find_first_not_of("0123456789.") == std::string::npos;
}

void checkFixedPoint(const DomainNormalizationResult& first) {
  using Result = DomainNormalizationResult;
  const Domain registrable = match(
      first, [](const Result::alreadyRegistrable& result) { return result.domain; },
      [](const Result::normalizedToRegistrable& result) { return result.registrable; },
      [](const Result::narrowerSubdomain& result) { return result.registrable; });
  if (isOfDigits(registrable)) return;
  require(
      normalizer().normalize(registrable.name()) == Result(Result::alreadyRegistrable{registrable}),
      "a registrable domain is a fixed point");
  if (const auto* subdomain = getIf<Result::narrowerSubdomain>(first)) {
    require(normalizer().normalize(subdomain->narrow.name()) == first,
            "a subdomain is a fixed point");
    require(subdomain->narrow.name().ends_with("." + std::string(registrable.name())),
            "a subdomain lies below its registrable domain");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  checkDomain(input);
  if (const auto result = normalizer().normalize(input)) checkFixedPoint(*result);
  return 0;
}
