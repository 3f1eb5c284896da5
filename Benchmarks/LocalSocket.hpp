#pragma once

#include <cstdlib>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "StillowCore/FileDescriptor.hpp"

namespace stillow::benchmarks {

/// A benchmark that the system lets down has nothing to say.
inline void check(bool isRight) {
  if (!isRight) std::abort();
}

inline sockaddr_un localAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  check(path.size() < sizeof address.sun_path);
  path.copy(address.sun_path, path.size());
  return address;
}

/// A socket that is connected to `path`, as soon as somebody listens there.
inline core::FileDescriptor connectedTo(const std::string& path) {
  const sockaddr_un address = localAddress(path);
  constexpr int attemptsMax = 10'000;
  for (int attempt = 0; attempt < attemptsMax; ++attempt) {
    core::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    check(socket.get() >= 0);
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): what the system takes
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      return socket;
    }
    ::usleep(1'000);
  }
  std::abort();
}

}  // namespace stillow::benchmarks
