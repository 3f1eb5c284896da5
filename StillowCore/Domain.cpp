#include "StillowCore/Domain.hpp"

#include <array>
#include <cstdint>

#include "StillowCore/ByteBlock.hpp"
#include "StillowCore/Text.hpp"

namespace stillow::core {

namespace {

constexpr std::string_view forbiddenSigns = R"(/\?#@:[]"'<>,;=&%+!*())";
static_assert(forbiddenSigns.size() == 22);

/// U+037E, the Greek question mark, is canonically the same character as ";".
constexpr char32_t greekQuestionMark = 0x37E;

constexpr bool isASCIIWhitespace(char c) noexcept { return (c >= '\t' && c <= '\r') || c == ' '; }

/// What an ASCII byte means to the check, so that the common name takes one look per byte.
enum class Role : std::uint8_t { plain, dot, refused };

constexpr std::array<Role, 128> roles = [] {
  std::array<Role, 128> table{};
  for (std::size_t i = 0; i < table.size(); ++i) {
    const char c = static_cast<char>(i);
    if (isASCIIWhitespace(c) || forbiddenSigns.find(c) != std::string_view::npos) {
      table[i] = Role::refused;
    }
  }
  table['.'] = Role::dot;
  return table;
}();

constexpr Role roleOf(char c) noexcept { return roles[static_cast<unsigned char>(c)]; }

bool isASCIIName(std::string_view name) noexcept {
  bool isLabelEmpty = true;
  for (const char c : name) {
    switch (roleOf(c)) {
      case Role::plain:
        isLabelEmpty = false;
        break;
      case Role::dot:
        if (isLabelEmpty) return false;
        isLabelEmpty = true;
        break;
      case Role::refused:
        return false;
    }
  }
  return !isLabelEmpty;
}

/// The same rule for well-formed text beyond ASCII, where a sign with a combining mark is another
/// character, and a character is white space by its first code point.
bool isUnicodeName(std::string_view name) {
  bool isLabelEmpty = true;
  for (std::size_t at = 0; at < name.size();) {
    const auto next = text::codePointAt(name, at);
    const bool isASCII = next.value < 0x80;
    const Role role = isASCII ? roleOf(name[at]) : Role::plain;
    const bool isWhitespace =
        isASCII ? isASCIIWhitespace(name[at]) : text::platform::isWhitespace(next.value);
    if (isWhitespace && text::isCharacterBoundary(name, at)) return false;
    const auto isWhole = [&] {
      return text::isCharacterBoundary(name, at) &&
             text::isCharacterBoundary(name, at + next.length);
    };
    if (role == Role::dot && isWhole()) {
      if (isLabelEmpty) return false;
      isLabelEmpty = true;
    } else {
      if ((role == Role::refused || next.value == greekQuestionMark) && isWhole()) return false;
      isLabelEmpty = false;
    }
    at += next.length;
  }
  return !isLabelEmpty;
}

/// Where `block` holds what is in no common name, or a dot right before another one: `behind` is
/// the same bytes from the second on.
inline ByteBlock uncommon(const ByteBlock& block, const ByteBlock& behind) noexcept {
  return ~(block.isWithin('a', 'z') | block.isWithin('0', '9') | block.isWithin('-', '.')) |
         (block.equals('.') & behind.equals('.'));
}

/// True for most names there are: lower-case letters, digits, hyphens and dots that part them.
/// Those are domains as they stand. The rest, and what is very short, is to be looked at closely.
bool isCommonName(std::string_view name) noexcept {
  constexpr std::size_t half = ByteBlock::size / 2;
  if (name.size() <= half || name.front() == '.' || name.back() == '.') return false;
  // Each byte but the last together with the one behind it.
  const char* const from = name.data();
  const std::size_t pairCount = name.size() - 1;
  const auto uncommonAt = [&](std::size_t at) {
    return uncommon(ByteBlock::load(from + at), ByteBlock::load(from + at + 1));
  };
  const char last = name.back();
  const bool isLastCommon =
      (last >= 'a' && last <= 'z') || (last >= '0' && last <= '9') || last == '-';
  if (pairCount < ByteBlock::size) {
    const std::size_t second = pairCount - half;
    return isLastCommon && !uncommon(ByteBlock::load(from, from + second),
                                     ByteBlock::load(from + 1, from + second + 1))
                                .holdsAnywhere();
  }
  const std::size_t lastBlock = pairCount - ByteBlock::size;
  ByteBlock found = uncommonAt(lastBlock);
  for (std::size_t at = 0; at < lastBlock; at += ByteBlock::size) found = found | uncommonAt(at);
  return isLastCommon && !found.holdsAnywhere();
}

}  // namespace

std::optional<Domain> Domain::make(std::string_view name) {
  if (isCommonName(name)) return std::optional<Domain>(std::in_place, Passed{}, name);
  if (text::isASCII(name)) {
    if (name.ends_with('.')) name.remove_suffix(1);
    if (!isASCIIName(name)) return std::nullopt;
    return Domain(Passed{}, text::lowercased(name));
  }
  if (!text::isValidUTF8(name)) return std::nullopt;
  std::string lower = text::lowercased(name);
  if (text::hasSuffix(lower, '.')) lower.pop_back();
  // Lower-casing can leave only ASCII: U+212A becomes "k".
  if (text::isASCII(lower) ? !isASCIIName(lower) : !isUnicodeName(lower)) return std::nullopt;
  return Domain(Passed{}, lower);
}

std::weak_ordering operator<=>(const Domain& left, const Domain& right) {
  const std::string_view first = left.name();
  const std::string_view second = right.name();
  if (text::isASCII(first) && text::isASCII(second)) return first <=> second;
  return text::canonicallyComposed(first) <=> text::canonicallyComposed(second);
}

}  // namespace stillow::core

std::size_t std::hash<stillow::core::Domain>::operator()(
    const stillow::core::Domain& domain) const {
  namespace text = stillow::core::text;
  if (text::isASCII(domain.name())) return std::hash<std::string_view>{}(domain.name());
  return std::hash<std::string>{}(text::canonicallyComposed(domain.name()));
}
