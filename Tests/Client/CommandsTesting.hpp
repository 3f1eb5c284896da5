#pragma once

#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ClientTesting.hpp"
#include "StillowClient/Commands.hpp"
#include "TestSupport/DeterministicExecutor.hpp"

namespace stillow::test {

using client::CommandOptions;
using client::Commands;
using client::EndRequest;
using client::ExitStatus;
using client::SelectionWords;
using core::Date;
using ipc::DaemonError;

inline constexpr Date start{816'458'820};  // 2026-11-15 18:07:00 UTC

inline ipc::DaemonStatus activeStatus(std::initializer_list<const char*> sites, double remaining) {
  std::vector<core::Domain> domains;
  for (const char* const site : sites) domains.push_back(domain(site));
  const core::Commitment commitment{
      start, {1, core::DomainSet::of(domains)}, remaining, core::CommitmentHealth::healthy};
  ipc::DaemonStatus status;
  status.observedAt = start;
  status.commitment =
      ipc::CommitmentStatus::active{ipc::ActiveCommitmentStatus::of(commitment, start)};
  status.readiness = {true, core::EnforcementValidation::passed{}, start};
  return status;
}

struct CommandsTest : testing::Test {
  DeterministicExecutor world;
  std::shared_ptr<FakeDaemon> daemon = std::make_shared<FakeDaemon>();
  FakeTerminal terminal;
  Date now = start;
  std::expected<client::SiteCollection, std::string> collection;
  int collectionReads = 0;

  void SetUp() override {
    ASSERT_EQ(setenv("TZ", "UTC", 1), 0);
    tzset();
    const core::Group work{{core::UUID::parse("01010101-0101-0101-0101-010101010101").value()},
                           "work"};
    const core::Group none{{core::UUID::parse("02020202-0202-0202-0202-020202020202").value()},
                           "none"};
    collection = client::SiteCollection{};
    collection->groups = {work, none};
    core::GroupIDSet filed;
    filed.insert(work.id);
    collection->add({domain("news.com"), domain("chat.com")}, filed);
    collection->add({domain("other.com")}, {});
  }

  template <class Command>
  ExitStatus run(Command command) {
    Commands commands(terminal.console(),
                      {.daemon = daemon,
                       .clock = [this] { return now; },
                       .offset = client::localOffset(),
                       .normalizer = smallNormalizer,
                       .readCollection =
                           [this] {
                             ++collectionReads;
                             return collection;
                           },
                       .explainUnreachable =
                           [](const DaemonError&) { return "There is no daemon.\nStart it."; }});
    return world.run(command(commands));
  }
  ExitStatus begin(SelectionWords words, EndRequest end, CommandOptions options = {}) {
    return run([&](Commands& commands) { return commands.start(words, end, options); });
  }
  void answer(const std::string& text) { terminal.in.str(text); }
  std::string told() const { return terminal.err.str(); }

  static constexpr CommandOptions confirmed{.isConfirmed = true};
};

}  // namespace stillow::test
