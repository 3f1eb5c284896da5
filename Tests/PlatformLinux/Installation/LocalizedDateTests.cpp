#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

#include "PlatformLinuxText/LocalizedDate.hpp"

namespace stillow::platform {
namespace {

/// 2026-11-15 18:07:00 UTC.
constexpr core::Date evening{816'458'820};
/// 2026-11-15 08:09:00 UTC.
constexpr core::Date morning{816'422'940};

std::string written(core::Date date, std::string_view locale) {
  return localizedDateAndTime(date, locale, "UTC");
}

TEST(LocalizedDate, isWrittenAsTheLocaleHasIt) {
  EXPECT_EQ(written(evening, "en_US.UTF-8"), "Nov 15, 2026, 6:07\u202fPM");
  EXPECT_EQ(written(evening, "de_DE.UTF-8"), "15. Nov. 2026, 18:07");
  EXPECT_EQ(written(evening, "ja_JP.UTF-8"), "2026年11月15日 18:07");
  EXPECT_EQ(written(evening, "C"), "Nov 15, 2026, 6:07\u202fPM");
}

TEST(LocalizedDate, hasNoLeadingZeroInTheHour) {
  EXPECT_EQ(written(morning, "de_DE"), "15. Nov. 2026, 8:09");
  EXPECT_EQ(written(morning, "en_US"), "Nov 15, 2026, 8:09\u202fAM");
}

TEST(LocalizedDate, takesWhatIsNoLocaleForPlainEnglish) {
  for (const std::string name :
       {"", "POSIX", "C.UTF-8", "../../etc/passwd", "en US", "en_US;rm", "\xff"}) {
    EXPECT_EQ(written(evening, name), written(evening, "C")) << name;
  }
  EXPECT_EQ(written(evening, std::string(65, 'x')), written(evening, "C"));
}

TEST(LocalizedDate, doesWithoutTheEncodingAndAModifier) {
  EXPECT_EQ(written(evening, "de_DE.ISO-8859-15@euro"), written(evening, "de_DE"));
}

TEST(LocalizedDate, isInTheTimeZoneThatIsAskedFor) {
  EXPECT_EQ(localizedDateAndTime(evening, "de_DE", "Asia/Tokyo"), "16. Nov. 2026, 3:07");
}

/// Sets a variable for as long as it lives; without a value the variable is unset.
class Environment {
 public:
  explicit Environment(std::string name, const char* value = nullptr) : name_(std::move(name)) {
    const char* const before = std::getenv(name_.c_str());
    if (before != nullptr) before_ = before;
    set(value);
  }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;
  ~Environment() { set(before_ ? before_->c_str() : nullptr); }

 private:
  void set(const char* value) {
    if (value != nullptr) {
      (void)::setenv(name_.c_str(), value, 1);
    } else {
      (void)::unsetenv(name_.c_str());
    }
  }
  std::string name_;
  std::optional<std::string> before_;
};

TEST(LocalizedDate, isForTheCallersLocale) {
  const Environment noAll("LC_ALL");
  const Environment noTime("LC_TIME");
  const Environment noLang("LANG");
  EXPECT_EQ(localeOfCaller(), "");
  const Environment lang("LANG", "ja_JP.UTF-8");
  EXPECT_EQ(localeOfCaller(), "ja_JP.UTF-8");
  const Environment time("LC_TIME", "de_DE.UTF-8");
  EXPECT_EQ(localeOfCaller(), "de_DE.UTF-8");
  const Environment all("LC_ALL", "C");
  EXPECT_EQ(localeOfCaller(), "C");
  const Environment empty("LC_ALL", "");
  EXPECT_EQ(localeOfCaller(), "de_DE.UTF-8") << "an empty one names none";
}

TEST(LocalizedDate, isInTheCallersTimeZone) {
  const Environment zone("TZ", "America/New_York");
  EXPECT_EQ(localizedDateAndTime(evening, "de_DE"), "15. Nov. 2026, 13:07");
}

}  // namespace
}  // namespace stillow::platform
