#include "PlatformDarwinInstallation/SystemExtensionRequests.hpp"

#import <Foundation/Foundation.h>
#import <SystemExtensions/SystemExtensions.h>

#include <future>
#include <utility>

#import "PlatformDarwinIPC/FoundationValues.h"

using stillow::platform::SystemExtensionAnswer;
using SystemExtensionResult = std::expected<SystemExtensionAnswer, std::string>;

/// Told by the system, on a queue of its own, what became of one request.
@interface StillowExtensionRequestDelegate : NSObject <OSSystemExtensionRequestDelegate>
- (instancetype)initWithWaiting:(std::function<void()>)waiting;
- (std::future<SystemExtensionResult>)result;
@end

@implementation StillowExtensionRequestDelegate {
  std::function<void()> _waiting;
  std::promise<SystemExtensionResult> _result;
}

- (instancetype)initWithWaiting:(std::function<void()>)waiting {
  self = [super init];
  if (self != nil) _waiting = std::move(waiting);
  return self;
}

- (std::future<SystemExtensionResult>)result {
  return _result.get_future();
}

- (OSSystemExtensionReplacementAction)request:(OSSystemExtensionRequest*)__unused request
                  actionForReplacingExtension:(OSSystemExtensionProperties*)__unused existing
                                withExtension:(OSSystemExtensionProperties*)__unused ext {
  // What lies in the application is what belongs to it, newer or older.
  return OSSystemExtensionReplacementActionReplace;
}

- (void)requestNeedsUserApproval:(OSSystemExtensionRequest*)__unused request {
  if (_waiting) std::exchange(_waiting, nullptr)();
}

- (void)request:(OSSystemExtensionRequest*)__unused request
    didFinishWithResult:(OSSystemExtensionRequestResult)result {
  _result.set_value(result == OSSystemExtensionRequestCompleted
                        ? SystemExtensionAnswer::done
                        : SystemExtensionAnswer::doneAfterRestart);
}

- (void)request:(OSSystemExtensionRequest*)__unused request didFailWithError:(NSError*)error {
  _result.set_value(std::unexpected(stillow::platform::utf8String(error.localizedDescription)));
}
@end

namespace stillow::platform {

namespace {

SystemExtensionResult submit(OSSystemExtensionRequest* request,
                             const std::function<void()>& onWaiting) {
  // Held weakly by the request, so this frame keeps it to its end.
  StillowExtensionRequestDelegate* const delegate __attribute__((objc_precise_lifetime)) =
      [[StillowExtensionRequestDelegate alloc] initWithWaiting:onWaiting];
  auto result = [delegate result];
  request.delegate = delegate;
  [OSSystemExtensionManager.sharedManager submitRequest:request];
  return result.get();
}

dispatch_queue_t requestQueue() {
  return dispatch_queue_create("com.larchmoor.Stillow.extension", DISPATCH_QUEUE_SERIAL);
}

}  // namespace

SystemExtensionResult activateSystemExtension(std::string_view bundleIdentifier,
                                              const std::function<void()>& onWaiting) {
  @autoreleasepool {
    return submit(
        [OSSystemExtensionRequest activationRequestForExtension:foundationString(bundleIdentifier)
                                                          queue:requestQueue()],
        onWaiting);
  }
}

SystemExtensionResult deactivateSystemExtension(std::string_view bundleIdentifier,
                                                const std::function<void()>& onWaiting) {
  @autoreleasepool {
    return submit(
        [OSSystemExtensionRequest deactivationRequestForExtension:foundationString(bundleIdentifier)
                                                            queue:requestQueue()],
        onWaiting);
  }
}

}  // namespace stillow::platform
