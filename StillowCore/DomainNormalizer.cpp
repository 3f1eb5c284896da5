#include "StillowCore/DomainNormalizer.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>

#include "StillowCore/Text.hpp"

namespace stillow::core {

namespace {

using Error = DomainNormalizationError;
using Result = DomainNormalizationResult;

constexpr auto npos = std::string_view::npos;

constexpr bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

/// The bytes that part a URL.
constexpr std::array<bool, 256> urlSigns = [] {
  std::array<bool, 256> table{};
  for (const char sign : std::string_view(":/?#@[")) table[static_cast<unsigned char>(sign)] = true;
  return table;
}();

/// True for what most people type. In one pass without branches.
bool isBareHost(std::string_view input) noexcept {
  bool hasSign = false;
  for (const char c : input) hasSign |= urlSigns[static_cast<unsigned char>(c)];
  return !hasSign;
}

/// Host and port of `input`, the parts of a URL around them removed.
std::string_view authorityOf(std::string_view input, bool& isChanged) {
  std::string_view rest = input;
  if (const auto scheme = text::find(rest, "://"); scheme != npos) {
    rest.remove_prefix(scheme + 3);
    isChanged = true;
  }
  const std::size_t path =
      std::min({text::find(rest, '/'), text::find(rest, '?'), text::find(rest, '#'), rest.size()});
  if (path < rest.size()) {
    rest = rest.substr(0, path);
    isChanged = true;
  }
  if (const auto user = text::findLast(rest, '@'); user != npos) {
    rest.remove_prefix(user + 1);
    isChanged = true;
  }
  return rest;
}

/// `authority` without its port.
std::expected<std::string_view, Error> hostOf(std::string_view authority, bool& isChanged) {
  if (text::hasPrefix(authority, "[")) {
    return std::unexpected(Error::ipAddressUnsupported{std::string(authority)});
  }
  const auto colon = text::find(authority, ':');
  if (colon == npos) return authority;
  if (text::find(authority, ':', colon + 1) != npos) {
    return std::unexpected(Error::ipAddressUnsupported{std::string(authority)});
  }
  const auto port = authority.substr(colon + 1);
  if (port.empty() || !std::ranges::all_of(port, isDigit)) {
    return std::unexpected(Error::invalidHostname{std::string(authority)});
  }
  isChanged = true;
  return authority.substr(0, colon);
}

/// The name in ASCII. Mapping a name to ASCII can bring forth what no name may hold ("＆" becomes
/// "&") or another final dot, so the check comes again after it.
std::expected<Domain, Error> domainOf(std::string_view host, bool& isChanged) {
  auto domain = Domain::make(host);
  if (!domain) return std::unexpected(Error::invalidHostname{text::lowercased(host)});
  if (text::isASCII(domain->name())) return *std::move(domain);
  const auto ascii = text::asciiHost(domain->name());
  if (!ascii) return std::unexpected(Error::invalidHostname{std::string(domain->name())});
  isChanged = true;
  auto converted = Domain::make(*ascii);
  if (!converted) return std::unexpected(Error::invalidHostname{*ascii});
  return *std::move(converted);
}

/// "10.1" and "123" are addresses too: the system's resolver takes them for such.
bool isAddress(std::string_view host) noexcept {
  return std::ranges::all_of(host, [](char c) { return isDigit(c) || c == '.'; });
}

}  // namespace

std::expected<Result, Error> DomainNormalizer::normalize(std::string_view input) const {
  const std::string_view trimmed = text::trimmingWhitespaceAndNewlines(input);
  if (trimmed.empty()) return std::unexpected(Error::emptyInput{});
  if (!text::isValidUTF8(trimmed)) {
    return std::unexpected(Error::invalidHostname{std::string(trimmed)});
  }

  bool isChanged = false;
  std::string_view typedHost = trimmed;
  if (!isBareHost(trimmed)) {
    const auto host = hostOf(authorityOf(trimmed, isChanged), isChanged);
    if (!host) return std::unexpected(host.error());
    typedHost = *host;
  }
  if (text::hasSuffix(typedHost, '.')) typedHost.remove_suffix(1);
  if (typedHost.empty()) return std::unexpected(Error::noHost{});

  auto domain = domainOf(typedHost, isChanged);
  if (!domain) return std::unexpected(std::move(domain).error());
  const std::string_view host = domain->name();
  if (isAddress(host)) return std::unexpected(Error::ipAddressUnsupported{std::string(host)});

  const auto split = publicSuffixList.split(host);
  if (!split || split->registrableDomain.empty()) {
    return std::unexpected(Error::publicSuffixOnly{std::string(host)});
  }
  // Parts of a valid name at its dots are valid names.
  const std::string_view registrable = split->registrableDomain;
  const auto partOf = [&](std::string_view name) {
    return name.size() == host.size() ? *std::move(domain) : *Domain::make(name);
  };
  std::string_view narrow = host;
  constexpr std::string_view world = "www.";
  while (narrow.size() > registrable.size() && narrow.starts_with(world)) {
    narrow.remove_prefix(world.size());
    isChanged = true;
  }
  if (narrow.size() > registrable.size()) {
    auto above = *Domain::make(registrable);
    return Result::narrowerSubdomain{partOf(narrow), std::move(above)};
  }
  if (isChanged) return Result::normalizedToRegistrable{partOf(registrable), std::string(trimmed)};
  return Result::alreadyRegistrable{partOf(registrable)};
}

}  // namespace stillow::core
