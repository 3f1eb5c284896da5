#pragma once

#include "StillowFiltering/Storage/PosixFileSystem.hpp"

namespace stillow::platform {

/// The file system with flushes that reach the medium: `fsync` stops at the drive's own cache here.
class FullSyncFileSystem final : public filtering::PosixFileSystem {
 protected:
  int flushToDisk(int descriptor) override;
};

}  // namespace stillow::platform
