#include "StillowClient/TextLayout.hpp"

#include <algorithm>
#include <array>
#include <vector>

#include "StillowCore/Text.hpp"

namespace stillow::client {

namespace {

namespace text = core::text;

constexpr std::string_view resetSequence = "\x1b[0m";

struct Range {
  char32_t first;
  char32_t last;
};
/// East Asian Wide and Fullwidth characters (UAX #11) and emoji that terminals draw in two cells,
/// in blocks: an unassigned character in the middle of one is not worth a longer table.
constexpr std::array wideRanges{
    Range{0x1100, 0x115F},   Range{0x231A, 0x231B},   Range{0x2329, 0x232A},
    Range{0x23E9, 0x23EC},   Range{0x25FD, 0x25FE},   Range{0x2614, 0x2615},
    Range{0x2648, 0x2653},   Range{0x26AA, 0x26AB},   Range{0x26BD, 0x26BE},
    Range{0x26C4, 0x26C5},   Range{0x2705, 0x2705},   Range{0x270A, 0x270B},
    Range{0x274C, 0x274C},   Range{0x2753, 0x2755},   Range{0x2795, 0x2797},
    Range{0x2B1B, 0x2B1C},   Range{0x2E80, 0x303E},   Range{0x3041, 0xA4CF},
    Range{0xA960, 0xA97C},   Range{0xAC00, 0xD7A3},   Range{0xF900, 0xFAFF},
    Range{0xFE30, 0xFE6F},   Range{0xFF00, 0xFF60},   Range{0xFFE0, 0xFFE6},
    Range{0x16FE0, 0x18DFF}, Range{0x1AFF0, 0x1B2FF}, Range{0x1F300, 0x1F64F},
    Range{0x1F680, 0x1F6FF}, Range{0x1F900, 0x1FAFF}, Range{0x20000, 0x3FFFD}};

bool isWide(char32_t codePoint) {
  const auto after = std::ranges::upper_bound(wideRanges, codePoint, {}, &Range::first);
  return after != wideRanges.begin() && codePoint <= (after - 1)->last;
}

/// Control characters, and the marks that turn the direction of what follows: with those a name
/// could look like another.
bool steersTerminal(char32_t codePoint) {
  return codePoint < 0x20 || (codePoint >= 0x7F && codePoint < 0xA0) || codePoint == 0x061C ||
         codePoint == 0x200E || codePoint == 0x200F ||
         (codePoint >= 0x2028 && codePoint <= 0x202E) ||
         (codePoint >= 0x2066 && codePoint <= 0x2069);
}

/// Where the character or the colour sequence at `offset` ends, and the cells that it takes.
struct Cell {
  std::size_t end;
  std::size_t width;
};
Cell cellAt(std::string_view line, std::size_t offset) {
  if (line.substr(offset).starts_with("\x1b[")) {
    const std::size_t end = line.find('m', offset);
    return {end == std::string_view::npos ? line.size() : end + 1, 0};
  }
  const text::CodePoint first = text::codePointAt(line, offset);
  std::size_t end = offset + first.length;
  while (end < line.size() && line[end] != '\x1b' && !text::isCharacterBoundary(line, end)) {
    end += text::codePointAt(line, end).length;
  }
  return {end, first.value < 0x20 ? 0U : isWide(first.value) ? 2U : 1U};
}

/// One line without line ends inside, appended to `out` in pieces.
class LineBreaker {
 public:
  LineBreaker(std::string& out, std::size_t columns, std::size_t indent)
      : out_(out), columns_(columns), indent_(columns > indent + 1 ? indent : 0) {}

