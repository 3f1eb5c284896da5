#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "StillowCore/Coding.hpp"
#include "StillowFiltering/EnforcementDirective.hpp"

namespace stillow::filtering {
namespace {

using core::Date;
using core::Domain;
using core::DomainSet;

constexpr Date start{753'451'200};

Domain domain(std::string_view name) { return *Domain::make(name); }

EnforcementDirective directiveWith(std::initializer_list<Domain> domains) {
  return {.scope = core::Scope{.generation = 2, .domains = DomainSet::of(domains)},
          .validation = std::nullopt,
          .publishedAt = start};
}

TEST(ValidationProbe, livesForItsLifetimeButNeverLongerThanTheCap) {
  struct Row {
    double lifetime;
    double lives;
  };
  constexpr double infinity = std::numeric_limits<double>::infinity();
  const Row rows[]{{0, 0},         {5, 5},
                   {19.5, 19.5},   {20, 20},
                   {20.001, 20},   {60, 20},
                   {-5, 0},        {infinity, 20},
                   {-infinity, 0}, {std::numeric_limits<double>::quiet_NaN(), 0}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.lifetime);
    const auto probe = ValidationProbe::issued(domain("probe.example"), start, row.lifetime);
    EXPECT_EQ(probe.expiresAt, start + row.lives);
    EXPECT_EQ(probe.domain, domain("probe.example"));
  }
}

TEST(EnforcementDirective, neverCountsAProbeThatWasIssuedWithANegativeLifetime) {
  EnforcementDirective directive{
      .scope = std::nullopt,
      .validation = ValidationProbe::issued(domain("probe.example"), start, -5),
      .publishedAt = start};
  EXPECT_TRUE(directive.effectiveDomains(start).empty());
}

TEST(EnforcementDirective, hasTheScopesDomainsAndTheLiveProbes) {
  EnforcementDirective directive = directiveWith({domain("a.example"), domain("b.example")});
  EXPECT_EQ(directive.effectiveDomains(start).size(), 2U);
  directive.validation = ValidationProbe::issued(domain("probe.example"), start, 20);
  EXPECT_EQ(directive.effectiveDomains(start),
            DomainSet::of({domain("a.example"), domain("b.example"), domain("probe.example")}));
  EXPECT_EQ(directive.effectiveDomains(start + 19.999).size(), 3U);
  EXPECT_EQ(directive.effectiveDomains(start + 20), directive.scope->domains);
  // Until its end a probe counts, also before the moment at which it was issued.
  EXPECT_EQ(directive.effectiveDomains(start + -100).size(), 3U);
  directive.validation->domain = domain("a.example");
  EXPECT_EQ(directive.effectiveDomains(start).size(), 2U);
}

TEST(EnforcementDirective, hasOneDomainWithoutAScopeAndWithALiveProbe) {
  const EnforcementDirective directive{
      .scope = std::nullopt,
      .validation = ValidationProbe::issued(domain("probe.example"), start, 60),
      .publishedAt = start};
  EXPECT_EQ(directive.effectiveDomains(start), DomainSet::of({domain("probe.example")}));
  EXPECT_TRUE(directive.effectiveDomains(start + 20).empty());
}

TEST(EnforcementDirective, isWrittenInFieldOrderWithoutAbsentFields) {
  EnforcementDirective directive = directiveWith({domain("b.example"), domain("a.example")});
  EXPECT_EQ(core::encode(directive),
            R"({"scope":{"generation":2,"domains":["a.example","b.example"]},)"
            R"("publishedAt":753451200})");
  directive.validation = ValidationProbe::issued(domain("probe.example"), start, 19.5);
  EXPECT_EQ(core::encode(directive),
            R"({"scope":{"generation":2,"domains":["a.example","b.example"]},)"
            R"("validation":{"domain":"probe.example","expiresAt":753451219.5},)"
            R"("publishedAt":753451200})");
  EXPECT_EQ(core::encode(EnforcementDirective{{}, {}, Date{0.25}}), R"({"publishedAt":0.25})");
}

TEST(EnforcementDirective, isReadBackAsItWasWritten) {
  EnforcementDirective directive = directiveWith({domain("b.example"), domain("a.example")});
  directive.validation = ValidationProbe::issued(domain("probe.example"), start, 12.345);
  EXPECT_EQ(core::decode<EnforcementDirective>(*core::encode(directive)), directive);
}

TEST(EnforcementDirective, isRefusedWholeForOneDomainThatIsNone) {
  const auto directive = core::decode<EnforcementDirective>(
      R"({"scope":{"generation":1,"domains":["a.example","not a name"]},"publishedAt":1})");
  ASSERT_FALSE(directive.has_value());
  EXPECT_EQ(directive.error().description, "Not a valid domain name: not a name");
  const auto probe = core::decode<EnforcementDirective>(
      R"({"validation":{"domain":"","expiresAt":1},"publishedAt":1})");
  ASSERT_FALSE(probe.has_value());
  EXPECT_EQ(probe.error().description, "Not a valid domain name: ");
}

TEST(EnforcementDirective, isReadWithNullsUnknownKeysAndAnyOrder) {
  const auto directive = core::decode<EnforcementDirective>(
      R"( {"more":[1],"publishedAt":753451200.0,"validation":null,"scope":null} )");
  EXPECT_EQ(directive, (EnforcementDirective{{}, {}, start}));
  EXPECT_FALSE(core::decode<EnforcementDirective>(R"({"scope":null})").has_value());
}

}  // namespace
}  // namespace stillow::filtering
