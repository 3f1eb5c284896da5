#pragma once

#include <cstdint>
#include <source_location>
#include <string_view>

namespace stillow::core {

/// Prints `message` and where it was found to standard error and stops the process with SIGABRT.
///
/// For broken invariants of our own and for the few conditions that are fatal by definition (a
/// missing resource, a counter at its end). Never for what a file, a client, a packet or the kernel
/// can cause: those are errors and are returned.
[[noreturn]] void stopProcess(
    std::string_view message,
    std::source_location where = std::source_location::current()) noexcept;

inline void require(bool invariantHolds, std::string_view message,
                    std::source_location where = std::source_location::current()) noexcept {
  if (!invariantHolds) [[unlikely]]
    stopProcess(message, where);
}

/// `value` + 1; stops the process where that would overflow. A counter that wrapped would let an
/// old state pass for a new one.
[[nodiscard]] inline std::int64_t successor(
    std::int64_t value, std::source_location where = std::source_location::current()) noexcept {
  require(value != INT64_MAX, "counter overflow", where);
  return value + 1;
}

}  // namespace stillow::core
