#pragma once

#include <deque>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "StillowClient/Console.hpp"
#include "StillowCore/DomainNormalizer.hpp"
#include "StillowIPC/CommitmentAuthorityClient.hpp"

namespace stillow::test {

/// A daemon whose answers and pushes the test sets.
class FakeDaemon final : public ipc::CommitmentAuthorityClient {
 public:
  /// Of every call that has no answer of its own.
  Result answer = ipc::DaemonStatus{};
  std::optional<Result> statusAnswer;
  std::vector<std::string> calls;
  std::vector<ipc::ActivationRequest> activations;
  std::vector<ipc::ScopeAddition> additions;
  std::vector<ipc::ExtensionRequest> extensions;
  /// Runs while a validation does.
  std::function<void()> duringValidation = [] {};

  /// Streams that were asked for, oldest first; each is the test's to feed.
  std::deque<concurrency::Channel<ipc::DaemonStatus>> streams;
  /// Of a daemon that is not there a stream ends at once.
  bool isThere = true;

  concurrency::Task<Result> status() override {
    return given("status", statusAnswer.value_or(answer));
  }
  concurrency::Task<Result> activate(ipc::ActivationRequest request) override {
    activations.push_back(std::move(request));
    return given("activate", answer);
  }
  concurrency::Task<Result> strengthen(ipc::ScopeAddition addition) override {
    additions.push_back(std::move(addition));
    return given("strengthen", answer);
  }
  concurrency::Task<Result> extend(ipc::ExtensionRequest request) override {
    extensions.push_back(request);
    return given("extend", answer);
  }
  concurrency::Task<Result> validateEnforcement() override {
    duringValidation();
    return given("validate", answer);
  }
  concurrency::Task<Result> acknowledgeExpiry() override { return given("acknowledge", answer); }
  concurrency::Task<Result> armFilterConfiguration() override { return given("arm", answer); }
  concurrency::Task<Result> announceUserInterface() override { return given("announce", answer); }
  ipc::DaemonStatusStream statusChanges() override {
    concurrency::Channel<ipc::DaemonStatus> stream(ipc::DaemonStatusStream::undeliveredMax);
    if (!isThere) stream.finish();
    streams.push_back(stream);
    return {stream, [] {}};
  }
  void invalidate() override {
    for (const auto& stream : streams) stream.finish();
  }

 private:
  concurrency::Task<Result> given(std::string call, Result result) {
    calls.push_back(std::move(call));
    co_return result;
  }
};

/// Streams in memory, and what they pretend to lead to.
struct FakeTerminal {
  std::istringstream in;
  std::ostringstream out;
  std::ostringstream err;
  client::TextStyle style;
  bool canAnswer = true;
  bool canRewrite = false;

  client::Console console() {
    return {.in = in,
            .out = out,
            .err = err,
            .canAnswer = canAnswer,
            .canRewrite = canRewrite,
            .outStyle = [this] { return style; },
            .errStyle = [this] { return style; }};
  }
};

inline const core::DomainNormalizer& smallNormalizer() {
  static const core::DomainNormalizer shared{core::PublicSuffixList("com\nde\nco.uk\nuk\n")};
  return shared;
}

inline core::Domain domain(const std::string& name) { return core::Domain::make(name).value(); }

}  // namespace stillow::test
