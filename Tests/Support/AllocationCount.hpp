#pragma once

#include <cstddef>

namespace stillow::test {

/// How often the calling thread has asked the global operator new for memory, and for how many
/// bytes in all. Whoever calls these links a counting operator new into the test's executable;
/// under a sanitizer it is the sanitizer that counts.
[[nodiscard]] std::size_t allocationsOfThisThread() noexcept;
[[nodiscard]] std::size_t allocatedBytesOfThisThread() noexcept;

}  // namespace stillow::test
