#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Promises.hpp"
#include "SimulatedMachine.hpp"

namespace stillow::simulation {

/// What came about in a number of lives. Promises that nothing ever put to the test prove nothing.
struct Coverage {
  int activations = 0;
  int strengthenings = 0;
  int extensions = 0;
  int expiries = 0;
  int acknowledgements = 0;
  int pushes = 0;
  int failedCalls = 0;  ///< for whatever reason, refusals included
  int diskFailures = 0;
  int restartsWithCommitment = 0;
  int degradedLooks = 0;
  int looks = 0;
};

/// One life of a machine under everything that can happen to it, in an order that the seed decides.
class RandomLife {
 public:
  RandomLife(std::uint64_t seed, Coverage& coverage)
      : chance_(seed), machine_(seed), coverage_(coverage) {}

  /// Until its end, or until the running test fails.
  void run();

  /// What happened last, and what the daemon wrote into its log meanwhile, one line each.
  [[nodiscard]] std::string story() const;

 private:
  using Result = ipc::CommitmentAuthorityClient::Result;
  enum class Kind : std::uint8_t { activate, strengthen, extend, acknowledge, other };
  struct Answer {
    Result result;
    int diskFailures;  ///< when it came
  };
  struct Call {
    Kind kind;
    Promises::Request request;
    std::shared_ptr<std::optional<Answer>> answer;
  };
  /// A client that reads a stream of statuses until it ends.
  struct Watch {
    Promises::Order order;
    std::optional<ipc::DaemonStatus> last;
    bool hasEnded = false;
    int* pushes;
  };

  std::uint64_t upTo(std::uint64_t limit) { return chance_() % (limit + 1); }
  bool oneIn(std::uint64_t times) { return chance_() % times == 0; }
  double secondsUpTo(std::uint64_t limit) { return static_cast<double>(upTo(limit * 100)) / 100; }

  /// Notes what happens, so that a failure can be told.
  void tell(const std::string& what);

  void act();
  void call(Kind kind);
  void callOther(const SimulatedMachine::Client& client, const Promises::Request& request);
  void note(Kind kind, const Promises::Request& request, concurrency::Task<Result> task);
  static concurrency::Task<Answer> dated(SimulatedMachine* machine, concurrency::Task<Result> task);
  void commit();
  void watch(const SimulatedMachine::Client& client);
  static concurrency::Task<bool> follow(SimulatedMachine::Client client,
                                        std::shared_ptr<Watch> watch);
  ipc::ActivationRequest activation();
  ipc::ScopeAddition addition();
  core::Domain domain();
  core::Date newEnd();

  void sleep();
  void setClock();
  void harmDisk();
  void harmFilter();
  void harmNetwork();

  void advance(double seconds);
  void restart();
  void takeSteps(std::uint64_t limit);
  void startDaemon();
  void settleSometimes();
  void check();
  void collect();
  void comeToRest();

  std::mt19937_64 chance_;
  SimulatedMachine machine_;
  Promises promises_{machine_};
  Coverage& coverage_;
  std::vector<Call> calls_;
  std::vector<std::shared_ptr<Watch>> watches_;
};

}  // namespace stillow::simulation
