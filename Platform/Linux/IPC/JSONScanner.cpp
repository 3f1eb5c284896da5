#include "PlatformLinuxIPC/JSONScanner.hpp"

#include <bitset>

#include "StillowCore/JSONDocument.hpp"

namespace stillow::platform {

namespace {

constexpr std::size_t nestingMax = core::JSONDocument::nestingMax;

bool isBlank(char c) noexcept { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }
bool isContinuation(unsigned char c) noexcept { return (c & 0xC0U) == 0x80U; }

}  // namespace

void JSONScanner::skipBlanks() noexcept {
  while (at_ < source_.size() && isBlank(source_[at_])) ++at_;
}

bool JSONScanner::consume(char expected) noexcept {
  if (at_ == source_.size() || source_[at_] != expected) return false;
  ++at_;
  return true;
}

bool JSONScanner::fail(Failure failure) noexcept {
  if (!failure_) failure_ = failure;
  return false;
}

bool JSONScanner::countValue() noexcept {
  if (valuesLeft_ == 0) return fail(Failure::tooManyValues);
  --valuesLeft_;
  return true;
}

std::optional<JSONScanner::Kind> JSONScanner::peek() {
  skipBlanks();
  if (at_ == source_.size()) return std::nullopt;
  switch (source_[at_]) {
    case '{':
      return Kind::object;
    case '[':
      return Kind::array;
    case '"':
      return Kind::string;
    case 't':
    case 'f':
      return Kind::boolean;
    case 'n':
      return Kind::null;
    default:
      break;
  }
  if (source_[at_] == '-' || isDigit(source_[at_])) return Kind::number;
  return std::nullopt;
}

std::optional<JSONScanner::Value> JSONScanner::value() {
  const auto kind = peek();
  if (failure_ || !kind) {
    fail();
    return std::nullopt;
  }
  const std::size_t begin = at_;
  std::bitset<nestingMax> isObject;  // of each container that is open
  std::size_t open = 0;
  const auto scanKey = [&] {
    return countValue() && string() && (skipBlanks(), consume(':') || fail());
  };

  for (;;) {
    // A value begins here.
    skipBlanks();
    if (!countValue()) return std::nullopt;
    bool isComplete = true;
    if (consume('{') || consume('[')) {
      if (depth_ + open == nestingMax) {
        fail();
        return std::nullopt;
      }
      isObject[open] = source_[at_ - 1] == '{';
      skipBlanks();
      isComplete = consume(isObject[open] ? '}' : ']');
      if (!isComplete) {
        if (isObject[open] && !scanKey()) return std::nullopt;
        ++open;
      }
    } else if (!scalar()) {
      return std::nullopt;
    }
    if (!isComplete) continue;

    // A value ended here: so may any number of containers, or another element begins.
    bool hasNext = false;
    while (open > 0 && !hasNext) {
      const bool inObject = isObject[open - 1];
      skipBlanks();
      if (consume(',')) {
        hasNext = true;
        skipBlanks();
        if (inObject && !scanKey()) return std::nullopt;
      } else if (consume(inObject ? '}' : ']')) {
        --open;
      } else {
        fail();
        return std::nullopt;
      }
    }
    if (!hasNext) break;
  }
  return Value{*kind, source_.substr(begin, at_ - begin)};
}

bool JSONScanner::enter(char bracket) {
  skipBlanks();
  if (failure_ || !countValue()) return false;
  if (depth_ == nestingMax || !consume(bracket)) return fail();
  ++depth_;
  isAtFirst_ = true;
  return true;
}

bool JSONScanner::next(char closingBracket) {
  if (failure_) return false;
  skipBlanks();
  const bool isFirst = isAtFirst_;
  isAtFirst_ = false;
  if (consume(closingBracket)) {
    --depth_;
    return false;
  }
  if (!isFirst && !consume(',')) return fail();
  return true;
}

std::optional<JSONScanner::Value> JSONScanner::key() {
  skipBlanks();
  const std::size_t begin = at_;
  if (failure_ || !countValue() || !string()) return std::nullopt;
  const std::size_t end = at_;
  skipBlanks();
  if (!consume(':')) {
    fail();
    return std::nullopt;
  }
  return Value{Kind::string, source_.substr(begin, end - begin)};
}

bool JSONScanner::atEnd() {
  skipBlanks();
  return !failure_ && at_ == source_.size();
}

// ---- scalars

bool JSONScanner::scalar() noexcept {
  if (at_ == source_.size()) return fail();
  switch (source_[at_]) {
    case '"':
      return string();
    case 't':
      return literal("true");
    case 'f':
      return literal("false");
    case 'n':
      return literal("null");
    default:
      return number();
  }
}

bool JSONScanner::literal(std::string_view word) noexcept {
  if (source_.substr(at_, word.size()) != word) return fail();
  at_ += word.size();
  return true;
}

bool JSONScanner::digits() noexcept {
  const std::size_t begin = at_;
  while (at_ < source_.size() && isDigit(source_[at_])) ++at_;
  return at_ > begin || fail();
}

bool JSONScanner::number() noexcept {
  (void)consume('-');
  if (!consume('0') && !digits()) return false;
  if (consume('.') && !digits()) return false;
  if (consume('e') || consume('E')) {
    if (!consume('+')) (void)consume('-');
    return digits();
  }
  return true;
}

bool JSONScanner::string() noexcept {
  if (!consume('"')) return fail();
  while (at_ < source_.size()) {
    const auto c = static_cast<unsigned char>(source_[at_]);
    if (c == '"') {
      ++at_;
      return true;
    }
    if (c < 0x20) return fail();
    if (c < 0x80 && c != '\\') {
      ++at_;
    } else if (!(c == '\\' ? escape() : multibyte())) {
      return false;
    }
  }
  return fail();
}

bool JSONScanner::hexDigits(unsigned& value) noexcept {
  if (source_.size() - at_ < 4) return fail();
  value = 0;
  for (const std::size_t end = at_ + 4; at_ < end; ++at_) {
    const char c = source_[at_];
    unsigned digit = 0;
    if (isDigit(c)) {
      digit = static_cast<unsigned>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      digit = static_cast<unsigned>(c - 'a') + 10;
    } else if (c >= 'A' && c <= 'F') {
      digit = static_cast<unsigned>(c - 'A') + 10;
    } else {
      return fail();
    }
    value = value * 16 + digit;
  }
  return true;
}

bool JSONScanner::escape() noexcept {
  ++at_;
  if (at_ == source_.size()) return fail();
  const char kind = source_[at_++];
  if (kind != 'u')
    return std::string_view("\"\\/bfnrt").find(kind) != std::string_view::npos || fail();
  unsigned unit = 0;
  if (!hexDigits(unit)) return false;
  if (unit < 0xD800 || unit > 0xDFFF) return true;
  // Half of a pair stands for nothing.
  if (unit > 0xDBFF || !consume('\\') || !consume('u') || !hexDigits(unit)) return fail();
  return (unit >= 0xDC00 && unit <= 0xDFFF) || fail();
}

bool JSONScanner::multibyte() noexcept {
  const auto byte = [this](std::size_t offset) {
    return at_ + offset < source_.size() ? static_cast<unsigned char>(source_[at_ + offset]) : 0U;
  };
  const unsigned first = byte(0);
  const unsigned second = byte(1);
  std::size_t length = 0;
  if (first >= 0xC2 && first <= 0xDF) {
    length = 2;
  } else if (first >= 0xE0 && first <= 0xEF) {
    // Neither overlong nor a surrogate.
    if ((first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F)) return fail();
    length = 3;
  } else if (first >= 0xF0 && first <= 0xF4) {
    // Neither overlong nor past U+10FFFF.
    if ((first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F)) return fail();
    length = 4;
  } else {
    return fail();
  }
  for (std::size_t offset = 1; offset < length; ++offset) {
    if (!isContinuation(static_cast<unsigned char>(byte(offset)))) return fail();
  }
  at_ += length;
  return true;
}

}  // namespace stillow::platform
