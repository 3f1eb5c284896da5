#pragma once

#include <cstddef>
#include <expected>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "StillowConcurrency/Task.hpp"
#include "StillowIPC/CodeIdentity.hpp"
#include "StillowIPC/DaemonConnection.hpp"

namespace stillow::ipc {

/// A listener without a name, and the place to connect to it: service and client in one process.
/// Messages keep the order that every transport keeps, and arrive through the executor like foreign
/// ones.
class InMemoryDaemonEndpoint final : public DaemonListening,
                                     public DaemonConnecting,
                                     public std::enable_shared_from_this<InMemoryDaemonEndpoint> {
 public:
  /// Who the two sides are, for the requirement that each sets on the other.
  struct Identities {
    CodeIdentity client;
    CodeIdentity daemon;
    /// The application and the daemon as the maker signs them.
    [[nodiscard]] static Identities signedByMaker();
  };

  [[nodiscard]] static std::shared_ptr<InMemoryDaemonEndpoint> make(
      concurrency::Executor executor, Identities identities = Identities::signedByMaker());
  ~InMemoryDaemonEndpoint() override;

  [[nodiscard]] std::expected<void, std::string> start(
      std::weak_ptr<DaemonListenerDelegate> delegate) override;
  /// Connections made before `start` are refused when they begin.
  [[nodiscard]] std::shared_ptr<DaemonConnection> makeConnection(
      DaemonConnectionHandlers handlers) override;

  /// Ends every connection, as if both sides had seen the other die.
  void interruptAll();

  /// How many connections somebody still holds an end of, lost ones included.
  [[nodiscard]] std::size_t connectionCount();

 private:
  class Link;
  class ClientConnection;
  class Proxy;

  InMemoryDaemonEndpoint(concurrency::Executor executor, Identities identities);
  std::weak_ptr<DaemonListenerDelegate> delegate();

  const concurrency::Executor executor_;
  const Identities identities_;
  std::mutex mutex_;
  std::weak_ptr<DaemonListenerDelegate> delegate_;
  std::vector<std::weak_ptr<Link>> links_;
};

}  // namespace stillow::ipc
