#pragma once

#include <expected>
#include <system_error>

namespace stillow::filter {

/// Keeps CAP_NET_ADMIN, if the process has it, and gives up every other capability for good, for
/// the programs that it could start too. To be called while there is one thread: capabilities
/// belong to threads, and later ones inherit them.
///
/// Root's files stay readable, as their owner. Asking the kernel to keep other packets out of the
/// queue, to cut a connection and to take a larger buffer all come under the one that stays.
[[nodiscard]] std::expected<void, std::error_code> dropPrivileges();

}  // namespace stillow::filter
