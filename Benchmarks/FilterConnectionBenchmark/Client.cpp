// Opens TLS connections one after the other and says how long that took.
//
//   FilterConnectionClient ADDRESS NAME
//
// Each line on standard input is a number of connections; the answer is one line: nanoseconds.

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

struct Deleter {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(SSL* connection) const { SSL_free(connection); }
};

void connectOnce(SSL_CTX& context, const sockaddr_in& address, const char* name) {
  const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) fail("socket");
  if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    fail("connect");
  }
  const std::unique_ptr<SSL, Deleter> connection(SSL_new(&context));
  if (!connection || SSL_set_fd(connection.get(), descriptor) != 1 ||
      SSL_set_tlsext_host_name(connection.get(), name) != 1 || SSL_connect(connection.get()) != 1) {
    fail("handshake");
  }
  // A reset, so that no port stays in a wait state.
  const linger reset{.l_onoff = 1, .l_linger = 0};
  (void)::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
  (void)::close(descriptor);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 64;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(443);
  if (::inet_pton(AF_INET, argv[1], &address.sin_addr) != 1) return 64;
  const std::unique_ptr<SSL_CTX, Deleter> context(SSL_CTX_new(TLS_client_method()));
  if (!context) return 1;
  for (std::uint64_t count = 0; std::cin >> count;) {
    const auto start = std::chrono::steady_clock::now();
    for (std::uint64_t index = 0; index < count; ++index) {
      connectOnce(*context, address, argv[2]);
    }
    const auto time = std::chrono::steady_clock::now() - start;
    std::cout << std::chrono::nanoseconds(time).count() << std::endl;
  }
  return 0;
}
