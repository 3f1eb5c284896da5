// SocketProbe SOCKET TEXT [stay]: connects, sends TEXT as it is and prints what comes back, up to
// the first line feed or the end. Exits with 0 for a line, 1 if the connection ended before one.
// With "stay" it sends and then does nothing until it is ended: a peer that can be killed in
// mid-message.

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int count, char** arguments) {
  const std::string_view path = count >= 3 ? arguments[1] : "";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return 2;
  std::memcpy(address.sun_path, path.data(), path.size());
  const int connection = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connection < 0) return 3;
  if (::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return 4;
  }
  std::string_view text = arguments[2];
  while (!text.empty()) {
    const auto sent = ::send(connection, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    // Whoever closes the connection without reading still gets to say so below.
    if (sent < 0) break;
    text.remove_prefix(static_cast<std::size_t>(sent));
  }
  if (count == 4) {
    for (;;) ::pause();
  }
  std::string line;
  char byte = 0;
  for (;;) {
    const auto length = ::read(connection, &byte, 1);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return 1;
    line += byte;
    if (byte != '\n') continue;
    return ::write(STDOUT_FILENO, line.data(), line.size()) < 0 ? 5 : 0;
  }
}
