#import "StillowFilterDataProvider.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <mutex>

#include "PlatformDarwinFilter/DirectiveFilter.hpp"

namespace {

using stillow::core::UUID;
using stillow::filtering::FlowDescription;
using stillow::filtering::FlowDisposition;
using stillow::filtering::FlowInspector;
using stillow::platform::DirectiveFilter;

constexpr const char* stateDirectory = STILLOW_STATE_DIRECTORY;

UUID identifierOf(NEFilterFlow* flow) {
  UUID identifier;
  [flow.identifier getUUIDBytes:identifier.bytes.data()];
  return identifier;
}

std::string text(NSString* value) {
  const char* const bytes = value.UTF8String;
  return bytes != nullptr ? bytes : std::string();
}

FlowInspector::Transport transportOf(NEFilterSocketFlow* flow) {
  if (flow.socketProtocol == IPPROTO_TCP) return FlowInspector::Transport::stream;
  if (flow.socketProtocol == IPPROTO_UDP) return FlowInspector::Transport::datagrams;
  return FlowInspector::Transport::other;
}

/// What the flow says of its far end, with the texts that the description refers to.
struct FarEnd {
  explicit FarEnd(NEFilterSocketFlow* flow)
      : urlHost(text(flow.URL.host)), remoteHostname(text(flow.remoteHostname)) {
    NWEndpoint* const remote = flow.remoteEndpoint;
    if ([remote isKindOfClass:NWHostEndpoint.class]) {
      endpointHost = text(static_cast<NWHostEndpoint*>(remote).hostname);
    }
    description.urlHost = urlHost;
    description.remoteHostname = remoteHostname;
    description.setEndpoint(endpointHost);
  }
  FarEnd(const FarEnd&) = delete;
  FarEnd& operator=(const FarEnd&) = delete;

  std::string urlHost;
  std::string remoteHostname;
  std::string endpointHost;
  FlowDescription description;
};

NSUInteger bytesOf(const FlowDisposition::allowUnderInspection& inspection) {
  return static_cast<NSUInteger>(inspection.peekBytes);
}

NEFilterNewFlowVerdict* newFlowVerdict(const FlowDisposition& disposition) {
  return stillow::core::match(
      disposition,
      [](const FlowDisposition::allowUnderInspection& inspection) {
        return [NEFilterNewFlowVerdict filterDataVerdictWithFilterInbound:NO
                                                         peekInboundBytes:0
                                                           filterOutbound:YES
                                                        peekOutboundBytes:bytesOf(inspection)];
      },
      [](const FlowDisposition::drop&) { return [NEFilterNewFlowVerdict dropVerdict]; },
      [](const FlowDisposition::allowAndRelease&) {
        return [NEFilterNewFlowVerdict allowVerdict];
      });
}

/// `shownBytes` are those that the disposition is about: inspection lets them pass.
NEFilterDataVerdict* dataVerdict(const FlowDisposition& disposition, NSUInteger shownBytes) {
  return stillow::core::match(
      disposition,
      [shownBytes](const FlowDisposition::allowUnderInspection& inspection) {
        return [NEFilterDataVerdict dataVerdictWithPassBytes:shownBytes
                                                   peekBytes:bytesOf(inspection)];
      },
      [](const FlowDisposition::drop&) { return [NEFilterDataVerdict dropVerdict]; },
      [](const FlowDisposition::allowAndRelease&) { return [NEFilterDataVerdict allowVerdict]; });
}

/// Flows of ours to anywhere are to be judged; those that others open to this machine are not.
NEFilterSettings* outboundSettings() {
  NENetworkRule* const outbound =
      [[NENetworkRule alloc] initWithRemoteNetwork:nil
                                      remotePrefix:0
                                      localNetwork:nil
                                       localPrefix:0
                                          protocol:NENetworkRuleProtocolAny
                                         direction:NETrafficDirectionOutbound];
  NEFilterRule* const rule = [[NEFilterRule alloc] initWithNetworkRule:outbound
                                                                action:NEFilterActionFilterData];
  return [[NEFilterSettings alloc] initWithRules:@[ rule ] defaultAction:NEFilterActionAllow];
}

}  // namespace

@implementation StillowFilterDataProvider {
  std::mutex _lock;
  /// Absent before the filter is started and after it was stopped. Flows are judged without the
  /// lock, so one may still be judged while the filter stops.
  std::shared_ptr<DirectiveFilter> _filter;
}

- (std::shared_ptr<DirectiveFilter>)currentFilter {
  const std::lock_guard lock(_lock);
  return _filter;
}

- (void)startFilterWithCompletionHandler:(void (^)(NSError* _Nullable error))completionHandler {
  const auto filter = std::make_shared<DirectiveFilter>(stateDirectory);
  // In force before the first flow is asked about.
  filter->start();
  {
    const std::lock_guard lock(_lock);
    _filter = filter;
  }
  [self applySettings:outboundSettings() completionHandler:completionHandler];
}

- (void)stopFilterWithReason:(NEProviderStopReason)__unused reason
           completionHandler:(void (^)(void))completionHandler {
  std::shared_ptr<DirectiveFilter> stopped;
  {
    const std::lock_guard lock(_lock);
    stopped.swap(_filter);
  }
  if (stopped) stopped->stop();
  completionHandler();
}

- (NEFilterNewFlowVerdict*)handleNewFlow:(NEFilterFlow*)flow {
  const auto filter = [self currentFilter];
  if (!filter || ![flow isKindOfClass:NEFilterSocketFlow.class]) {
    return [NEFilterNewFlowVerdict allowVerdict];
  }
  NEFilterSocketFlow* const socketFlow = static_cast<NEFilterSocketFlow*>(flow);
  const FarEnd farEnd(socketFlow);
  return newFlowVerdict(
      filter->beginFlow(identifierOf(flow), transportOf(socketFlow), farEnd.description));
}

- (NEFilterDataVerdict*)handleOutboundDataFromFlow:(NEFilterFlow*)flow
                              readBytesStartOffset:(NSUInteger)offset
                                         readBytes:(NSData*)readBytes {
  const auto filter = [self currentFilter];
  if (!filter) return [NEFilterDataVerdict allowVerdict];
  const auto* const bytes = static_cast<const std::uint8_t*>(readBytes.bytes);
  return dataVerdict(filter->showOutbound(identifierOf(flow), offset, {bytes, readBytes.length}),
                     readBytes.length);
}

- (NEFilterDataVerdict*)handleOutboundDataCompleteForFlow:(NEFilterFlow*)flow {
  const auto filter = [self currentFilter];
  if (!filter) return [NEFilterDataVerdict allowVerdict];
  return dataVerdict(filter->endOutbound(identifierOf(flow)), 0);
}
@end
