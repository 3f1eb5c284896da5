#include <array>

#include <gtest/gtest.h>

#include "StillowIPC/CodeSigningRequirement.hpp"
#include "StillowIPC/StillowDaemonService.hpp"

namespace stillow::ipc {
namespace {

CodeIdentity ours(std::string identifier) {
  return {std::move(identifier), "Q4ZT8NWK2R", /*anchorIsTrusted=*/true};
}

// Both ends of the protocol and the installed property list spell these out on their own.
TEST(StillowDaemonService, namesTheServiceTheComponentsAndTheProtocols) {
  EXPECT_EQ(StillowDaemonService::machServiceName, "com.larchmoor.Stillow.daemon");
  EXPECT_EQ(StillowDaemonService::appBundleIdentifier, "com.larchmoor.Stillow");
  EXPECT_EQ(StillowDaemonService::filterBundleIdentifier, "com.larchmoor.Stillow.filter");
  EXPECT_EQ(StillowDaemonService::daemonProtocolName, "StillowDaemonXPCProtocol");
  EXPECT_EQ(StillowDaemonService::clientProtocolName, "StillowDaemonClientXPCProtocol");
  constexpr std::array<std::string_view, 3> appDaemonFilter{
      "com.larchmoor.Stillow", "com.larchmoor.Stillow.daemon", "com.larchmoor.Stillow.filter"};
  EXPECT_EQ(StillowDaemonService::signedClientIdentifiers, appDaemonFilter);
}

TEST(CodeSigningRequirement, trustedPeersIsTheTextForTheTeamAndItsThreeComponents) {
  EXPECT_EQ(CodeSigningRequirement::teamIdentifier, "Q4ZT8NWK2R");
  EXPECT_EQ(CodeSigningRequirement::trustedPeers().text,
            "anchor apple generic and certificate leaf[subject.OU] = \"Q4ZT8NWK2R\" and "
            "(identifier \"com.larchmoor.Stillow\" or identifier \"com.larchmoor.Stillow.daemon\" "
            "or identifier \"com.larchmoor.Stillow.filter\")");
  EXPECT_TRUE(CodeSigningRequirement::trustedPeers().isValid());
}

TEST(CodeSigningRequirement, trustedPeersIsBuiltOnce) {
  EXPECT_EQ(&CodeSigningRequirement::trustedPeers(), &CodeSigningRequirement::trustedPeers());
}

TEST(CodeSigningRequirement, builderPutsOneIdentifierInParenthesesToo) {
  constexpr std::array<std::string_view, 1> one{"org.example.tool"};
  const auto requirement = CodeSigningRequirement::signedBy("TEAM", one);
  EXPECT_EQ(requirement.text,
            "anchor apple generic and certificate leaf[subject.OU] = \"TEAM\" and (identifier "
            "\"org.example.tool\")");
  EXPECT_TRUE(requirement.isValid());
}

// Refusing everybody is right here: nobody was named.
TEST(CodeSigningRequirement, withoutIdentifiersIsNotValidAndSatisfiedByNobody) {
  const auto requirement = CodeSigningRequirement::signedBy("Q4ZT8NWK2R", {});
  EXPECT_EQ(requirement.text,
            "anchor apple generic and certificate leaf[subject.OU] = \"Q4ZT8NWK2R\" and ()");
  EXPECT_FALSE(requirement.isValid());
  EXPECT_FALSE(requirement.isSatisfiedBy(ours("com.larchmoor.Stillow")));
}

TEST(CodeSigningRequirement, aTextThatDoesNotCompileIsSatisfiedByNobody) {
  for (const char* text : {"", "this is no requirement", "anchor apple generic and"}) {
    SCOPED_TRACE(text);
    const CodeSigningRequirement requirement{text};
    EXPECT_FALSE(requirement.isValid());
    EXPECT_FALSE(requirement.isSatisfiedBy(ours("com.larchmoor.Stillow")));
  }
}

TEST(CodeSigningRequirement, trustedPeersAdmitsTheThreeComponentsAndNobodyElse) {
  struct Row {
    const char* who;
    CodeIdentity identity;
    bool isAdmitted;
  };
  const Row rows[]{
      {"the application", ours("com.larchmoor.Stillow"), true},
      {"the daemon", ours("com.larchmoor.Stillow.daemon"), true},
      {"the filter", ours("com.larchmoor.Stillow.filter"), true},
      {"another program of the team", ours("com.larchmoor.Other"), false},
      {"a name below the application's", ours("com.larchmoor.Stillow.helper"), false},
      {"a name that the application's begins with", ours("com.larchmoor.Stil"), false},
      {"another case", ours("com.larchmoor.stillow"), false},
      {"a trailing blank", ours("com.larchmoor.Stillow "), false},
      {"no identifier", ours(""), false},
      {"another team", {"com.larchmoor.Stillow", "Q4ZT8NWK2S", true}, false},
      {"no team", {"com.larchmoor.Stillow", "", true}, false},
      {"an anchor that is not trusted", {"com.larchmoor.Stillow", "Q4ZT8NWK2R", false}, false},
      {"nothing proven", {}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.who);
    EXPECT_EQ(CodeSigningRequirement::trustedPeers().isSatisfiedBy(row.identity), row.isAdmitted);
  }
}

}  // namespace
}  // namespace stillow::ipc