  void begin(bool isFirst) {
    used_ = isFirst ? 0 : indent_;
    if (!isFirst) out_.append(indent_, ' ');
    isEmpty_ = true;
  }
  void addWord(std::string_view word, std::size_t blanks) {
    const std::size_t width = displayWidth(word);
    // Blanks at the beginning are an indentation that was meant.
    if (!isEmpty_ && used_ + blanks + width > columns_) {
      newLine();
      blanks = 0;
    }
    out_.append(blanks, ' ');
    used_ += blanks;
    for (std::size_t at = 0; at < word.size();) {
      const Cell cell = cellAt(word, at);
      if (used_ + cell.width > columns_ && used_ > indent_) newLine();
      out_.append(word.substr(at, cell.end - at));
      used_ += cell.width;
      at = cell.end;
    }
    isEmpty_ = false;
  }

 private:
  void newLine() {
    out_ += '\n';
    out_.append(indent_, ' ');
    used_ = indent_;
  }

  std::string& out_;
  std::size_t columns_;
  std::size_t indent_;
  std::size_t used_ = 0;
  bool isEmpty_ = true;
};

void wrapLine(LineBreaker& breaker, std::string_view line) {
  for (std::size_t at = 0; at < line.size();) {
    const std::size_t word = std::min(line.find_first_not_of(' ', at), line.size());
    if (word == line.size()) break;
    const std::size_t end = std::min(line.find(' ', word), line.size());
    breaker.addWord(line.substr(word, end - word), word - at);
    at = end;
  }
}

}  // namespace

std::string toned(std::string words, Tone tone, const TextStyle& style) {
  if (!style.hasColour) return words;
  constexpr std::array sequences{"\x1b[1m", "\x1b[32m", "\x1b[33m", "\x1b[31m", "\x1b[2m"};
  return sequences[static_cast<std::size_t>(tone)] + std::move(words) + std::string(resetSequence);
}

bool canRewrite(bool isTerminal, const char* term) noexcept {
  return isTerminal && term != nullptr && *term != '\0' && std::string_view(term) != "dumb";
}

bool wantsColour(bool isTerminal, const char* noColor, const char* term) noexcept {
  return canRewrite(isTerminal, term) && (noColor == nullptr || *noColor == '\0');
}

std::string printable(std::string_view words) {
  std::string result;
  result.reserve(words.size());
  for (std::size_t at = 0; at < words.size();) {
    const text::CodePoint next = text::codePointAt(words, at);
    if (!next.isWellFormed || steersTerminal(next.value)) {
      text::appendUTF8(result, U'\uFFFD');
    } else {
      result.append(words.substr(at, next.length));
    }
    at += next.length;
  }
  return result;
}

bool isPrintable(std::string_view words) { return printable(words) == words; }

std::string quoted(std::string_view words) { return "“" + printable(words) + "”"; }

std::size_t displayWidth(std::string_view words) {
  std::size_t width = 0;
  for (std::size_t at = 0; at < words.size();) {
    const Cell cell = cellAt(words, at);
    width += cell.width;
    at = cell.end;
  }
  return width;
}

std::string wrapped(std::string_view words, std::size_t columns, std::size_t indent) {
  if (columns == 0) return std::string(words);
  std::string out;
  LineBreaker breaker(out, columns, indent);
  bool isFirst = true;
  while (true) {
    const std::size_t end = words.find('\n');
    breaker.begin(isFirst);
    wrapLine(breaker, words.substr(0, end));
    if (end == std::string_view::npos) return out;
    out += '\n';
    words.remove_prefix(end + 1);
    isFirst = false;
  }
}

std::string shortened(std::string_view words, std::size_t columns) {
  if (displayWidth(words) <= columns) return std::string(words);
  std::string result;
  std::size_t used = 1;  // the ellipsis
  for (std::size_t at = 0; at < words.size();) {
    const Cell cell = cellAt(words, at);
    if (used + cell.width > columns) break;
    result.append(words.substr(at, cell.end - at));
    used += cell.width;
    at = cell.end;
  }
  return columns == 0 ? "" : result + "…";
}

std::string counted(std::size_t count, std::string_view singular) {
  return std::to_string(count) + " " + std::string(singular) + (count == 1 ? "" : "s");
}

}  // namespace stillow::client
