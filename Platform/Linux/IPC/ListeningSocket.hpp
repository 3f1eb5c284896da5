#pragma once

#include <expected>
#include <filesystem>
#include <string>

#include "StillowCore/FileDescriptor.hpp"

namespace stillow::platform {

/// A socket that listens at `path`, non-blocking and closed in children, with the permissions 0666
/// in a directory with 0755. It is made under another name and renamed, so whoever finds it can
/// connect. The error is one sentence; what it left behind does not hinder the next try.
[[nodiscard]] std::expected<core::FileDescriptor, std::string> listenAt(
    const std::filesystem::path& path, int backlog);

}  // namespace stillow::platform
