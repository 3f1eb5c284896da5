#pragma once

#include <string>
#include <utility>
#include <vector>

#include "StillowIPC/CommitmentAuthorityClient.hpp"

namespace stillow::test {

using ipc::DaemonStatus;

/// Answers every call alike.
class ScriptedClient final : public ipc::CommitmentAuthorityClient {
 public:
  explicit ScriptedClient(Result result) : result_(std::move(result)) {}
  concurrency::Task<Result> status() override { return answer("status"); }
  concurrency::Task<Result> activate(ipc::ActivationRequest) override { return answer("activate"); }
  concurrency::Task<Result> strengthen(ipc::ScopeAddition) override { return answer("strengthen"); }
  concurrency::Task<Result> extend(ipc::ExtensionRequest) override { return answer("extend"); }
  concurrency::Task<Result> validateEnforcement() override { return answer("validate"); }
  concurrency::Task<Result> acknowledgeExpiry() override { return answer("acknowledge"); }
  concurrency::Task<Result> armFilterConfiguration() override { return answer("arm"); }
  concurrency::Task<Result> announceUserInterface() override { return answer("announce"); }
  ipc::DaemonStatusStream statusChanges() override {
    return {concurrency::Channel<DaemonStatus>(1), [] {}};
  }
  void invalidate() override {}

  std::vector<std::string> calls;

 private:
  concurrency::Task<Result> answer(std::string call) {
    calls.push_back(std::move(call));
    Result copy = result_;
    co_return copy;
  }
  Result result_;
};

}  // namespace stillow::test
