#pragma once

#include <string>
#include <string_view>

/// Pieces of the one-sentence errors of this library. Such a sentence becomes one line of a log, so
/// nothing that a stranger chose may break it or grow it.
namespace stillow::platform {

/// `name` in quotation marks, at most 256 of its bytes, without control characters or other bytes
/// outside printable ASCII: those are written as \xHH.
[[nodiscard]] std::string quotedForLog(std::string_view name);

/// What `errorNumber` means, such as "Permission denied".
[[nodiscard]] std::string systemErrorText(int errorNumber);

}  // namespace stillow::platform
