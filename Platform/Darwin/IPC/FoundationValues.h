// Between Foundation's values and those of the shared code. Objective-C, for adapters only.
#pragma once

#import <Foundation/Foundation.h>

#include <string>
#include <string_view>

#include "StillowIPC/DaemonWireCoding.hpp"
#include "StillowIPC/PlatformError.hpp"

namespace stillow::platform {

/// Ill-formed UTF-8 becomes an empty text.
[[nodiscard]] NSString* _Nonnull foundationString(std::string_view text);
/// Empty for nil.
[[nodiscard]] std::string utf8String(NSString* _Nullable text);

[[nodiscard]] NSData* _Nonnull foundationData(std::string_view bytes);
/// Null for nil.
[[nodiscard]] ipc::SharedBytes sharedBytes(NSData* _Nullable data);

/// The error as it travels: its sentence as the localized description, its payload, if it has one,
/// as bytes under `PlatformError::daemonErrorPayloadKey`.
[[nodiscard]] NSError* _Nonnull foundationError(const ipc::PlatformError& error);
/// A payload that is not bytes is none.
[[nodiscard]] ipc::PlatformError platformError(NSError* _Nonnull error);

}  // namespace stillow::platform
