// One TCP connection that carries as much as it can, as long as it is told to.
//
//   FilterTransferPeer serve PORT
//   FilterTransferPeer send ADDRESS PORT NAME
//
// The sender's connection begins with an HTTP request to NAME. Then each line on its standard input
// is a number of bytes; the answer is one line: nanoseconds until the other side had them all.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::size_t bufferBytes = 256U << 10U;
constexpr std::string_view requestEnd = "\r\n\r\n";

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

sockaddr_in addressOf(const char* host, const char* port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(std::stoul(port)));
  if (::inet_pton(AF_INET, host, &address.sin_addr) != 1) std::exit(64);
  return address;
}

int openSocket() {
  const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) fail("socket");
  return descriptor;
}

void sendAll(int connection, const void* data, std::size_t size) {
  const auto* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t sent = ::send(connection, bytes, size, MSG_NOSIGNAL);
    if (sent <= 0) fail("send");
    bytes += sent;
    size -= static_cast<std::size_t>(sent);
  }
}

/// False at the end of the connection.
bool receiveAll(int connection, void* data, std::size_t size) {
  return ::recv(connection, data, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

/// Each round is the number of bytes, the bytes, and an answer of one byte.
void receiveRounds(int connection) {
  std::string request;
  std::array<char, 1> byte{};
  while (!request.ends_with(requestEnd)) {
    if (!receiveAll(connection, byte.data(), 1)) return;
    request += byte[0];
  }
  std::vector<char> buffer(bufferBytes);
  for (std::uint64_t remaining = 0; receiveAll(connection, &remaining, sizeof(remaining));) {
    while (remaining > 0) {
      const auto wanted = std::min<std::uint64_t>(remaining, buffer.size());
      const ssize_t received = ::recv(connection, buffer.data(), wanted, 0);
      if (received <= 0) fail("recv");
      remaining -= static_cast<std::uint64_t>(received);
    }
    sendAll(connection, byte.data(), 1);
  }
  (void)::close(connection);
}

[[noreturn]] void serve(const char* port) {
  const int listener = openSocket();
  const sockaddr_in address = addressOf("0.0.0.0", port);
  if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(listener, 8) != 0) {
    fail("listen");
  }
  std::cout << "listening" << std::endl;
  for (;;) {
    const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) fail("accept");
    std::thread(receiveRounds, connection).detach();
  }
}

int sendRounds(const sockaddr_in& address, const std::string& name) {
  const int connection = openSocket();
  if (::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    fail("connect");
  }
  const std::string request = "GET / HTTP/1.1\r\nHost: " + name + std::string(requestEnd);
  sendAll(connection, request.data(), request.size());
  const std::vector<char> buffer(bufferBytes);
  for (std::uint64_t size = 0; std::cin >> size;) {
    const auto start = std::chrono::steady_clock::now();
    sendAll(connection, &size, sizeof(size));
    for (auto remaining = size; remaining > 0;) {
      const auto part = std::min<std::uint64_t>(remaining, buffer.size());
      sendAll(connection, buffer.data(), part);
      remaining -= part;
    }
    char answer = 0;
    if (!receiveAll(connection, &answer, 1)) fail("recv");
    const auto time = std::chrono::steady_clock::now() - start;
    std::cout << std::chrono::nanoseconds(time).count() << std::endl;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view mode = argc > 1 ? argv[1] : "";
  if (mode == "serve" && argc == 3) serve(argv[2]);
  if (mode == "send" && argc == 5) return sendRounds(addressOf(argv[2], argv[3]), argv[4]);
  return 64;
}
