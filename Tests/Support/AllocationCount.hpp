#pragma once

#include <cstddef>

namespace stillow::test {

/// How often the calling thread has asked the global operator new for memory. Whoever calls this
/// links a counting operator new into the test's executable.
[[nodiscard]] std::size_t allocationsOfThisThread() noexcept;

}  // namespace stillow::test
