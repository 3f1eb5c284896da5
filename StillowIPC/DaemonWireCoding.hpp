#pragma once

#include <expected>
#include <memory>
#include <string>
#include <string_view>

#include "StillowCore/Coding.hpp"

namespace stillow::ipc {

/// One encoded record, shared by everybody it goes to. Null stands for "no bytes".
using SharedBytes = std::shared_ptr<const std::string>;

/// How records become bytes, on both sides of the connection: compact JSON in field order.
struct DaemonWireCoding {
  /// Fails only for what JSON has no form for: a NaN or an infinity in a record of our own.
  template <class Record>
  [[nodiscard]] static std::expected<std::string, core::EncodingError> encode(
      const Record& record) {
    return core::encode(record);
  }

  /// Nothing in `bytes` needs to outlive the call.
  template <class Record>
  [[nodiscard]] static std::expected<Record, core::DecodingError> decode(std::string_view bytes) {
    return core::decode<Record>(bytes);
  }
};

}  // namespace stillow::ipc
