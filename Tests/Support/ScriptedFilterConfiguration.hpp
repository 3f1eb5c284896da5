#pragma once

#include <expected>
#include <functional>
#include <vector>

#include "StillowAuthority/FilterConfiguring.hpp"
#include "TestSupport/Gate.hpp"

namespace stillow::test {

/// A system whose filter configuration can fail on request and be changed behind one's back.
class ScriptedFilterConfiguration final : public authority::FilterConfiguring {
 public:
  using State = authority::FilterArmingState;
  template <class T>
  using Result = std::expected<T, authority::FilterConfigurationError>;

  // The system.
  bool filterIsPresent = true;
  bool isArmed = false;

  // The script.
  int applyFailuresLeft = 0;         ///< the next so many applications change nothing and fail
  int readingFailuresLeft = 0;       ///< the next so many read-backs fail
  bool armingHasNoEffect = false;    ///< arming succeeds, and the read-back says otherwise
  std::function<bool()> applyFails;  ///< asked besides the count
  std::function<bool()> readingFails;
  Gate applyGate;    ///< passed before the system is changed
  Gate readingGate;  ///< passed after it was read

  // The record.
  std::vector<State> applications;
  int readings = 0;

  concurrency::Task<Result<void>> apply(State desired) override {
    applications.push_back(desired);
    co_await applyGate.pass();
    if (takeFailure(applyFailuresLeft, applyFails)) {
      co_return std::unexpected(error("The rules could not be changed."));
    }
    isArmed = desired == State::armed && !armingHasNoEffect;
    co_return Result<void>{};
  }

  concurrency::Task<Result<authority::FilterPathReadiness>> readiness() override {
    ++readings;
    const authority::FilterPathReadiness found{.extensionIsApproved = filterIsPresent,
                                               .filterConfigurationIsEnabled = isArmed};
    co_await readingGate.pass();
    if (takeFailure(readingFailuresLeft, readingFails)) {
      co_return std::unexpected(error("The rules could not be read."));
    }
    co_return found;
  }

 private:
  static authority::FilterConfigurationError error(const char* description) {
    return {description};
  }
  static bool takeFailure(int& left, const std::function<bool()>& fails) {
    if (left > 0) {
      --left;
      return true;
    }
    return fails && fails();
  }
};

}  // namespace stillow::test
