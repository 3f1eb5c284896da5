#include "StillowCore/JSONText.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <utility>
#include <vector>

#include "StillowCore/Base64.hpp"
#include "StillowCore/ByteBlock.hpp"
#include "StillowCore/Invariant.hpp"
#include "StillowCore/JSONDocument.hpp"

namespace stillow::core::json {

namespace {

constexpr char hexDigits[] = "0123456789abcdef";

bool isPlain(char c) noexcept {
  return static_cast<unsigned char>(c) >= 0x20 && c != '"' && c != '\\' && c != '/';
}

/// Where a byte is not plain.
ByteBlock escaped(const ByteBlock& block) noexcept {
  return block.isBelow(0x20) | block.equals('"') | block.equals('\\') | block.equals('/');
}

constexpr std::size_t escapeBytesMax = 6;

char* writeEscape(char* out, char c) noexcept {
  *out++ = '\\';
  switch (c) {
    case '"':
    case '\\':
    case '/':
      *out++ = c;
      return out;
    case '\b':
      *out++ = 'b';
      return out;
    case '\t':
      *out++ = 't';
      return out;
    case '\n':
      *out++ = 'n';
      return out;
    case '\f':
      *out++ = 'f';
      return out;
    case '\r':
      *out++ = 'r';
      return out;
    default:
      break;
  }
  for (const char digit : {'u', '0', '0', hexDigits[static_cast<unsigned char>(c) >> 4],
                           hexDigits[static_cast<unsigned char>(c) & 0xF]}) {
    *out++ = digit;
  }
  return out;
}

/// Copies `text` as it stands. False if it needs escapes: what was written is useless then.
[[gnu::always_inline]] inline bool copyPlain(char* to, std::string_view text) noexcept {
  const char* const from = text.data();
  if (text.size() >= ByteBlock::size) {
    // The last block overlaps the one before.
    const std::size_t last = text.size() - ByteBlock::size;
    const ByteBlock lastBlock = ByteBlock::load(from + last);
    ByteBlock found = escaped(lastBlock);
    for (std::size_t at = 0; at < last; at += ByteBlock::size) {
      const ByteBlock block = ByteBlock::load(from + at);
      block.store(to + at);
      found = found | escaped(block);
    }
    lastBlock.store(to + last);
    return !found.holdsAnywhere();
  }
  constexpr std::size_t half = ByteBlock::size / 2;
  if (text.size() >= half) {
    const std::size_t last = text.size() - half;
    std::memcpy(to, from, half);
    std::memcpy(to + last, from + last, half);
    return !escaped(ByteBlock::load(from, from + last)).holdsAnywhere();
  }
  (void)text.copy(to, text.size());
  return std::ranges::all_of(text, isPlain);
}

/// The long way for what stands between the quotes.
void appendEscaped(TextBuffer& out, std::string_view text) {
  for (; !text.empty(); text.remove_prefix(1)) {
    char* to = out.room(escapeBytesMax);
    if (isPlain(text.front())) {
      *to++ = text.front();
    } else {
      to = writeEscape(to, text.front());
    }
    out.endAt(to);
  }
}

/// Behind the quote that stands at `quote`. Out of line, as the memory's growth is: each call would
/// save its registers for what hardly any needs.
[[gnu::noinline]] void appendEscapedString(TextBuffer& out, char* quote, std::string_view text) {
  out.endAt(quote + 1);
  appendEscaped(out, text);
  out.append('"');
}

/// With its first quote at `quote`, where there is room for `text` and both quotes.
[[gnu::always_inline]] inline void appendStringAt(TextBuffer& out, char* quote,
                                                  std::string_view text) {
  *quote = '"';
  if (!copyPlain(quote + 1, text)) return appendEscapedString(out, quote, text);
  quote[text.size() + 1] = '"';
  out.endAt(quote + text.size() + 2);
}

}  // namespace

void appendString(TextBuffer& out, std::string_view text) {
  appendStringAt(out, out.room(text.size() + 2), text);
}

void appendString(TextBuffer& out, char before, std::string_view text) {
  char* const to = out.room(text.size() + 3);
  *to = before;
  appendStringAt(out, to + 1, text);
}

void appendBase64(TextBuffer& out, std::string_view bytes) {
  std::array<char, 4'096> piece;
  constexpr std::size_t bytesPerPiece = piece.size() / 4 * 3;
  (void)out.room(base64Size(bytes.size()) + 2 + endBytes);
  out.append('"');
  for (; !bytes.empty(); bytes.remove_prefix(std::min(bytesPerPiece, bytes.size()))) {
    const char* const end = writeBase64(piece.data(), bytes.substr(0, bytesPerPiece));
    const std::string_view digits(piece.data(), static_cast<std::size_t>(end - piece.data()));
    char* const to = out.room(digits.size());
    if (copyPlain(to, digits)) {
      out.endAt(to + digits.size());
    } else {
      appendEscaped(out, digits);
    }
  }
  out.append('"');
}

void appendString(std::string& out, std::string_view text) {
  TextBuffer buffer(std::move(out));
  appendString(buffer, text);
  out = std::move(buffer).take();
}

void appendInteger(std::string& out, std::int64_t value) {
  TextBuffer buffer(std::move(out));
  appendInteger(buffer, value);
  out = std::move(buffer).take();
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
