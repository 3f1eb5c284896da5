#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CommandsTesting.hpp"

namespace stillow::client {
namespace {

using ipc::DaemonError;
using test::activeStatus;
using test::CommandsTest;
using test::domain;
using test::start;

TEST_F(CommandsTest, showsOneScreenAndStartsAfterAYes) {
  answer("yes\n");
  EXPECT_EQ(begin({.sites = {"a.com", "https://www.b.com/x"}}, {.duration = "2h"}),
            ExitStatus::success);
  EXPECT_TRUE(told().starts_with(
      "This blocks 2 sites, and every name below:\n"
      "  a.com\n"
      "  b.com  (from https://www.b.com/x)\n"
      "Until 20:07:00 at the latest, 2 h 0 min from now, if this machine is not shut down.\n"
      "Time asleep counts. Time shut down does not: the end moves later by as much.\n"
      "Nobody can end it early, you included. It can only be extended, until tomorrow 18:07:00 at "
      "most, and sites can be added.\n"
      "Start it? Type yes: "))
      << told();
  EXPECT_EQ(daemon->calls,
            (std::vector<std::string>{"status", "announce", "validate", "activate"}));
  ASSERT_EQ(daemon->activations.size(), 1U);
  EXPECT_EQ(daemon->activations[0].duration.seconds(), 7'200);
  EXPECT_EQ(collectionReads, 0);
}

TEST_F(CommandsTest, startsNothingWithoutAPlainYes) {
  for (const char* const word : {"", "\n", "y\n", "no\n", "yes please\n", "ye"}) {
    answer(word);
    terminal.in.clear();
    EXPECT_EQ(begin({.sites = {"a.com"}}, {.duration = "2h"}), ExitStatus::declined) << word;
    EXPECT_TRUE(told().ends_with("Nothing was started.\n"));
  }
  EXPECT_TRUE(daemon->activations.empty());
}

TEST_F(CommandsTest, takesAYesOnlyFromSomebodyWhoIsThere) {
  terminal.canAnswer = false;
  answer("yes\n");
  EXPECT_EQ(begin({.sites = {"a.com"}}, {.duration = "2h"}), ExitStatus::declined);
  EXPECT_TRUE(told().ends_with(
      "Standard input is no terminal, so nobody can answer. For a script, add --yes. Nothing was "
      "started.\n"));
  EXPECT_EQ(begin({.sites = {"a.com"}}, {.duration = "2h"}, confirmed), ExitStatus::success);
}

TEST_F(CommandsTest, keepsTheScreenToOneScreen) {
  std::vector<std::string> sites;
  for (int number = 0; number < 500; ++number) {
    sites.push_back("a-rather-long-name-" + std::to_string(number) + ".com");
  }
  for (const std::size_t columns : {80U, 40U}) {
    terminal.err.str("");
    terminal.style = {.columns = columns, .rows = 24, .hasColour = true, .showsBar = true};
    answer("no\n");
    EXPECT_EQ(begin({.sites = sites}, {.duration = "2h"}), ExitStatus::declined);
    std::size_t lines = 0;
    std::istringstream text(told());
    for (std::string line; std::getline(text, line); ++lines) {
      EXPECT_LE(displayWidth(line), columns) << line;
    }
    EXPECT_LE(lines, 24U);
    EXPECT_TRUE(told().contains("This blocks 500 sites"));
    EXPECT_TRUE(told().contains(" more\n"));
  }
}

TEST_F(CommandsTest, endsWhenItWasSaidToHoweverLongTheUserThinks) {
  daemon->duringValidation = [this] { now = now + 100; };
  answer("yes\n");
  EXPECT_EQ(begin({.sites = {"a.com"}}, {.until = "19:00"}), ExitStatus::success);
  EXPECT_EQ(daemon->activations.at(0).duration.seconds(), 53 * 60 - 100);
}

TEST_F(CommandsTest, startsNothingWhoseEndHasPassedMeanwhile) {
  daemon->duringValidation = [this] { now = now + 100; };
  EXPECT_EQ(begin({.sites = {"a.com"}}, {.until = "18:08"}, confirmed), ExitStatus::usage);
  EXPECT_TRUE(told().ends_with("“18:08” has passed meanwhile, so nothing was started.\n"));
  EXPECT_TRUE(daemon->activations.empty());
}

TEST_F(CommandsTest, asksForGroupsOutOfTheWholeCollection) {
  EXPECT_EQ(begin({.groups = {"work"}}, {.duration = "1h"}, confirmed), ExitStatus::success);
  const auto& request = daemon->activations.at(0);
  EXPECT_TRUE(core::is<core::CommitmentSelection::groups>(request.selection));
  EXPECT_EQ(request.collectionSnapshot, collection->websites);
  EXPECT_EQ(core::Scope::resolving(request.selection, request.collectionSnapshot).domains,
            (core::DomainSet{domain("chat.com"), domain("news.com")}));
}

TEST_F(CommandsTest, addsTypedSitesToAGroupsThisOnce) {
  EXPECT_EQ(begin({.sites = {"extra.com"}, .groups = {"work"}}, {.duration = "1h"}, confirmed),
            ExitStatus::success);
  const auto& request = daemon->activations.at(0);
  EXPECT_EQ(core::Scope::resolving(request.selection, request.collectionSnapshot).domains,
            (core::DomainSet{domain("chat.com"), domain("extra.com"), domain("news.com")}));
}

TEST_F(CommandsTest, blocksTheWholeCollection) {
  EXPECT_EQ(begin({.sites = {"extra.com"}, .isAll = true}, {.duration = "1h"}, confirmed),
            ExitStatus::success);
  const auto& request = daemon->activations.at(0);
  EXPECT_EQ(core::Scope::resolving(request.selection, request.collectionSnapshot).domains.size(),
            4U);
}

TEST_F(CommandsTest, refusesBadInputWithASentenceAndWithoutTheDaemon) {
  struct Row {
    SelectionWords words;
    EndRequest end;
    const char* sentence;
  };
  const Row rows[]{
      {{.sites = {"a.com"}},
       {.duration = "25h"},
       "“25h” is not possible: a Commitment runs for more than 0 seconds and at most 24 hours.\n"},
      {{.sites = {"a.com"}},
       {.until = "2026-11-15T18:00"},
       "“2026-11-15T18:00” is in the past: an end lies ahead, by at most 24 hours.\n"},
      {{.sites = {"a.com"}},
       {.until = "2026-11-17T18:00"},
       "“2026-11-17T18:00” is too far ahead: an end lies at most 24 hours from now, so by tomorrow "
       "18:07:00.\n"},
      {{.sites = {"a.com"}}, {}, "Say how long: --for 2h, or --until 18:00.\n"},
      {{.sites = {"a.com"}},
       {.duration = "1h", .until = "19:00"},
       "Say how long: --for 2h, or --until 18:00.\n"},
      {{},
       {.duration = "1h"},
       "Say what to block: sites, --group NAME, or --all for your collection.\n"},
      {{.groups = {"wrok"}},
       {.duration = "1h"},
       "“wrok” is none of your groups; see them with: stillow groups list\n"},
      {{.groups = {"none"}},
       {.duration = "1h"},
       "The group “none” is empty; file a site in it with: stillow groups add none SITE\n"},
      {{.sites = {"10.0.0.1", "com"}},
       {.duration = "1h"},
       "“10.0.0.1” is an address; Stillow blocks sites by name, so give the site’s name.\n"
       "“com” is shared by many owners (a public suffix); name a site below it.\n"},
      {{.sites = {"larchmoor.com"}},
       {.duration = "1h"},
       "“larchmoor.com” would cover the hosts that Stillow tests its own filter with.\n"}};
  for (const Row& row : rows) {
    terminal.err.str("");
    EXPECT_EQ(begin(row.words, row.end, confirmed), ExitStatus::usage) << row.sentence;
    EXPECT_EQ(told(), row.sentence);
  }
  EXPECT_TRUE(daemon->calls.empty());
}

TEST_F(CommandsTest, saysThatTheCollectionCannotBeUsed) {
  collection = std::unexpected("Your sites could not be read.");
  EXPECT_EQ(begin({.isAll = true}, {.duration = "1h"}, confirmed), ExitStatus::collection);
  EXPECT_EQ(told(), "Your sites could not be read.\n");
  terminal.err.str("");
  collection = SiteCollection{};
  EXPECT_EQ(begin({.isAll = true}, {.duration = "1h"}, confirmed), ExitStatus::usage);
  EXPECT_EQ(told(), "Your collection is empty; add a site with: stillow sites add SITE\n");
}

TEST_F(CommandsTest, refusesASiteOfTheCollectionThatNobodyMayBlock) {
  // Written into the file by hand.
  collection->add({domain("stillow.larchmoor.com")}, {});
  EXPECT_EQ(begin({.isAll = true}, {.duration = "1h"}, confirmed), ExitStatus::usage);
  EXPECT_TRUE(told().starts_with("“stillow.larchmoor.com” would cover"));
}

TEST_F(CommandsTest, saysBeforeItAsksThatACommitmentRuns) {
  daemon->answer = activeStatus({"a.com"}, 600);
  EXPECT_EQ(begin({.sites = {"b.com"}}, {.duration = "1h"}), ExitStatus::refused);
  EXPECT_EQ(told(),
            "A Commitment is already active; strengthen it instead of starting another.\n"
            "To block more: stillow add SITE. To move its end: stillow extend --by 30m\n");
}

TEST_F(CommandsTest, saysWhyThereIsNoDaemonAndWhatToDo) {
  daemon->answer = std::unexpected(DaemonError::daemonUnavailable{"gone"});
  EXPECT_EQ(begin({.sites = {"b.com"}}, {.duration = "1h"}), ExitStatus::unreachable);
  EXPECT_EQ(told(), "There is no daemon.\nStart it.\n");
}

TEST_F(CommandsTest, addsWhatIsNew) {
  daemon->answer = activeStatus({"a.com"}, 600);
  answer("yes\n");
  EXPECT_EQ(run([](Commands& commands) { return commands.add({.sites = {"a.com", "b.com"}}, {}); }),
            ExitStatus::success);
  EXPECT_TRUE(told().starts_with("This adds 1 site to what is blocked:\n  b.com\nUntil 18:17:00"))
      << told();
  ASSERT_EQ(daemon->additions.size(), 1U);
  const auto* const websites = core::getIf<ipc::ScopeAddition::websites>(daemon->additions[0]);
  ASSERT_NE(websites, nullptr);
  EXPECT_EQ(websites->domains.size(), 2U);
}

TEST_F(CommandsTest, addsAGroup) {
  daemon->answer = activeStatus({"a.com"}, 600);
  EXPECT_EQ(run([](Commands& commands) { return commands.add({.groups = {"work"}}, confirmed); }),
            ExitStatus::success);
  EXPECT_TRUE(core::is<ipc::ScopeAddition::selection>(daemon->additions.at(0)));
}

TEST_F(CommandsTest, extendsByALengthAndUntilATime) {
  daemon->answer = activeStatus({"a.com"}, 600);
  answer("yes\n");
  EXPECT_EQ(run([](Commands& commands) { return commands.extend({.duration = "10m"}, {}); }),
            ExitStatus::success);
  EXPECT_EQ(daemon->extensions.at(0).newEndTime.date, start + 1'200);
  EXPECT_TRUE(told().starts_with("This goes on blocking 1 site:\n  a.com\nUntil 18:27:00"));
  EXPECT_EQ(run([](Commands& commands) { return commands.extend({.until = "20:00"}, confirmed); }),
            ExitStatus::success);
  EXPECT_EQ(daemon->extensions.at(1).newEndTime.date, start + 53 * 60 + 3'600);
}

TEST_F(CommandsTest, refusesAnExtensionThatCannotBe) {
  struct Row {
    EndRequest end;
    ExitStatus status;
    const char* words;
  };
  daemon->answer = activeStatus({"a.com"}, 3'600);
  const Row rows[]{
      {{}, ExitStatus::usage, "Say until when: --by 30m, or --until 18:00.\n"},
      {{.duration = "soon"}, ExitStatus::usage, "“soon” is no duration"},
      {{.duration = "25h"}, ExitStatus::usage, "“25h” is not possible: an end moves by more than"},
      {{.duration = "0s"}, ExitStatus::usage, "“0s” is not possible: an end moves by more than"},
      {{.duration = "23h30m"}, ExitStatus::refused, "The proposed End Time is past the 24-hour"},
      {{.until = "18:30"},
       ExitStatus::refused,
       "The proposed End Time is not later than the current projected End Time.\n"
       "It ends at about 19:07:00; name a later end.\n"}};
  for (const Row& row : rows) {
    terminal.err.str("");
    EXPECT_EQ(run([&](Commands& commands) { return commands.extend(row.end, confirmed); }),
              row.status);
    EXPECT_TRUE(told().starts_with(row.words)) << told();
  }
  EXPECT_TRUE(daemon->extensions.empty());
}

TEST_F(CommandsTest, neverAsksForAnEndMoreThanADayAhead) {
  // The clock was set back after the activation; the daemon's own limit would allow more.
  daemon->answer = activeStatus({"a.com"}, 3'600);
  now = start + -7'200;
  EXPECT_EQ(run([](Commands& commands) { return commands.extend({.duration = "22h"}, confirmed); }),
            ExitStatus::refused);
  EXPECT_TRUE(daemon->extensions.empty());
}

}  // namespace
}  // namespace stillow::client
