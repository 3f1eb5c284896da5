#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "StillowCore/JSONText.hpp"

#if !defined(__cpp_lib_to_chars)
#include <clocale>
#if defined(__APPLE__)
#include <xlocale.h>
#endif
#endif

namespace stillow::core::json {

namespace {

constexpr std::string_view notJSON = "The given data was not valid JSON.";
/// 2^53: from here on a double's neighbours are whole numbers.
constexpr double exactIntegerLimit = 9'007'199'254'740'992.0;

/// Shortest digits of a finite number other than zero: `digits` without sign or point, and the
/// power of ten of the first of them.
struct Decimal {
  std::array<char, 24> digits{};
  std::size_t count = 0;
  int exponent = 0;
};

Decimal shortestDecimal(double magnitude) {
  std::array<char, 40> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), magnitude,
                                 std::chars_format::scientific)
                       .ptr;
  Decimal decimal;
  const char* c = text.data();
  for (; c != end && *c != 'e'; ++c) {
    if (*c != '.') decimal.digits[decimal.count++] = *c;
  }
  const char* exponent = c + 1;
  if (*exponent == '+') ++exponent;
  std::from_chars(exponent, end, decimal.exponent);
  return decimal;
}

/// Longer than any text of a double.
constexpr std::size_t doubleTextBytesMax = 40;

/// The digits of a number with a fraction, from 1 up to 2^53, which is what dates are, in exact
/// integers: no table, and no digit that is not needed. Null where the number has to go the long
/// way: a power of two, whose lower neighbour is nearer, and the limits of the interval themselves.
char* writeFraction(char* out, double magnitude) noexcept {
  constexpr unsigned mantissaBits = 52;
  constexpr std::uint64_t hidden = std::uint64_t{1} << mantissaBits;
  const auto bits = std::bit_cast<std::uint64_t>(magnitude);
  const std::uint64_t mantissa = (bits & (hidden - 1)) | hidden;
  const auto power = static_cast<unsigned>(bits >> mantissaBits);  // biased; below 2^53 as promised
  const unsigned fractionBits = 1'023 + mantissaBits - power;
  if (mantissa == hidden) return nullptr;
  out = std::to_chars(out, out + doubleTextBytesMax / 2, mantissa >> fractionBits).ptr;
  *out++ = '.';
  // In halves of the last bit: whatever is nearer than one of them reads back to the number.
  const unsigned unitBits = fractionBits + 1;
  const std::uint64_t unit = std::uint64_t{1} << unitBits;
  std::uint64_t rest = (mantissa << 1) & (unit - 1);
  std::uint64_t reach = 1;
  for (;;) {
    rest *= 10;
    reach *= 10;
    const std::uint64_t digit = rest >> unitBits;
    rest &= unit - 1;
    if (rest == reach || rest + reach == unit) return nullptr;
    const bool mayStay = rest < reach;
    const bool mayRise = rest + reach > unit;
    if (!mayStay && !mayRise) {
      *out++ = static_cast<char>('0' + digit);
      continue;
    }
    if (mayStay && mayRise && 2 * rest == unit) return nullptr;
    const bool rises = mayRise && (!mayStay || 2 * rest > unit);
    if (rises && digit == 9) return nullptr;
    *out++ = static_cast<char>('0' + digit + (rises ? 1 : 0));
    return out;
  }
}

void appendAnyFinite(std::string& out, double value, bool keepsFraction) {
  if (std::signbit(value)) out += '-';
  const double magnitude = std::fabs(value);
  if (magnitude == 0) {
    out += keepsFraction ? "0.0" : "0";
    return;
  }
  const Decimal decimal = shortestDecimal(magnitude);
  const std::string_view digits(decimal.digits.data(), decimal.count);
  if (decimal.exponent < -4 || magnitude > exactIntegerLimit) {
    out += digits[0];
    if (digits.size() > 1) out.append(1, '.').append(digits.substr(1));
    out += 'e';
    out += decimal.exponent < 0 ? '-' : '+';
    const int exponent = std::abs(decimal.exponent);
    if (exponent < 10) out += '0';
    out += std::to_string(exponent);
    return;
  }
  if (decimal.exponent < 0) {
    out.append("0.").append(static_cast<std::size_t>(-decimal.exponent - 1), '0').append(digits);
    return;
  }
  const auto wholeDigits = static_cast<std::size_t>(decimal.exponent) + 1;
  if (digits.size() <= wholeDigits) {
    out.append(digits).append(wholeDigits - digits.size(), '0');
    if (keepsFraction) out += ".0";
  } else {
    out.append(digits.substr(0, wholeDigits)).append(1, '.').append(digits.substr(wholeDigits));
  }
}

