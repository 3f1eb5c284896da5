#include "PlatformLinuxText/LocalizedDate.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <memory>

#include <unicode/dtptngen.h>
#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

namespace stillow::platform {

namespace {

/// Year, abbreviated month, day, hour as the locale counts it, minutes of two digits. Not a pair of
/// ICU's styles: those write a German date in figures only.
constexpr const char16_t* skeleton = u"yMMMdjmm";
/// More than any name that the C library knows.
constexpr std::size_t localeNameBytesMax = 64;

/// ICU looks its data up by name, so a name is one or it is nothing.
bool isLocaleName(std::string_view name) noexcept {
  const auto isPlain = [](char sign) {
    return (sign >= 'a' && sign <= 'z') || (sign >= 'A' && sign <= 'Z') ||
           (sign >= '0' && sign <= '9') || sign == '_' || sign == '-' || sign == '.' || sign == '@';
  };
  return !name.empty() && name.size() <= localeNameBytesMax && std::ranges::all_of(name, isPlain);
}

icu::Locale localeOf(std::string_view name) {
  const std::string_view withoutEncoding = name.substr(0, name.find_first_of(".@"));
  // ICU takes "C" for a language that it does not know.
  if (withoutEncoding == "C" || withoutEncoding == "POSIX" || !isLocaleName(name)) {
    return icu::Locale("en", "US", "POSIX");
  }
  return icu::Locale::createCanonical(std::string(name).c_str());
}

icu::UnicodeString unicode(std::string_view text) {
  return icu::UnicodeString::fromUTF8({text.data(), static_cast<int32_t>(text.size())});
}

}  // namespace

std::string localizedDateAndTime(core::Date date, std::string_view locale,
                                 std::string_view timeZone) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Locale chosen = localeOf(locale);
  const std::unique_ptr<icu::DateTimePatternGenerator> generator(
      icu::DateTimePatternGenerator::createInstance(chosen, status));
  // An installation without locale data can still say when.
  if (U_FAILURE(status)) return core::description(date);
  const icu::UnicodeString pattern =
      generator->getBestPattern(skeleton, UDATPG_MATCH_ALL_FIELDS_LENGTH, status);
  icu::SimpleDateFormat format(pattern, chosen, status);
  if (U_FAILURE(status)) return core::description(date);
  format.adoptTimeZone(timeZone.empty() ? icu::TimeZone::detectHostTimeZone()
                                        : icu::TimeZone::createTimeZone(unicode(timeZone)));
  constexpr double millisecondsPerSecond = 1'000;
  icu::UnicodeString formatted;
  (void)format.format(date.unixSeconds() * millisecondsPerSecond, formatted);  // its own argument
  std::string text;
  (void)formatted.toUTF8String(text);  // likewise
  return text;
}

std::string_view localeOfCaller() noexcept {
  for (const char* const name : {"LC_ALL", "LC_TIME", "LANG"}) {
    const char* const value = std::getenv(name);
    if (value != nullptr && *value != '\0') return value;
  }
  return {};
}

}  // namespace stillow::platform
