#pragma once

#include <cstddef>

namespace stillow::test {

/// How often the calling thread has asked the global operator new for memory, and for how many bytes
/// in all. Whoever calls these links a counting operator new into the test's executable.
[[nodiscard]] std::size_t allocationsOfThisThread() noexcept;
[[nodiscard]] std::size_t allocatedBytesOfThisThread() noexcept;

}  // namespace stillow::test
