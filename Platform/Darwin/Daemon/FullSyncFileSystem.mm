#include "PlatformDarwinDaemon/FullSyncFileSystem.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace stillow::platform {

int FullSyncFileSystem::flushToDisk(int descriptor) {
  const int result = ::fcntl(descriptor, F_FULLFSYNC);
  if (result == 0 || (errno != ENOTSUP && errno != ENOTTY && errno != EINVAL)) return result;
  // A file system, on the network for one, that knows no such flush. Its own is the best there is.
  return ::fsync(descriptor);
}

}  // namespace stillow::platform
