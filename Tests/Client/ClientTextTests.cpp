#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "StillowClient/SiteList.hpp"
#include "StillowClient/StatusText.hpp"
#include "StillowClient/TimeText.hpp"

namespace stillow::client {
namespace {

using core::Date;

const core::DomainNormalizer& normalizer() {
  static const core::DomainNormalizer shared{core::PublicSuffixList("com\nde\nco.uk\nuk\n")};
  return shared;
}

TEST(TimeText, readsDurationsAsPeopleTypeThem) {
  struct Row {
    const char* text;
    double seconds;
  };
  const Row rows[]{{"2h", 7'200},   {"90m", 5'400}, {"1h30m", 5'400}, {"1h 30m", 5'400},
                   {"1.5h", 5'400}, {"45s", 45},    {"90min", 5'400}, {"1h2m3s", 3'723},
                   {" 10m ", 600},  {"0.5s", 0.5}};
  for (const Row& row : rows) EXPECT_EQ(parseSeconds(row.text), row.seconds) << row.text;
}

TEST(TimeText, refusesOtherTextsAndNamesThem) {
  for (const char* const text : {"", " ", "2", "h", "2x", "1m1h", "1h1h", "-2h", "1..5h", ".5h",
                                 "5.h", "1e3s", "9999999999999s", "2 hours", "nan", "1h,5m"}) {
    const auto seconds = parseSeconds(text);
    ASSERT_FALSE(seconds.has_value()) << text;
    EXPECT_TRUE(seconds.error().contains("“" + std::string(text) + "”")) << seconds.error();
  }
}

TEST(TimeText, refusesDurationsThatNoCommitmentCanHave) {
  EXPECT_TRUE(parseDuration("24h").has_value());
  for (const char* const text : {"0s", "25h", "24h1s"}) {
    EXPECT_EQ(parseDuration(text).error(),
              "“" + std::string(text) +
                  "” is not possible: a Commitment runs for more than 0 seconds and at most 24 "
                  "hours.");
  }
}

TEST(TimeText, writesDurationsWithoutEverSayingZeroTooEarly) {
  EXPECT_EQ(durationText(7'140), "1 h 59 min");
  EXPECT_EQ(durationText(245), "4 min 5 s");
  EXPECT_EQ(durationText(12), "12 s");
  EXPECT_EQ(durationText(0.01), "1 s");
  EXPECT_EQ(durationText(0), "0 s");
  EXPECT_EQ(durationText(-5), "0 s");
}

TEST(TimeText, saysTheDayOnlyWhereItIsNotToday) {
  ASSERT_EQ(setenv("TZ", "UTC", 1), 0);
  tzset();
  const Date now{816'458'820};  // 2026-11-15 18:07:00 UTC
  EXPECT_EQ(momentText(now + 60, now), "18:08:00");
  EXPECT_EQ(momentText(now + 21'600, now), "tomorrow 00:07:00");
  EXPECT_EQ(momentText(now + 172'800, now), "2026-11-17 18:07:00");
}

TEST(TimeText, fillsTheBarInProportion) {
  EXPECT_EQ(barText(0, 4), "░░░░");
  EXPECT_EQ(barText(0.5, 4), "██░░");
  EXPECT_EQ(barText(1, 4), "████");
  EXPECT_EQ(barText(7, 4), "████");
  EXPECT_EQ(barText(-1, 4), "░░░░");
}

TEST(SiteList, understandsWhatPeopleTypeAndSaysWhatBecameOfIt) {
  EXPECT_EQ(understandSite(normalizer(), "Example.com")->domain.name(), "example.com");
  EXPECT_EQ(understandSite(normalizer(), "Example.com")->note, "");
  const auto copied = understandSite(normalizer(), "https://www.example.com/x");
  EXPECT_EQ(copied->domain.name(), "example.com");
  EXPECT_EQ(copied->note, "from https://www.example.com/x");
  const auto narrow = understandSite(normalizer(), "mail.example.com");
  EXPECT_EQ(narrow->domain.name(), "mail.example.com");
  EXPECT_EQ(narrow->note, "only this part of example.com, and what is below it");
  EXPECT_EQ(understandSite(normalizer(), "bücher.de")->domain.name(), "xn--bcher-kva.de");
}

TEST(SiteList, refusesWhatIsNoSiteWithOneSentenceThatNamesIt) {
  struct Row {
    const char* text;
    const char* sentence;
  };
  const Row rows[]{
      {"10.0.0.1",
       "“10.0.0.1” is an address; Stillow blocks sites by name, so give the site’s name."},
      {"co.uk", "“co.uk” is shared by many owners (a public suffix); name a site below it."},
      {"a b", "“a b” is not a host name: letters, digits, hyphens and dots, like example.com."},
      {"https://", "“https://” names no host; write something like example.com."},
      {" ", "An empty text names no site; write something like example.com."},
      {"larchmoor.com",
       "“larchmoor.com” would cover the hosts that Stillow tests its own filter with."},
      {"new-probe.stillow.larchmoor.com",
       "“new-probe.stillow.larchmoor.com” would cover the hosts that Stillow tests its own filter "
       "with."}};
  for (const Row& row : rows) {
    const auto site = understandSite(normalizer(), row.text);
    ASSERT_FALSE(site.has_value()) << row.text;
    EXPECT_EQ(site.error(), row.sentence);
  }
  EXPECT_TRUE(understandSite(normalizer(), "other.larchmoor.com").has_value());
}

TEST(SiteList, dropsRepetitionsAndReportsEveryRefusal) {
  const std::vector<std::string> good{"a.com", "A.com.", "https://a.com/", "b.com"};
  EXPECT_EQ(understandSites(normalizer(), good)->size(), 2U);
  const std::vector<std::string> bad{"a.com", "1.2.3.4", "com"};
  EXPECT_EQ(understandSites(normalizer(), bad).error().size(), 2U);
}

ipc::DaemonStatus activeStatus(Date now, double elapsed, double remaining) {
  core::Commitment commitment{
      now + -elapsed,
      {1, core::DomainSet::of({*core::Domain::make("a.com"), *core::Domain::make("b.com")})},
      remaining,
      core::CommitmentHealth::healthy};
  return {
      .observedAt = now,
      .commitment = ipc::CommitmentStatus::active{ipc::ActiveCommitmentStatus::of(commitment, now)},
      .enforcement = core::EnforcementHealthStatus::healthy{},
      .readiness = {}};
}

TextStyle wide() {
  TextStyle style;
  style.showsBar = true;
  return style;
}

TEST(StatusText, tellsWhatIsBlockedAndForHowLong) {
  ASSERT_EQ(setenv("TZ", "UTC", 1), 0);
  tzset();
  const Date now{816'458'820};
  EXPECT_EQ(statusText(activeStatus(now, 1'800, 1'800), wide()),
            "A Commitment is active for another 30 min 0 s, until about 18:37:00.\n"
            "  ███████████████░░░░░░░░░░░░░░░  30 min 0 s\n"
            "  Blocked: a.com, b.com\n"
            "Blocking is in force.\n");
  EXPECT_FALSE(statusText(activeStatus(now, 0, 60), {}).contains("█"));
}

TEST(StatusText, fitsNarrowTerminals) {
  const Date now{816'458'820};
  for (const std::size_t columns : {80U, 60U, 40U}) {
    TextStyle style = wide();
    style.columns = columns;
    style.hasColour = true;
    std::string text = statusText(activeStatus(now, 1'800, 1'800), style);
    for (const std::string& line : liveLines(activeStatus(now, 0, 7'000), now, true, style)) {
      text += line + "\n";
    }
    for (std::size_t at = 0; at < text.size();) {
      const std::size_t end = text.find('\n', at);
      const std::string line = text.substr(at, end - at);
      EXPECT_LE(displayWidth(line), columns) << line;
      at = end + 1;
    }
  }
}

TEST(StatusText, tellsOfIdleExpiredAndEveryFault) {
  using core::DegradedReason;
  ipc::DaemonStatus status;
  EXPECT_EQ(statusText(status, wide()), "No Commitment is active.\n");
  status.enforcement = core::EnforcementHealthStatus::degraded{DegradedReason::failedOpen};
  EXPECT_TRUE(statusText(status, wide()).contains("Nothing is being blocked at the moment"));
  status.commitment = ipc::CommitmentStatus::expired{status.observedAt};
  EXPECT_TRUE(statusText(status, wide()).starts_with("The Commitment ended at "));
}

TEST(StatusText, showsNothingThatSteersTheTerminal) {
  ipc::DaemonStatus status = activeStatus(Date{816'458'820}, 0, 60);
  auto active = *status.active();
  active.scope =
      core::DomainSet::of({*core::Domain::make("a\x1b"
                                               "c.com")});
  status.commitment = ipc::CommitmentStatus::active{active};
  const std::string text = statusText(status, {});
  EXPECT_FALSE(text.contains('\x1b'));
  EXPECT_TRUE(text.contains("a\uFFFDc.com"));
}

TEST(LiveLines, projectTheRemainderBetweenTwoStatuses) {
  const Date now{816'458'820};
  const auto status = activeStatus(now, 0, 60);
  const auto bar = [&](Date moment) { return liveLines(status, moment, true, wide()).front(); };
  EXPECT_TRUE(bar(now + 20).ends_with("  40 s left"));
  EXPECT_TRUE(bar(now + 100).ends_with("  0 s left"));
  EXPECT_TRUE(bar(now + -50).ends_with("  1 min 0 s left"));
}

TEST(LiveLines, sayThatTheDaemonIsGone) {
  const Date now{816'458'820};
  const auto lines = liveLines(activeStatus(now, 0, 60), now, false, wide());
  EXPECT_EQ(lines.back(), "  The daemon is gone; waiting for it to come back.");
}

TEST(Changes, areToldInWords) {
  ASSERT_EQ(setenv("TZ", "UTC", 1), 0);
  tzset();
  using Sentences = std::vector<std::string>;
  const Date now{816'458'820};
  const ipc::DaemonStatus before = activeStatus(now, 100, 600);
  const auto after = [&](auto change) {
    ipc::DaemonStatus status = before;
    status.observedAt = now + 10;
    ipc::ActiveCommitmentStatus active = *before.active();
    active.remainingDuration = 590;
    change(active, status);
    status.commitment = ipc::CommitmentStatus::active{active};
    return changesBetween(before, status);
  };
  EXPECT_EQ(after([](auto&, auto&) {}), Sentences{}) << "time passed as it should";
  EXPECT_EQ(after([](auto& active, auto&) {
              active.scope = active.scope.united({*core::Domain::make("c.com")});
            }),
            Sentences{"Added: c.com."});
  EXPECT_EQ(after([](auto& active, auto&) {
              active.remainingDuration += 600;
              active.projectedEndTime.date = active.projectedEndTime.date + 600;
            }),
            Sentences{"Extended: it ends at about 18:27:00 now."});
  EXPECT_EQ(after([](auto& active, auto&) {
              active.projectedEndTime.date = active.projectedEndTime.date + 5;
            }),
            Sentences{"It ends at about 18:17:05 now."})
      << "the machine was off for a moment";
  EXPECT_EQ(after([](auto&, auto& status) {
              status.enforcement =
                  core::EnforcementHealthStatus::degraded{core::DegradedReason::failedOpen};
            }),
            Sentences{"Nothing is being blocked at the moment; it is being repaired."});

  ipc::DaemonStatus ended = before;
  ended.commitment = ipc::CommitmentStatus::expired{now};
  EXPECT_EQ(changesBetween(before, ended),
            Sentences{"The Commitment has ended. Clear this with: stillow acknowledge"});
  EXPECT_EQ(changesBetween(ended, before),
            Sentences{"A Commitment has started: a.com, b.com, until about 18:17:00."});
  ipc::DaemonStatus idle = before;
  idle.commitment = ipc::CommitmentStatus::idle{};
  EXPECT_EQ(changesBetween(ended, idle), Sentences{"No Commitment is active any more."});
}

}  // namespace
}  // namespace stillow::client
