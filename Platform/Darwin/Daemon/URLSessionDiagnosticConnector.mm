#include "PlatformDarwinDaemon/URLSessionDiagnosticConnector.hpp"

#import <Foundation/Foundation.h>

#include <utility>

#import "PlatformDarwinIPC/FoundationValues.h"
#include "StillowAuthority/DiagnosticAnswer.hpp"
#include "StillowConcurrency/OneShot.hpp"

using stillow::authority::DiagnosticAnswer;
using stillow::authority::DiagnosticConnectionOutcome;
using stillow::concurrency::OneShot;

/// Collects one answer. Called on the session's own serial queue.
@interface StillowDiagnosticDelegate : NSObject <NSURLSessionDataDelegate>
- (instancetype)initWithAnswer:(DiagnosticAnswer)answer
                          done:(OneShot<DiagnosticConnectionOutcome>)done;
@end

@implementation StillowDiagnosticDelegate {
  std::optional<DiagnosticAnswer> _answer;
  std::optional<OneShot<DiagnosticConnectionOutcome>> _done;
}

- (instancetype)initWithAnswer:(DiagnosticAnswer)answer
                          done:(OneShot<DiagnosticConnectionOutcome>)done {
  self = [super init];
  if (self != nil) {
    _answer = std::move(answer);
    _done = std::move(done);
  }
  return self;
}

- (void)URLSession:(NSURLSession*)__unused session
              dataTask:(NSURLSessionDataTask*)__unused dataTask
    didReceiveResponse:(NSURLResponse*)response
     completionHandler:(void (^)(NSURLSessionResponseDisposition))completionHandler {
  if ([response isKindOfClass:NSHTTPURLResponse.class]) {
    _answer->respond(static_cast<NSHTTPURLResponse*>(response).statusCode);
  } else {
    _answer->respond(std::nullopt);
  }
  completionHandler(NSURLSessionResponseAllow);
}

- (void)URLSession:(NSURLSession*)__unused session
          dataTask:(NSURLSessionDataTask*)dataTask
    didReceiveData:(NSData*)data {
  if (!_answer->take({static_cast<const char*>(data.bytes), data.length})) [dataTask cancel];
}

- (void)URLSession:(NSURLSession*)session
                    task:(NSURLSessionTask*)__unused task
    didCompleteWithError:(nullable NSError*)error {
  // The session keeps its delegate until it is told that nothing more will be asked of it.
  [session finishTasksAndInvalidate];
  _done->settle(_answer->outcome(error != nil));
}
@end

namespace stillow::platform {

namespace {

NSURLSessionConfiguration* configurationWith(NSTimeInterval timeout) {
  NSURLSessionConfiguration* const configuration =
      NSURLSessionConfiguration.ephemeralSessionConfiguration;
  configuration.timeoutIntervalForRequest = timeout;
  configuration.timeoutIntervalForResource = timeout;
  configuration.URLCache = nil;
  configuration.requestCachePolicy = NSURLRequestReloadIgnoringLocalAndRemoteCacheData;
  configuration.HTTPCookieStorage = nil;
  configuration.HTTPShouldSetCookies = NO;
  configuration.URLCredentialStorage = nil;
  configuration.HTTPMaximumConnectionsPerHost = 1;
  return configuration;
}

void begin(std::string host, std::chrono::nanoseconds timeout,
           const OneShot<DiagnosticConnectionOutcome>& done) {
  @autoreleasepool {
    const NSTimeInterval seconds = std::chrono::duration<double>(timeout).count();
    NSURL* const url = [NSURL URLWithString:foundationString("https://" + host + "/")];
    if (url == nil) {
      done.settle(DiagnosticConnectionOutcome::connectionFailed);
      return;
    }
    NSMutableURLRequest* const request =
        [NSMutableURLRequest requestWithURL:url
                                cachePolicy:NSURLRequestReloadIgnoringLocalAndRemoteCacheData
                            timeoutInterval:seconds];
    request.HTTPMethod = @"GET";
    StillowDiagnosticDelegate* const delegate =
        [[StillowDiagnosticDelegate alloc] initWithAnswer:DiagnosticAnswer(std::move(host))
                                                     done:done];
    NSURLSession* const session = [NSURLSession sessionWithConfiguration:configurationWith(seconds)
                                                                delegate:delegate
                                                           delegateQueue:nil];
    [[session dataTaskWithRequest:request] resume];
  }
}

concurrency::Task<DiagnosticConnectionOutcome> connecting(std::string host,
                                                          std::chrono::nanoseconds timeout) {
  const OneShot<DiagnosticConnectionOutcome> done;
  begin(std::move(host), timeout, done);
  const DiagnosticConnectionOutcome outcome = co_await done.wait();
  co_return outcome;
}

}  // namespace

concurrency::Task<DiagnosticConnectionOutcome> URLSessionDiagnosticConnector::connect(
    std::string host, std::chrono::nanoseconds timeout) {
  return connecting(std::move(host), timeout);
}

}  // namespace stillow::platform
