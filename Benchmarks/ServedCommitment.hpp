#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include "ActiveCommitment.hpp"
#include "EndlessSleeper.hpp"
#include "PlatformLinuxIPC/UnixSocketDaemonListener.hpp"
#include "StillowAuthority/DaemonXPCService.hpp"
#include "StillowConcurrency/ThreadBlockingExecutor.hpp"

namespace stillow::benchmarks {

/// Authority, service and listener as the daemon has them, on one thread as there, with an active
/// Commitment in memory. Who a client is is not looked at: that is done once for a connection and
/// never for a call.
class ServedCommitment {
 public:
  /// Of two statuses that follow one another neither can stand for the other, as in life: the
  /// clock has moved. It moves to and fro, so that the bytes are known beforehand.
  static constexpr core::Date clockReadings[]{activationDate + 500'908.4667850,
                                              activationDate + 500'909.4667851};

  ServedCommitment(std::size_t domainCount, const std::string& socketPath,
                   platform::SocketLimits limits = {})
      : authority_(authority::CommitmentAuthority::make(
            context_.get_executor(), std::make_shared<concurrency::ThreadBlockingExecutor>(1),
            {std::make_shared<authority::InMemoryCommitmentCheckpointStore>(
                 activeCommitment(domainCount)),
             std::make_shared<authority::InMemoryCommitmentCheckpointStore>()},
            [this] { return clockReadings[readings_++ % 2]; })),
        service_(authority::DaemonXPCService::make({.executor = context_.get_executor(),
                                                    .authority = authority_,
                                                    .requirement = {},
                                                    .validator = nullptr,
                                                    .presence = nullptr,
                                                    .filterArming = nullptr,
                                                    .runningTime = nullptr})),
        listener_({.executor = context_.get_executor(),
                   .blocking = std::make_shared<concurrency::ThreadBlockingExecutor>(1),
                   .sleeper = std::make_shared<EndlessSleeper>(),
                   .peers = nullptr,
                   .socketPath = socketPath,
                   .log = [](const std::string& line) { std::cerr << line << '\n'; },
                   .limits = limits}) {
    const auto started = service_->start(listener_);
    if (!started) {
      std::cerr << started.error() << '\n';
      std::abort();
    }
    thread_ = std::thread([this] { context_.run(); });
  }
  ServedCommitment(const ServedCommitment&) = delete;
  ServedCommitment& operator=(const ServedCommitment&) = delete;
  ~ServedCommitment() {
    context_.stop();
    thread_.join();
  }

  [[nodiscard]] std::shared_ptr<authority::CommitmentAuthority> authority() const {
    return authority_;
  }
  [[nodiscard]] concurrency::Executor executor() { return context_.get_executor(); }

 private:
  boost::asio::io_context context_{1};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{
      context_.get_executor()};
  std::atomic<std::size_t> readings_ = 0;
  std::shared_ptr<authority::CommitmentAuthority> authority_;
  std::shared_ptr<authority::DaemonXPCService> service_;
  platform::UnixSocketDaemonListener listener_;
  std::thread thread_;
};

}  // namespace stillow::benchmarks
