#include "StillowCore/JSONDocument.hpp"

#include <algorithm>
#include <array>
#include <optional>

#include "StillowCore/ByteBlock.hpp"
#include "StillowCore/Text.hpp"

namespace stillow::core {

/// Reads the text from left to right, without recursion: what is open is a list of its own.
class JSONDocumentParser {
 public:
  explicit JSONDocumentParser(std::string_view source)
      : begin_(source.data()), at_(begin_), end_(begin_ + source.size()) {
    document_.source_ = begin_;
    // Enough for short texts and for lists of names. More is made as it is needed.
    constexpr std::size_t bytesPerNode = 16;
    constexpr std::size_t nodesMax = 65'536;
    document_.nodes_.reserve(std::min(source.size() / bytesPerNode + bytesPerNode, nodesMax));
  }

  std::expected<JSONDocument, JSONDocument::ParseError> parse() {
    if (!parseText()) {
      return std::unexpected(
          JSONDocument::ParseError{static_cast<std::size_t>(at_ - begin_), reason_});
    }
    return std::move(document_);
  }

 private:
  using Kind = JSONDocument::Kind;
  using Stored = JSONDocument::Stored;

  bool parseText() {
    do {
      // Here a value begins. A container that is not empty is only opened: its first value is next.
      bool isComplete = true;
      if (!parseValue(isComplete)) return false;
      if (isComplete && !endValue()) return false;
    } while (depth_ > 0);
    skipBlanks();
    return at_ == end_ || fail("more than one value");
  }

  [[gnu::always_inline]] bool parseValue(bool& isComplete) {
    skipBlanks();
    if (at_ == end_) return fail("a value is missing");
    switch (*at_) {
      case '"':
        return parseString();
      case '{':
        return openContainer(Kind::object, '}', isComplete) && (isComplete || parseKey());
      case '[':
        return openContainer(Kind::array, ']', isComplete);
      case 't':
        return parseWord("true", {.kind = Kind::boolean, .truth = true});
      case 'f':
        return parseWord("false", {.kind = Kind::boolean});
      case 'n':
        return parseWord("null", {.kind = Kind::null});
      default:
        return parseNumber();
    }
  }

  /// Behind a value: so may any number of containers end, or another value begin.
  [[gnu::always_inline]] bool endValue() {
    while (depth_ > 0) {
      Stored& container = document_.nodes_[open_[depth_ - 1]];
      const bool isObject = container.kind == Kind::object;
      ++container.size;
      skipBlanks();
      if (consume(',')) return !isObject || parseKey();
      if (!consume(isObject ? '}' : ']')) return fail("a comma or an end is missing");
      container.end = static_cast<std::uint32_t>(document_.nodes_.size());
      --depth_;
    }
    return true;
  }

  bool openContainer(Kind kind, char closing, bool& isComplete) {
    if (depth_ == JSONDocument::nestingMax) return fail("nested too deeply");
    ++at_;
    open_[depth_] = static_cast<std::uint32_t>(document_.nodes_.size());
    add({.kind = kind});
    skipBlanks();
    isComplete = consume(closing);
    if (!isComplete) ++depth_;
    return true;
  }

  bool parseKey() {
    skipBlanks();
    if (at_ == end_ || *at_ != '"') return fail("a key is missing");
    if (!parseString()) return false;
    skipBlanks();
    return consume(':') || fail("a colon is missing");
  }

  bool parseWord(std::string_view word, const Stored& node) {
    if (!std::string_view(at_, end_).starts_with(word)) return fail("no such value");
    at_ += word.size();
    add(node);
    return true;
  }

  bool parseNumber() {
    const char* const begin = at_;
    (void)consume('-');
    if (!consume('0') && !skipDigits()) return fail("no such value");
    if (consume('.') && !skipDigits()) return fail("a digit is missing");
    if (consume('e') || consume('E')) {
      if (!consume('+')) (void)consume('-');
      if (!skipDigits()) return fail("a digit is missing");
    }
    add({.kind = Kind::number, .begin = offsetOf(begin), .size = distance(begin, at_)});
    return true;
  }

  [[gnu::always_inline]] bool parseString() {
    const char* const begin = ++at_;
    // Most strings are short and need no second look: this much of skipPlain, in place.
    while (distance(at_, end_) >= ByteBlock::size) {
      const ByteBlock found = notPlain(ByteBlock::load(at_));
      if (found.holdsAnywhere()) {
        at_ += found.firstPlace();
        break;
      }
      at_ += ByteBlock::size;
    }
    if (at_ == end_ || *at_ != '"') return parseOtherString(begin);
    addString(begin);
    return true;
  }

  /// A string with escapes or beyond ASCII, or at the end of the text. `begin` is behind the quote,
  /// and up to here the characters are plain.
  [[gnu::noinline]] bool parseOtherString(const char* begin) {
    if (!skipPlain()) return false;
    if (*at_ == '\\') return parseEscapedString(begin);
    addString(begin);
    return true;
  }

  /// `begin` is behind the quote; an escape stands here.
  bool parseEscapedString(const char* begin) {
    std::vector<char>& unescaped = document_.unescaped_;
    const auto first = static_cast<std::uint32_t>(unescaped.size());
    for (;;) {
      unescaped.insert(unescaped.end(), begin, at_);
      if (*at_ == '"') break;
      ++at_;
      if (!parseEscape()) return false;
      begin = at_;
      if (!skipPlain()) return false;
    }
    ++at_;
    add({.kind = Kind::string,
         .isUnescaped = true,
         .begin = first,
         .size = static_cast<std::uint32_t>(unescaped.size()) - first});
    return true;
  }

