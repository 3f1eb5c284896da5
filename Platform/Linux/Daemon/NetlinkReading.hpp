#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

#include <linux/netlink.h>

#include "StillowCore/FileDescriptor.hpp"

namespace stillow::platform {

/// A socket that hears the notifications of `groups` from now on, and does not block; none, with
/// errno, if there is none to be had.
[[nodiscard]] core::FileDescriptor openNetlinkNotifications(int protocol,
                                                            std::span<const int> groups);

/// Reading what the kernel sends over netlink, without ever reading past what came. Everything
/// refers to the bytes that were given.

struct NetlinkMessage {
  std::uint16_t type;
  std::uint16_t flags;
  std::uint32_t sequence;
  std::string_view payload;
};

struct NetlinkAttribute {
  std::uint16_t type;  ///< without the flags that share its field
  std::string_view value;
};

namespace netlink {

constexpr std::size_t aligned(std::size_t length) noexcept {
  return (length + NLMSG_ALIGNTO - 1) / NLMSG_ALIGNTO * NLMSG_ALIGNTO;
}

inline std::string_view after(std::string_view bytes, std::size_t length) noexcept {
  return bytes.substr(std::min(aligned(length), bytes.size()));
}

}  // namespace netlink

/// The fixed part that `bytes` begins with; none if they are too few.
template <class Header>
[[nodiscard]] std::optional<Header> netlinkHeader(std::string_view bytes) noexcept {
  Header header{};
  if (bytes.size() < sizeof header) return std::nullopt;
  std::memcpy(&header, bytes.data(), sizeof header);
  return header;
}

/// Calls `read` for each whole message of a datagram.
template <class Read>
void forEachNetlinkMessage(std::string_view bytes, Read read) {
  while (const auto header = netlinkHeader<nlmsghdr>(bytes)) {
    const std::size_t length = header->nlmsg_len;
    if (length < sizeof(nlmsghdr) || length > bytes.size()) return;
    read(NetlinkMessage{.type = header->nlmsg_type,
                        .flags = header->nlmsg_flags,
                        .sequence = header->nlmsg_seq,
                        .payload = bytes.substr(sizeof(nlmsghdr), length - sizeof(nlmsghdr))});
    bytes = netlink::after(bytes, length);
  }
}

/// Calls `read` for each whole attribute that follows a fixed part of `fixedBytes`.
template <class Read>
void forEachNetlinkAttribute(std::string_view payload, std::size_t fixedBytes, Read read) {
  std::string_view bytes = netlink::after(payload, fixedBytes);
  while (const auto header = netlinkHeader<nlattr>(bytes)) {
    const std::size_t length = header->nla_len;
    if (length < sizeof(nlattr) || length > bytes.size()) return;
    read(NetlinkAttribute{.type = static_cast<std::uint16_t>(header->nla_type & NLA_TYPE_MASK),
                          .value = bytes.substr(sizeof(nlattr), length - sizeof(nlattr))});
    bytes = netlink::after(bytes, length);
  }
}

}  // namespace stillow::platform
