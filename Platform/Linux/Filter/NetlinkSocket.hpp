#pragma once

#include <memory>
#include <system_error>

#include <libmnl/libmnl.h>

namespace stillow::platform {

struct NetlinkSocketCloser {
  void operator()(mnl_socket* socket) const noexcept { (void)mnl_socket_close(socket); }
};
/// A netlink socket of libmnl, closed by whoever owns it.
using NetlinkSocket = std::unique_ptr<mnl_socket, NetlinkSocketCloser>;

/// An `errno` as a code.
[[nodiscard]] inline std::error_code systemError(int number) noexcept {
  return {number, std::generic_category()};
}

}  // namespace stillow::platform
