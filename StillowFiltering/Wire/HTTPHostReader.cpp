#include "StillowFiltering/Wire/HTTPHostReader.hpp"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>

#include "StillowCore/Text.hpp"

namespace stillow::filtering {
namespace {

using core::text::lowercasedASCII;

/// The longest method that is registered has 17 letters (UPDATEREDIRECTREF).
constexpr std::size_t methodBytesMax = 32;

constexpr auto isTokenCharacter = [] {  // RFC 9110, 5.6.2
  std::array<bool, 256> table{};
  for (unsigned char c = '0'; c <= '9'; ++c) table[c] = true;
  for (unsigned char c = 'A'; c <= 'Z'; ++c) table[c] = true;
  for (unsigned char c = 'a'; c <= 'z'; ++c) table[c] = true;
  for (const char c : std::string_view{"!#$%&'*+-.^_`|~"}) {
    table[static_cast<unsigned char>(c)] = true;
  }
  return table;
}();

constexpr bool isBlank(char c) noexcept { return c == ' ' || c == '\t'; }
constexpr bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }
constexpr std::string_view trimmed(std::string_view text) noexcept {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

/// `host[:port]`. An address in brackets is no name.
NameReading readHostAndPort(std::string_view text) noexcept {
  if (const auto colon = text.find(':'); colon != text.npos) {
    if (!std::ranges::all_of(text.substr(colon + 1), isDigit)) return NameReading::none{};
    text = text.substr(0, colon);
  }
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  const auto name = HostName::read({bytes, text.size()});
  if (!name) return NameReading::none{};
  return NameReading::found{*name};
}

/// What follows "//" in `target` up to its path, query or fragment, without user information. None
/// unless the target is in absolute form.
std::optional<std::string_view> authority(std::string_view target) noexcept {
  const auto scheme = target.find("://");
  if (scheme == 0 || scheme == target.npos) return std::nullopt;
  const auto isSchemeCharacter = [](char c) {
    return isDigit(c) || (lowercasedASCII(c) >= 'a' && lowercasedASCII(c) <= 'z') || c == '+' ||
           c == '-' || c == '.';
  };
  if (!std::ranges::all_of(target.substr(0, scheme), isSchemeCharacter)) return std::nullopt;
  std::string_view rest = target.substr(scheme + 3);
  rest = rest.substr(0, rest.find_first_of("/?#"));
  if (const auto at = rest.rfind('@'); at != rest.npos) rest.remove_prefix(at + 1);
  return rest;
}

/// Reads a request from its front. Each step answers as soon as the bytes that are there decide it.
class RequestReader {
 public:
  explicit RequestReader(std::string_view text) noexcept : rest_(text) {}

  NameReading read() noexcept {
    // Servers skip empty lines before a request (RFC 9112, 2.2).
    rest_.remove_prefix(std::min(rest_.find_first_not_of("\r\n"), rest_.size()));
    if (auto settled = readMethod()) return *settled;
    if (auto settled = readTarget()) return *settled;
    if (auto settled = readVersion()) return *settled;
    if (const auto host = authority(target_)) return readHostAndPort(*host);
    return readFields();
  }

 private:
  std::optional<NameReading> readMethod() noexcept {
    std::size_t size = 0;
    while (size < rest_.size() && isTokenCharacter[static_cast<unsigned char>(rest_[size])]) ++size;
    if (size > methodBytesMax) return NameReading::none{};
    if (size == rest_.size()) return NameReading::needMore{};
    if (size == 0 || rest_[size] != ' ') return NameReading::none{};
    // What follows CONNECT is for a proxy; the request itself names where the proxy is to go.
    if (rest_.substr(0, size) == "CONNECT") return NameReading::none{};
    rest_.remove_prefix(size + 1);
    return std::nullopt;
  }

  std::optional<NameReading> readTarget() noexcept {
    const auto isTargetCharacter = [](char c) {
      return static_cast<unsigned char>(c) > ' ' && c != '\x7f';
    };
    const auto end = std::ranges::find_if_not(rest_, isTargetCharacter);
    const auto size = static_cast<std::size_t>(end - rest_.begin());
    if (size == rest_.size()) return NameReading::needMore{};
    if (size == 0 || rest_[size] != ' ') return NameReading::none{};
    target_ = rest_.substr(0, size);
    rest_.remove_prefix(size + 1);
    return std::nullopt;
  }

  std::optional<NameReading> readVersion() noexcept {
    // Only HTTP/1: the Host of an HTTP/2 connection ("PRI * HTTP/2.0") is compressed.
    constexpr std::string_view version = "HTTP/1.";
    const std::size_t shared = std::min(version.size(), rest_.size());
    if (rest_.substr(0, shared) != version.substr(0, shared)) return NameReading::none{};
    rest_.remove_prefix(shared);
    if (rest_.empty()) return NameReading::needMore{};
    if (!isDigit(rest_.front())) return NameReading::none{};
    rest_.remove_prefix(1);
    if (rest_.starts_with('\r')) rest_.remove_prefix(1);
    if (rest_.empty()) return NameReading::needMore{};
    if (rest_.front() != '\n') return NameReading::none{};
    rest_.remove_prefix(1);
    return std::nullopt;
  }

  NameReading readFields() noexcept {
    while (const auto line = takeLine()) {
      if (line->empty()) return NameReading::none{};
      const auto colon = line->find(':');
      if (colon == line->npos || !isHost(line->substr(0, colon))) continue;
      return readHost(line->substr(colon + 1));
    }
    return NameReading::needMore{};
  }

  /// The value of the Host field, whose first line is `value`.
  NameReading readHost(std::string_view value) noexcept {
    value = trimmed(value);
    // A line that begins with a blank continues the field, and the fold counts as a blank (RFC
    // 9112, 5.2). A host has no blank inside, so at most one of the lines may hold anything.
    while (!rest_.empty() && isBlank(rest_.front())) {
      const auto line = takeLine();
      if (!line) return NameReading::needMore{};
      const std::string_view more = trimmed(*line);
      if (!value.empty() && !more.empty()) return NameReading::none{};
      if (value.empty()) value = more;
    }
    if (rest_.empty()) return NameReading::needMore{};
    return readHostAndPort(value);
  }

  static bool isHost(std::string_view fieldName) noexcept {
    return std::ranges::equal(fieldName, std::string_view{"host"}, {}, lowercasedASCII);
  }

  /// The next line without its end (CRLF, or LF alone: RFC 9112, 2.2); none if it is not all there.
  std::optional<std::string_view> takeLine() noexcept {
    const auto end = rest_.find('\n');
    if (end == rest_.npos) return std::nullopt;
    std::string_view line = rest_.substr(0, end);
    if (line.ends_with('\r')) line.remove_suffix(1);
    rest_.remove_prefix(end + 1);
    return line;
  }

  std::string_view rest_;
  std::string_view target_;
};

}  // namespace

NameReading readHTTPHost(WireBytes prefix) noexcept {
  const WireBytes available = prefix.first(std::min(prefix.size(), inspectedBytesMax));
  const auto* text = reinterpret_cast<const char*>(available.data());
  const NameReading reading = RequestReader{{text, available.size()}}.read();
  if (reading.needsMore() && available.size() == inspectedBytesMax) return NameReading::none{};
  return reading;
}

}  // namespace stillow::filtering
