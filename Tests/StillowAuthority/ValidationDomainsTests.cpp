#include <gtest/gtest.h>

#include "StillowAuthority/ValidationDomains.hpp"

namespace stillow::authority {
namespace {

TEST(ValidationDomains, namesTheProbedAndTheControlHost) {
  const auto domains = ValidationDomains::standard();
  EXPECT_EQ(domains.probed.name(), "old-probe.stillow.larchmoor.com");
  EXPECT_EQ(domains.control.name(), "new-probe.stillow.larchmoor.com");
}

}  // namespace
}  // namespace stillow::authority
