#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "StillowClient/EndTimeText.hpp"

namespace stillow::client {
namespace {

using core::Date;

/// Central European time by its rule, so that no time zone database is needed.
constexpr const char* centralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";
/// Its clocks move by half an hour.
constexpr const char* lordHowe = "LHST-10:30LHDT-11,M10.1.0,M4.1.0";

struct EndTimeText : testing::Test {
  void SetUp() override { live(centralEurope); }
  static void live(const char* zone) {
    ASSERT_EQ(setenv("TZ", zone, 1), 0);
    tzset();
  }
  /// A moment by the clocks in UTC.
  static Date utc(int year, int month, int day, int hour, int minute, int second = 0) {
    std::tm time{};
    time.tm_year = year - 1900;
    time.tm_mon = month - 1;
    time.tm_mday = day;
    time.tm_hour = hour;
    time.tm_min = minute;
    time.tm_sec = second;
    return Date::fromUnixSeconds(static_cast<double>(::timegm(&time)));
  }
  static std::expected<Date, std::string> end(const std::string& text, Date now) {
    return parseEndTime(text, now, localOffset());
  }
};

TEST_F(EndTimeText, takesTheNextTimeThatTheClocksShowIt) {
  const Date now = utc(2026, 11, 21, 16, 30);  // 17:30
  EXPECT_EQ(end("18:00", now), utc(2026, 11, 21, 17, 0));
  EXPECT_EQ(end("17:30:01", now), utc(2026, 11, 21, 16, 30, 1));
  EXPECT_EQ(end("17:29", now), utc(2026, 11, 22, 16, 29)) << "tomorrow";
  EXPECT_EQ(end("17:30", now), utc(2026, 11, 22, 16, 30)) << "exactly 24 hours";
  EXPECT_EQ(end("00:00", now), utc(2026, 11, 21, 23, 0));
}

TEST_F(EndTimeText, takesADateWithAndWithoutAnOffset) {
  const Date now = utc(2026, 11, 21, 16, 30);
  for (const char* const text :
       {"2026-11-21T18:00", "2026-11-21 18:00", "2026-11-21T18:00:00", "2026-11-21T18:00+01:00",
        "2026-11-21T17:00Z", "2026-11-21T12:00-05:00", "2026-11-21T22:30+0530",
        "2026-11-22T02:00+09:00"}) {
    EXPECT_EQ(end(text, now), utc(2026, 11, 21, 17, 0)) << text;
  }
}

TEST_F(EndTimeText, refusesOtherTextsAndNamesThem) {
  for (const std::string text : {"",
                                 "18",
                                 "1800",
                                 "6pm",
                                 "18:0",
                                 "24:00",
                                 "18:60",
                                 "18:00:60",
                                 "18:00Z",
                                 "18:00+01:00",
                                 "2026-11-21",
                                 "2026-11-31T18:00",
                                 "2026-13-01T18:00",
                                 "2026-00-10T18:00",
                                 "2026-11-21T18:00+1",
                                 "2026-11-21T18:00+25:00",
                                 "2026-11-21T18:00 ",
                                 "21.11.2026 18:00",
                                 "tomorrow",
                                 "2026-1-21T18:00",
                                 "-026-11-21T18:00",
                                 "2026-11-21T18:00+01:00x"}) {
    const auto refused = end(text, utc(2026, 11, 21, 16, 30));
    ASSERT_FALSE(refused.has_value()) << text;
    EXPECT_EQ(refused.error(), "“" + text +
                                   "” is no time: write 18:00, 2026-11-21T18:00 or, with an "
                                   "offset, 2026-11-21T18:00+01:00.");
  }
}

TEST_F(EndTimeText, refusesWhatIsNotAheadOrTooFarAhead) {
  const Date now = utc(2026, 11, 21, 16, 30);
  for (const std::string text :
       {"2026-11-21T17:30", "2026-11-21T17:29:59", "2025-11-21T18:00", "2026-11-21T16:30Z"}) {
    EXPECT_EQ(end(text, now).error(),
              "“" + text + "” is in the past: an end lies ahead, by at most 24 hours.");
  }
  EXPECT_EQ(end("2026-11-22T17:30", now), utc(2026, 11, 22, 16, 30));
  for (const std::string text : {"2026-11-22T17:30:01", "9999-12-31T23:59"}) {
    EXPECT_EQ(end(text, now).error(),
              "“" + text +
                  "” is too far ahead: an end lies at most 24 hours from now, so by tomorrow "
                  "17:30:00.");
  }
}

TEST_F(EndTimeText, refusesATimeThatTheClocksSkip) {
  // On 2026-03-29 the clocks go from 02:00 to 03:00, at 01:00 UTC.
  const Date evening = utc(2026, 3, 28, 19, 0);
  const std::string gap =
      "” does not exist on 2026-03-29: the clock is put forward from 02:00 to 03:00 then.";
  EXPECT_EQ(end("02:30", evening).error(), "“02:30" + gap);
  EXPECT_EQ(end("02:00", evening).error(), "“02:00" + gap) << "the first that is skipped";
  EXPECT_EQ(end("2026-03-29T02:59:59", evening).error(), "“2026-03-29T02:59:59" + gap);
  EXPECT_EQ(end("01:59", evening), utc(2026, 3, 29, 0, 59));
  EXPECT_EQ(end("03:00", evening), utc(2026, 3, 29, 1, 0));
  EXPECT_EQ(end("2026-03-29T02:30+01:00", evening), utc(2026, 3, 29, 1, 30)) << "no doubt there";
  // After the gap the next 02:30 is the next day's.
  EXPECT_EQ(end("02:30", utc(2026, 3, 29, 1, 5)), utc(2026, 3, 30, 0, 30));
  // 20:00 is 23 hours after the 20:00 before.
  EXPECT_EQ(end("20:00", evening), utc(2026, 3, 29, 18, 0));
}

TEST_F(EndTimeText, takesTheFirstOfTwoThatIsStillAhead) {
  // On 2026-10-25 the clocks go from 03:00 back to 02:00, at 01:00 UTC.
  const Date evening = utc(2026, 10, 24, 19, 0);
  EXPECT_EQ(end("02:30", evening), utc(2026, 10, 25, 0, 30));
  EXPECT_EQ(end("2026-10-25T02:30", evening), utc(2026, 10, 25, 0, 30));
  const Date between = utc(2026, 10, 25, 0, 45);
  EXPECT_EQ(end("02:30", between), utc(2026, 10, 25, 1, 30));
  EXPECT_EQ(end("2026-10-25T02:30", between), utc(2026, 10, 25, 1, 30));
  EXPECT_EQ(end("2026-10-25T02:30+02:00", evening), utc(2026, 10, 25, 0, 30));
  EXPECT_EQ(end("2026-10-25T02:30+01:00", evening), utc(2026, 10, 25, 1, 30));
  // The day has 25 hours: the same time of the next day is too far.
  EXPECT_TRUE(end("20:59", evening).error().starts_with("“20:59” is too far ahead: "));
}

TEST_F(EndTimeText, knowsClocksThatMoveByHalfAnHour) {
  live(lordHowe);
  // From 02:00 +10:30 to 02:30 +11:00 on 2026-10-04, at 15:30 UTC the day before.
  const Date evening = utc(2026, 10, 3, 10, 0);
  EXPECT_EQ(end("02:15", evening).error(),
            "“02:15” does not exist on 2026-10-04: the clock is put forward from 02:00 to 02:30 "
            "then.");
  EXPECT_EQ(end("02:30", evening), utc(2026, 10, 3, 15, 30));
}

TEST_F(EndTimeText, agreesWithTheClocksOnEveryMinuteOfAYear) {
  // Whatever the clocks show within the next day, typed as they show it, is that moment or an
  // earlier one that they showed alike.
  const LocalOffset offset = localOffset();
  const Date start = utc(2026, 1, 1, 0, 0);
  for (int minute = 0; minute < 365 * 1'440; minute += 7) {
    const Date moment = start + minute * 60.0;
    const Date now = moment + -3'600.0 * (1 + minute % 20);
    const auto seconds = static_cast<std::time_t>(moment.unixSeconds());
    std::tm local{};
    ::localtime_r(&seconds, &local);
    char text[32];
    std::strftime(text, sizeof text, "%H:%M", &local);
    const auto parsed = parseEndTime(text, now, offset);
    if (!parsed) continue;  // a neighbouring day skips it
    EXPECT_LE(*parsed, moment) << text << " " << minute;
    const auto found = static_cast<std::time_t>(parsed->unixSeconds());
    std::tm shown{};
    ::localtime_r(&found, &shown);
    EXPECT_EQ(shown.tm_hour * 60 + shown.tm_min, local.tm_hour * 60 + local.tm_min);
    EXPECT_GT(*parsed, now);
  }
}

}  // namespace
}  // namespace stillow::client
