#include "StillowCore/JSONText.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <utility>
#include <vector>

#include "StillowCore/Invariant.hpp"
#include "StillowCore/JSONDocument.hpp"

#if !defined(__cpp_lib_to_chars)
#include <clocale>
#if defined(__APPLE__)
#include <xlocale.h>
#endif
#endif

namespace stillow::core::json {

namespace {

constexpr char hexDigits[] = "0123456789abcdef";
constexpr std::string_view notJSON = "The given data was not valid JSON.";
/// 2^53: from here on a double's neighbours are whole numbers.
constexpr double exactIntegerLimit = 9'007'199'254'740'992.0;

bool isPlain(char c) noexcept {
  return static_cast<unsigned char>(c) >= 0x20 && c != '"' && c != '\\' && c != '/';
}

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

void appendFinite(std::string& out, double value, bool keepsFraction) {
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

void appendString(std::string& out, std::string_view text) {
  out += '"';
  while (!text.empty()) {
    const auto plainEnd = std::find_if_not(text.begin(), text.end(), isPlain);
    const auto plainCount = static_cast<std::size_t>(plainEnd - text.begin());
    out.append(text.substr(0, plainCount));
    text.remove_prefix(plainCount);
    if (text.empty()) break;
    const char c = text.front();
    text.remove_prefix(1);
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '/':
        out += "\\/";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        out += "\\u00";
        out += hexDigits[static_cast<unsigned char>(c) >> 4];
        out += hexDigits[static_cast<unsigned char>(c) & 0xF];
    }
  }
  out += '"';
}

void appendInteger(std::string& out, std::int64_t value) {
  std::array<char, 24> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
  out.append(text.data(), end);
}

bool appendDouble(std::string& out, double value) {
  if (!std::isfinite(value)) return false;
  appendFinite(out, value, false);
  return true;
}

std::string description(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  std::string text;
  appendFinite(text, value, true);
  return text;
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
  // What is not zero must not become zero: a tiny number is out of range as a huge one is.
  if (!hasNonZeroDigit(digits)) return digits.starts_with('-') ? -0.0 : 0.0;
  if (!isInRange || value == 0) return std::unexpected(std::string(notJSON));
  return value;
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

namespace {

constexpr std::string_view base64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::uint8_t, 256> base64Values = [] {
  std::array<std::uint8_t, 256> values{};
  values.fill(0xFF);
  for (std::size_t i = 0; i < base64Alphabet.size(); ++i) {
    values[static_cast<unsigned char>(base64Alphabet[i])] = static_cast<std::uint8_t>(i);
  }
  return values;
}();

}  // namespace

std::string base64Encoded(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4, '=');
  char* out = text.data();
  const auto byte = [&](std::size_t i) -> std::uint32_t {
    return i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0U;
  };
  for (std::size_t i = 0; i < bytes.size(); i += 3, out += 4) {
    const std::uint32_t group = byte(i) << 16 | byte(i + 1) << 8 | byte(i + 2);
    out[0] = base64Alphabet[group >> 18];
    out[1] = base64Alphabet[group >> 12 & 63];
    if (i + 1 < bytes.size()) out[2] = base64Alphabet[group >> 6 & 63];
    if (i + 2 < bytes.size()) out[3] = base64Alphabet[group & 63];
  }
  return text;
}

std::expected<std::string, std::string> base64Decoded(std::string_view text) {
  const auto refused = [] {
    return std::unexpected(std::string("Encountered Data is not valid Base64."));
  };
  // A whole group of padding behind complete bytes adds nothing; the platform's decoder takes it.
  if (text.size() > 4 && text.ends_with("====") && text[text.size() - 5] != '=') {
    text.remove_suffix(4);
  }
  if (text.size() % 4 != 0) return refused();
  if (text.empty()) return std::string();
  const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  std::string bytes(text.size() / 4 * 3 - padding, '\0');
  std::size_t written = 0;
  for (std::size_t i = 0; i < text.size(); i += 4) {
    std::uint32_t group = 0;
    const bool isLast = i + 4 == text.size();
    for (std::size_t j = 0; j < 4; ++j) {
      const bool isPadding = isLast && j >= 4 - padding;
      const std::uint8_t value =
          isPadding ? std::uint8_t{0} : base64Values[static_cast<unsigned char>(text[i + j])];
      if (value == 0xFF) return refused();
      group = group << 6 | value;
    }
    for (unsigned shift = 16; written < bytes.size(); shift -= 8) {
      bytes[written++] = static_cast<char>(group >> shift & 0xFF);
      if (shift == 0) break;
    }
  }
  return bytes;
}

namespace {

void appendPretty(std::string& out, const JSONDocument& document, std::uint32_t index,
                  std::size_t level) {
  using Kind = JSONDocument::Kind;
  const auto& node = document.node(index);
  const auto newLine = [&](std::size_t depth) { out.append(1, '\n').append(2 * depth, ' '); };
  switch (node.kind) {
    case Kind::null:
      out += "null";
      return;
    case Kind::boolean:
      out += node.truth ? "true" : "false";
      return;
    case Kind::number:
      out += node.text;
      return;
    case Kind::string:
      appendString(out, node.text);
      return;
    case Kind::array: {
      out += '[';
      if (node.count == 0) out += '\n';
      for (std::uint32_t child = index + 1; child < node.end; child = document.node(child).end) {
        if (child != index + 1) out += ',';
        newLine(level + 1);
        appendPretty(out, document, child, level + 1);
      }
      newLine(level);
      out += ']';
      return;
    }
    case Kind::object: {
      std::vector<std::uint32_t> keys;
      for (std::uint32_t key = index + 1; key < node.end; key = document.node(key + 1).end) {
        keys.push_back(key);
      }
      // Duplicates keep their order: their indices rise with it.
      std::ranges::sort(keys, {},
                        [&](std::uint32_t key) { return std::pair(document.node(key).text, key); });
      out += '{';
      if (keys.empty()) out += '\n';
      for (const std::uint32_t key : keys) {
        if (key != keys.front()) out += ',';
        newLine(level + 1);
        appendString(out, document.node(key).text);
        out += " : ";
        appendPretty(out, document, key + 1, level + 1);
      }
      newLine(level);
      out += '}';
      return;
    }
  }
}

}  // namespace

std::string prettyPrinted(std::string_view json) {
  const auto document = JSONDocument::parse(json);
  require(document.has_value(), "only valid JSON is pretty-printed");
  std::string out;
  appendPretty(out, *document, JSONDocument::root(), 0);
  return out;
}

}  // namespace stillow::core::json