  static ByteBlock notPlain(const ByteBlock& block) noexcept {
    return block.isBelow(0x20) | block.equals('"') | block.equals('\\') | block.isAbove(0x7F);
  }

  /// Up to a quote or a backslash; false if the text ends or is none before one comes.
  bool skipPlain() {
    for (;;) {
      if (distance(at_, end_) >= ByteBlock::size) {
        const ByteBlock found = notPlain(ByteBlock::load(at_));
        if (!found.holdsAnywhere()) {
          at_ += ByteBlock::size;
          continue;
        }
        at_ += found.firstPlace();
      } else {
        while (at_ != end_ && text::isASCII(*at_) && *at_ >= 0x20 && *at_ != '"' && *at_ != '\\') {
          ++at_;
        }
        if (at_ == end_) return fail("a string has no end");
      }
      if (*at_ == '"' || *at_ == '\\') return true;
      if (text::isASCII(*at_)) return fail("a control character");
      while (at_ != end_ && !text::isASCII(*at_)) {
        const auto next = text::codePointAt({at_, end_}, 0);
        if (!next.isWellFormed) return fail("not UTF-8");
        at_ += next.length;
      }
    }
  }

  /// Behind the backslash.
  bool parseEscape() {
    if (at_ == end_) return fail("a string has no end");
    static constexpr std::string_view letters = "\"\\/bfnrt";
    static constexpr std::string_view signs = "\"\\/\b\f\n\r\t";
    const char letter = *at_++;
    if (const std::size_t which = letters.find(letter); which != std::string_view::npos) {
      document_.unescaped_.push_back(signs[which]);
      return true;
    }
    --at_;
    if (!consume('u')) return fail("no such escape");
    auto codePoint = parseHexDigits();
    if (!codePoint) return fail("a digit is missing");
    constexpr char32_t firstHigh = 0xD800;
    constexpr char32_t firstLow = 0xDC00;
    constexpr char32_t behindLow = 0xE000;
    if (*codePoint >= firstHigh && *codePoint < behindLow) {
      const bool isHigh = *codePoint < firstLow && consume('\\') && consume('u');
      const auto low = isHigh ? parseHexDigits() : std::nullopt;
      if (!low || *low < firstLow || *low >= behindLow) return fail("half a character");
      codePoint = 0x10000 + ((*codePoint - firstHigh) << 10) + (*low - firstLow);
    }
    std::string character;
    text::appendUTF8(character, *codePoint);
    document_.unescaped_.insert(document_.unescaped_.end(), character.begin(), character.end());
    return true;
  }

  std::optional<char32_t> parseHexDigits() {
    char32_t value = 0;
    for (int i = 0; i < 4; ++i) {
      if (at_ == end_) return std::nullopt;
      const char c = *at_;
      if (c >= '0' && c <= '9') {
        value = value << 4 | static_cast<char32_t>(c - '0');
      } else if (const char lower = text::lowercasedASCII(c); lower >= 'a' && lower <= 'f') {
        value = value << 4 | static_cast<char32_t>(lower - 'a' + 10);
      } else {
        return std::nullopt;
      }
      ++at_;
    }
    return value;
  }

  /// At least one.
  bool skipDigits() noexcept {
    const char* const begin = at_;
    while (at_ != end_ && *at_ >= '0' && *at_ <= '9') ++at_;
    return at_ != begin;
  }
  void skipBlanks() noexcept {
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\t' || *at_ == '\n' || *at_ == '\r')) ++at_;
  }
  bool consume(char expected) noexcept {
    if (at_ == end_ || *at_ != expected) return false;
    ++at_;
    return true;
  }
  bool fail(const char* reason) noexcept {
    reason_ = reason;
    return false;
  }
  /// Up to the quote that stands here.
  void addString(const char* begin) {
    add({.kind = Kind::string, .begin = offsetOf(begin), .size = distance(begin, at_)});
    ++at_;
  }
  void add(Stored node) {
    node.end = static_cast<std::uint32_t>(document_.nodes_.size() + 1);
    document_.nodes_.push_back(node);
  }
  [[nodiscard]] std::uint32_t offsetOf(const char* place) const noexcept {
    return distance(begin_, place);
  }
  static std::uint32_t distance(const char* from, const char* to) noexcept {
    return static_cast<std::uint32_t>(to - from);
  }

  const char* begin_;
  const char* at_;
  const char* end_;
  const char* reason_ = "";
  /// The containers that are open, and how many.
  std::array<std::uint32_t, JSONDocument::nestingMax> open_;
  std::size_t depth_ = 0;
  JSONDocument document_;
};

std::expected<JSONDocument, JSONDocument::ParseError> JSONDocument::parse(std::string_view bytes) {
  // Places and indices are 32 bits wide; every node takes at least one byte of text.
  if (bytes.size() >= UINT32_MAX) return std::unexpected(ParseError{bytes.size(), "text too long"});
  return JSONDocumentParser(bytes).parse();
}

}  // namespace stillow::core
