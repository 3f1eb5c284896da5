// An activation of many domains, from the bytes of the request to those of the reply, against
// decoding the request once and saving the checkpoint durably once. Ours is the daemon's service
// and authority over the real files, on one thread as in the daemon; the reference calls the
// decoder and the store directly. Both begin with an empty directory. The argument is the number of
// domains. Wall time, because part of it is waiting for the disk (TMPDIR chooses the directory).

#include <cstddef>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include "ActiveCommitment.hpp"
#include "Alternating.hpp"
#include "StillowAuthority/DaemonXPCService.hpp"
#include "StillowConcurrency/ThreadBlockingExecutor.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "StillowIPC/DaemonWireCoding.hpp"
#include "StillowIPC/Requests.hpp"
#include "TemporaryDirectory.hpp"

namespace stillow::benchmarks {
namespace {

using authority::CommitmentAuthority;
using authority::DaemonXPCService;
using authority::DurableCommitmentStore;
using concurrency::Task;

constexpr double durationSeconds = 7'200;

/// A client's connection that is there and hears nothing.
class SilentConnection final : public ipc::ServedConnection {
 public:
  [[nodiscard]] ipc::ConnectionID identity() const noexcept override { return id_; }
  void push(ipc::SharedBytes) override {}

 private:
  ipc::ConnectionID id_ = ipc::ConnectionID::next();
};

class Daemon {
 public:
  Daemon(filtering::FileSystem& fileSystem, const std::string& directory)
      : authority_(CommitmentAuthority::make(
            context_.get_executor(), std::make_shared<concurrency::ThreadBlockingExecutor>(1),
            DurableCommitmentStore(fileSystem, directory), [] { return activationDate; })),
        service_(DaemonXPCService::make({.executor = context_.get_executor(),
                                         .authority = authority_,
                                         .requirement = {},
                                         .validator = nullptr,
                                         .presence = nullptr,
                                         .filterArming = nullptr,
                                         .runningTime = nullptr})) {
    thread_ = std::thread([this] { context_.run(); });
    // What an activation takes beforehand.
    std::promise<void> recorded;
    concurrency::spawn(context_.get_executor(), validated(authority_, recorded));
    recorded.get_future().get();
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  ~Daemon() {
    work_.reset();
    thread_.join();
  }

  ipc::DaemonReply activate(ipc::SharedBytes request) {
    std::promise<ipc::DaemonReply> replied;
    const ipc::CallAnswer answer(
        [&replied](ipc::DaemonReply reply) { replied.set_value(std::move(reply)); });
    service_->received(std::make_shared<SilentConnection>(),
                       {ipc::DaemonOperation::activate, std::move(request), answer});
    return replied.get_future().get();
  }

 private:
  static Task<void> validated(std::shared_ptr<CommitmentAuthority> authority,
                              std::promise<void>& done) {
    co_await authority->record(core::EnforcementValidation::passed{}, activationDate);
    done.set_value();
  }

  boost::asio::io_context context_{1};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{
      context_.get_executor()};
  std::shared_ptr<CommitmentAuthority> authority_;
  std::shared_ptr<DaemonXPCService> service_;
  std::thread thread_;
};

std::string requestFor(std::size_t domainCount) {
  ipc::ActivationRequest request{
      .selection = core::CommitmentSelection::allWebsites{},
      .collectionSnapshot = {},
      .duration = *core::CommitmentDuration::fromSeconds(durationSeconds)};
  for (core::Domain& domain : sampleDomains(domainCount)) {
    request.collectionSnapshot.push_back({.domain = std::move(domain), .groups = {}});
  }
  return *ipc::DaemonWireCoding::encode(request);
}

void empty(const std::string& directory) {
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    std::filesystem::remove(entry);
  }
}

void activate(benchmark::State& state) {
  const auto domainCount = static_cast<std::size_t>(state.range(0));
  const TemporaryDirectory ourDirectory;
  const TemporaryDirectory referenceDirectory;
  filtering::PosixFileSystem fileSystem;
  const auto request = std::make_shared<const std::string>(requestFor(domainCount));
  // What is saved, with the domains of the request.
  authority::CommitmentCheckpoint checkpoint = activeCommitment(domainCount);
  core::Commitment& commitment =
      std::get<authority::AuthorityState::active>(checkpoint.state.cases).commitment;
  commitment.remainingDuration = durationSeconds;
  commitment.health = core::CommitmentHealth::healthy;

  std::size_t replyBytes = 0;
  bool hasFailed = false;
  const auto ours = [&](std::size_t count) {
    for (; count > 0; --count) {
      empty(ourDirectory.path());
      Daemon daemon(fileSystem, ourDirectory.path());
      const ipc::DaemonReply reply = daemon.activate(request);
      hasFailed = hasFailed || !reply.bytes;
      if (reply.bytes) replyBytes = reply.bytes->size();
    }
  };
  const auto reference = [&](std::size_t count) {
    for (; count > 0; --count) {
      empty(referenceDirectory.path());
      const auto decoded = ipc::DaemonWireCoding::decode<ipc::ActivationRequest>(*request);
      const DurableCommitmentStore store(fileSystem, referenceDirectory.path());
      hasFailed = hasFailed || !decoded || !store.save(checkpoint).has_value();
    }
  };
  ours(1);
  reference(1);
  const auto found = DurableCommitmentStore(fileSystem, ourDirectory.path()).recover();
  const auto expected = DurableCommitmentStore(fileSystem, referenceDirectory.path()).recover();
  if (hasFailed || !found.checkpoint || found != expected) {
    return state.SkipWithError("what was saved differs");
  }
  compareAlternating(state, Measure::wallTime, ours, reference);
  if (hasFailed) state.SkipWithError("an activation was refused");
  state.counters["request_bytes"] = static_cast<double>(request->size());
  state.counters["reply_bytes"] = static_cast<double>(replyBytes);
}

// Seconds each: fewer of them, and still enough for a median.
BENCHMARK(activate)->Arg(1'000'000)->Apply(batches)->Iterations(15);

}  // namespace
}  // namespace stillow::benchmarks