void appendFinite(TextBuffer& out, double value, bool keepsFraction) {
  const double magnitude = std::fabs(value);
  if (magnitude >= 1 && magnitude < exactIntegerLimit) {
    char* const begin = out.room(doubleTextBytesMax);
    char* digits = begin;
    if (value < 0) *digits++ = '-';
    const auto whole = static_cast<std::int64_t>(magnitude);
    if (static_cast<double>(whole) == magnitude) {
      out.endAt(std::to_chars(digits, begin + doubleTextBytesMax, whole).ptr);
      if (keepsFraction) out.append(".0");
      return;
    }
    if (char* const end = writeFraction(digits, magnitude)) {
      out.endAt(end);
      return;
    }
  }
  std::string text;
  appendAnyFinite(text, value, keepsFraction);
  out.append(text);
}

bool hasNonZeroDigit(std::string_view digits) noexcept {
  const std::string_view mantissa = digits.substr(0, digits.find_first_of("eE"));
  return mantissa.find_first_of("123456789") != std::string_view::npos;
}

/// The whole part of a decimal text whose value is known to fit; fractions are cut.
std::expected<std::int64_t, std::string> truncatedDecimal(std::string_view text) {
  const bool isNegative = text.starts_with('-');
  if (isNegative) text.remove_prefix(1);
  const std::size_t exponentAt = text.find_first_of("eE");
  std::string_view mantissa = text.substr(0, exponentAt);
  long exponent = 0;
  if (exponentAt != std::string_view::npos) {
    std::string_view digits = text.substr(exponentAt + 1);
    if (digits.starts_with('+')) digits.remove_prefix(1);
    std::from_chars(digits.data(), digits.data() + digits.size(), exponent);
  }
  std::string whole;
  const std::size_t point = std::min(mantissa.find('.'), mantissa.size());
  whole.append(mantissa.substr(0, point));
  std::string_view fraction =
      point < mantissa.size() ? mantissa.substr(point + 1) : std::string_view();
  // The value is below 2^63, so only leading zeros can make this longer than the 19 digits kept.
  for (; exponent > 0 && whole.size() < 4'096; --exponent) {
    whole += fraction.empty() ? '0' : fraction.front();
    if (!fraction.empty()) fraction.remove_prefix(1);
  }
  if (exponent < 0) {
    whole.resize(whole.size() - std::min(whole.size(), static_cast<std::size_t>(-exponent)));
  }
  std::uint64_t magnitude = 0;
  const auto [end, error] = std::from_chars(whole.data(), whole.data() + whole.size(), magnitude);
  if (error != std::errc() || magnitude > static_cast<std::uint64_t>(INT64_MAX)) {
    return std::unexpected(std::string(notJSON));
  }
  const auto value = static_cast<std::int64_t>(magnitude);
  return isNegative ? -value : value;
}

}  // namespace

void appendInteger(TextBuffer& out, std::int64_t value) {
  constexpr std::size_t bytesMax = 24;
  char* const begin = out.room(bytesMax);
  out.endAt(std::to_chars(begin, begin + bytesMax, value).ptr);
}

bool appendDouble(TextBuffer& out, double value) {
  if (!std::isfinite(value)) return false;
  appendFinite(out, value, false);
  return true;
}

std::string description(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  TextBuffer text;
  appendFinite(text, value, true);
  return std::move(text).take();
}

std::expected<double, std::string> parseDouble(std::string_view digits) {
  double value = 0;
#if defined(__cpp_lib_to_chars)
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  const bool isInRange = error == std::errc() && end == digits.data() + digits.size();
#else
  static const locale_t plainLocale = newlocale(LC_ALL_MASK, "C", nullptr);
  const std::string terminated(digits);
  char* end = nullptr;
  value = strtod_l(terminated.c_str(), &end, plainLocale);
  const bool isInRange = end == terminated.c_str() + terminated.size() && std::isfinite(value);
#endif
  if (isInRange && value != 0) return value;
  // What is not zero must not become zero: a tiny number is out of range as a huge one is.
  if (!hasNonZeroDigit(digits)) return digits.starts_with('-') ? -0.0 : 0.0;
  return std::unexpected(std::string(notJSON));
}

std::expected<std::int64_t, std::string> parseInteger(std::string_view digits) {
  std::int64_t integer = 0;
  const char* const last = digits.data() + digits.size();
  const auto [end, error] = std::from_chars(digits.data(), last, integer);
  if (error == std::errc() && end == last) return integer;

  // A fraction or an exponent: the number has to be a whole one all the same.
  if (digits.find_first_of(".eE") == std::string_view::npos) {
    return std::unexpected(std::string(notJSON));
  }
  const auto value = parseDouble(digits);
  if (!value) return std::unexpected(value.error());
  const double magnitude = std::fabs(*value);
  if (!(magnitude < 9'223'372'036'854'775'808.0)) return std::unexpected(std::string(notJSON));
  if (magnitude < exactIntegerLimit) {
    if (std::trunc(*value) != *value) return std::unexpected(std::string(notJSON));
    return static_cast<std::int64_t>(*value);
  }
  return truncatedDecimal(digits);
}

}  // namespace stillow::core::json
