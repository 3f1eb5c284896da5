// PeerProbe SOCKET: connects to the Unix-domain socket and stays until the other end closes. The
// tests sign, copy, damage and replace this executable and look at it from the other end.

#include <cerrno>
#include <cstring>
#include <string_view>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int count, char** arguments) {
  const std::string_view path = count == 2 ? arguments[1] : "";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return 2;
  std::memcpy(address.sun_path, path.data(), path.size());
  const int connection = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connection < 0) return 3;
  if (::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return 4;
  }
  char byte = 0;
  for (;;) {
    const auto length = ::read(connection, &byte, 1);
    if (length == 0) return 0;
    if (length < 0 && errno != EINTR) return 5;
  }
}
