#include "PlatformDarwinDaemon/NEFilterManagerConfiguration.hpp"

#import <NetworkExtension/NetworkExtension.h>

#include <functional>
#include <future>
#include <optional>
#include <utility>

#import "PlatformDarwinIPC/FoundationValues.h"
#include "StillowAuthority/FilterManagerRules.hpp"
#include "StillowConcurrency/Deadline.hpp"
#include "StillowConcurrency/OneShot.hpp"

namespace stillow::platform {

namespace {

using authority::FilterArmingState;
using authority::FilterConfigurationError;
using authority::FilterManagerPreferences;
using authority::FilterManagerRules;
using authority::FilterPathReadiness;
using concurrency::OneShot;
using concurrency::Sleeper;
using concurrency::Task;

using Identity = NEFilterManagerConfiguration::Identity;
/// None, or the system's words for what went wrong.
using Problem = std::optional<std::string>;

Problem problemOf(NSError* error) {
  if (error == nil) return std::nullopt;
  return utf8String(error.localizedDescription);
}

FilterManagerPreferences preferences() {
  @autoreleasepool {
    NEFilterManager* const manager = NEFilterManager.sharedManager;
    NEFilterProviderConfiguration* const configuration = manager.providerConfiguration;
    NSString* const provider = configuration.filterDataProviderBundleIdentifier;
    FilterManagerPreferences found{.isEnabled = manager.isEnabled == YES,
                                   .providerBundleIdentifier = std::nullopt,
                                   .hasConfiguration = configuration != nil};
    if (provider != nil) found.providerBundleIdentifier = utf8String(provider);
    return found;
  }
}

void disable() { NEFilterManager.sharedManager.enabled = NO; }

void enable(const Identity& identity) {
  NEFilterProviderConfiguration* const configuration = [[NEFilterProviderConfiguration alloc] init];
  configuration.filterSockets = YES;
  configuration.filterPackets = NO;
  configuration.filterDataProviderBundleIdentifier =
      foundationString(identity.providerBundleIdentifier);
  NEFilterManager* const manager = NEFilterManager.sharedManager;
  manager.providerConfiguration = configuration;
  manager.localizedDescription = foundationString(identity.localizedDescription);
  manager.grade = NEFilterManagerGradeFirewall;
  manager.enabled = YES;
}

/// Calls `loaded` on the main queue once the preferences are read, with what went wrong. All that
/// is asked of the manager is asked there: it is one object for the whole process.
void load(std::function<void(Problem)> loaded) {
  dispatch_async(dispatch_get_main_queue(), ^{
    [NEFilterManager.sharedManager loadFromPreferencesWithCompletionHandler:^(NSError* error) {
      loaded(problemOf(error));
    }];
  });
}

using ApplyResult = std::expected<void, FilterConfigurationError>;
using ReadinessResult = std::expected<FilterPathReadiness, FilterConfigurationError>;

std::unexpected<FilterConfigurationError> failure(std::string problem) {
  return std::unexpected(FilterConfigurationError{std::move(problem)});
}

void save(const OneShot<ApplyResult>& done) {
  [NEFilterManager.sharedManager saveToPreferencesWithCompletionHandler:^(NSError* error) {
    done.settle(error == nil ? ApplyResult() : failure(*problemOf(error)));
  }];
}

void applyTo(FilterArmingState desired, const std::shared_ptr<const Identity>& identity,
             const OneShot<ApplyResult>& done) {
  load([desired, identity, done](Problem problem) {
    if (problem) {
      done.settle(failure(std::move(*problem)));
      return;
    }
    switch (FilterManagerRules::step(desired, preferences().isEnabled)) {
      case FilterManagerRules::Step::nothing:
        done.settle(ApplyResult());
        return;
      case FilterManagerRules::Step::saveDisabled:
        disable();
        break;
      case FilterManagerRules::Step::saveArmed:
        enable(*identity);
        break;
    }
    save(done);
  });
}

void readInto(const std::shared_ptr<const Identity>& identity,
              const OneShot<ReadinessResult>& done) {
  load([identity, done](Problem problem) {
    if (problem) {
      done.settle(failure(std::move(*problem)));
    } else {
      done.settle(FilterManagerRules::readiness(preferences(), identity->providerBundleIdentifier));
    }
  });
}

/// What `done` is settled with, or the failure that it was not in time. A change that the system
/// makes later than that still happens; whoever asks again finds it.
template <class Result>
Task<Result> inTime(OneShot<Result> done, std::shared_ptr<Sleeper> sleeper) {
  std::optional<Result> result = co_await concurrency::within<Result>(
      NEFilterManagerConfiguration::answerMax, std::move(sleeper), done.wait());
  if (!result) co_return failure("The system did not answer about the content filter.");
  co_return std::move(*result);
}

}  // namespace

NEFilterManagerConfiguration::NEFilterManagerConfiguration(Identity identity,
                                                           std::shared_ptr<Sleeper> sleeper)
    : identity_(std::make_shared<const Identity>(std::move(identity))),
      sleeper_(std::move(sleeper)) {}

Task<ApplyResult> NEFilterManagerConfiguration::apply(FilterArmingState desired) {
  const OneShot<ApplyResult> done;
  applyTo(desired, identity_, done);
  return inTime(done, sleeper_);
}

Task<ReadinessResult> NEFilterManagerConfiguration::readiness() {
  const OneShot<ReadinessResult> done;
  readInto(identity_, done);
  return inTime(done, sleeper_);
}

std::expected<void, std::string> NEFilterManagerRemoval::remove() {
  using Removed = std::expected<void, std::string>;
  const auto removed = std::make_shared<std::promise<Removed>>();
  std::future<Removed> result = removed->get_future();
  load([removed](Problem problem) {
    if (problem) {
      removed->set_value(std::unexpected(std::move(*problem)));
    } else if (!FilterManagerRules::hasSomethingToRemove(preferences())) {
      removed->set_value({});
    } else {
      [NEFilterManager.sharedManager removeFromPreferencesWithCompletionHandler:^(NSError* error) {
        removed->set_value(error == nil ? Removed() : std::unexpected(*problemOf(error)));
      }];
    }
  });
  if (result.wait_for(NEFilterManagerConfiguration::answerMax) != std::future_status::ready) {
    return std::unexpected("the system did not answer");
  }
  return result.get();
}

}  // namespace stillow::platform
