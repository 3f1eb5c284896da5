#include "StillowFiltering/FlowAddress.hpp"

#include <algorithm>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace stillow::filtering {

std::optional<FlowAddress> FlowAddress::fromPrintedForm(std::string_view text) noexcept {
  text = text.substr(0, text.find('%'));
  if (text.empty() || text.size() > literalBytesMax) return std::nullopt;
  FlowAddress address;
  address.append(text);
  return address;
}

bool FlowAddress::isPrintedForm(std::string_view text) noexcept {
  const auto address = fromPrintedForm(text);
  if (!address) return false;
  // At least one zero lies between the longest text and its length.
  std::array<std::uint8_t, sizeof(::in6_addr)> bytes{};
  const char* const printed = address->storage_.data();
  return ::inet_pton(AF_INET, printed, bytes.data()) == 1 ||
         ::inet_pton(AF_INET6, printed, bytes.data()) == 1;
}

FlowAddress FlowAddress::fromIPv4(std::span<const std::uint8_t, 4> bytes) noexcept {
  FlowAddress address;
  address.appendIPv4(bytes);
  return address;
}

FlowAddress FlowAddress::fromIPv6(std::span<const std::uint8_t, 16> bytes) noexcept {
  FlowAddress address;
  constexpr std::array<std::uint8_t, 12> mappedPrefix{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  if (std::ranges::equal(bytes.first<12>(), mappedPrefix)) {
    address.append("::ffff:");
    address.appendIPv4(bytes.last<4>());
    return address;
  }

  std::array<unsigned, 8> groups{};
  for (std::size_t i = 0; i < groups.size(); ++i) {
    groups[i] = static_cast<unsigned>(bytes[2 * i]) << 8U | bytes[2 * i + 1];
  }
  // "::" stands for the longest run of zeros, the first of equally long ones, and never for one.
  std::size_t longestBegin = 0;
  std::size_t longest = 1;
  for (std::size_t i = 0; i < groups.size();) {
    std::size_t end = i;
    while (end < groups.size() && groups[end] == 0) ++end;
    if (end - i > longest) {
      longestBegin = i;
      longest = end - i;
    }
    i = end + 1;
  }
  for (std::size_t i = 0; i < groups.size(); ++i) {
    if (longest > 1 && i == longestBegin) {
      address.append("::");
      i += longest - 1;
      continue;
    }
    if (i > 0 && address.literal().back() != ':') address.append(":");
    address.appendNumber(groups[i], 16);
  }
  return address;
}

void FlowAddress::append(std::string_view text) noexcept {
  std::ranges::copy(text, storage_.begin() + static_cast<std::ptrdiff_t>(size()));
  storage_.back() = static_cast<char>(size() + text.size());
}

void FlowAddress::appendIPv4(std::span<const std::uint8_t, 4> bytes) noexcept {
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i > 0) append(".");
    appendNumber(bytes[i], 10);
  }
}

void FlowAddress::appendNumber(unsigned value, unsigned base) noexcept {
  std::array<char, 8> digits{};
  std::size_t begin = digits.size();
  do {
    digits[--begin] = "0123456789abcdef"[value % base];
    value /= base;
  } while (value > 0);
  append({digits.data() + begin, digits.size() - begin});
}

}  // namespace stillow::filtering
