#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "StillowAuthority/SupervisionRoles.hpp"
#include "TestSupport/Gate.hpp"

namespace stillow::test {

class ScriptedVerifier final : public authority::EnforcementVerifying {
 public:
  using Verification = authority::EnforcementVerification;

  Verification verdict = Verification::verified{};
  Gate gate;  ///< passed before the verdict is given; the verdict is as of the beginning

  struct Question {
    std::int64_t scopeGeneration;
    core::DomainSet scope;
    friend bool operator==(const Question&, const Question&) = default;
  };
  std::vector<Question> questions;

  concurrency::Task<Verification> verify(std::int64_t scopeGeneration,
                                         core::DomainSet scope) override {
    questions.push_back({scopeGeneration, std::move(scope)});
    const Verification given = verdict;
    co_await gate.pass();
    co_return given;
  }
};

}  // namespace stillow::test
