#include "PlatformDarwinFilter/DirectiveFilter.hpp"

#include <utility>

#include "PlatformDarwinFilter/SystemLog.hpp"
#include "StillowCore/SystemTime.hpp"

namespace stillow::platform {

namespace {

using core::EnforcementHealthStatus;
using filtering::FlowDisposition;
using filtering::FlowInspector;

FlowInspector::Moment now() { return {core::systemTime(), std::chrono::steady_clock::now()}; }

}  // namespace

DirectiveFilter::DirectiveFilter(const std::string& stateDirectory)
    : events_(stateDirectory, std::string(Store::fileName)),
      store_(fileSystem_, stateDirectory + "/" + std::string(Store::fileName)),
      classifier_(std::nullopt, core::systemTime(),
                  filtering::NameAddressAssociations::machineLimits),
      inspector_(classifier_),
      watcher_(
          store_, events_,
          [this](const auto& directive) { classifier_.adopt(directive, core::systemTime()); },
          [this](const auto& health) { reportHealth(health); }) {}

void DirectiveFilter::start() {
  if (const auto watching = watcher_.start(); !watching) {
    writeSystemLog("Cannot watch the enforcement directive: " + watching.error().message());
  }
}

void DirectiveFilter::stop() {
  watcher_.stop();
  writeSystemLog(description(classifier_.counters()));
}

FlowDisposition DirectiveFilter::beginFlow(const core::UUID& flow,
                                           FlowInspector::Transport transport,
                                           const filtering::FlowDescription& description) {
  events_.drain();
  return inspector_.begin(flow, transport, filtering::FlowEvidence::of(description), now());
}

FlowDisposition DirectiveFilter::showOutbound(const core::UUID& flow, std::uint64_t offset,
                                              filtering::WireBytes bytes) {
  events_.drain();
  return inspector_.showOutbound(flow, offset, bytes, now());
}

FlowDisposition DirectiveFilter::endOutbound(const core::UUID& flow) {
  return inspector_.endOutbound(flow, now());
}

void DirectiveFilter::reportHealth(const EnforcementHealthStatus& health) {
  {
    const std::lock_guard lock(healthLock_);
    // One line for each change of health, not for each event.
    if (health == health_) return;
    health_ = health;
  }
  if (core::is<EnforcementHealthStatus::healthy>(health)) {
    writeSystemLog("The enforcement directive is in force.");
    return;
  }
  const auto error = watcher_.lastReadError();
  writeSystemLog("Cannot read the enforcement directive: " +
                 (error ? error->description : std::string("the file is gone")));
}

}  // namespace stillow::platform
