#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace stillow::core {

/// Recognises bytes that this process has seen before.
///
/// Equal bytes have equal tags. Tags of different bytes are equal with a chance below one in 2^80,
/// even where somebody chose the bytes to that end, because a secret of this process is in them: so
/// they are for comparing within the process and are neither stored nor sent. A tag costs a small
/// part of what a digest does that anybody can repeat.
using ContentTag = std::array<std::uint8_t, 16>;

/// Any thread. Defined by the platform's adapter.
[[nodiscard]] ContentTag contentTag(std::string_view bytes);

}  // namespace stillow::core
