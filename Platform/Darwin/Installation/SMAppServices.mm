#include "PlatformDarwinInstallation/SMAppServices.hpp"

#import <Foundation/Foundation.h>
#import <ServiceManagement/SMAppService.h>

#import "PlatformDarwinIPC/FoundationValues.h"

namespace stillow::platform {

namespace {

using ipc::DaemonRegistration;

DaemonRegistration::Result resultOf(BOOL isDone, NSError* error) {
  if (isDone) return {};
  if (error == nil) {
    return std::unexpected(
        ipc::PlatformError{.domain = std::string(ipc::PlatformError::cocoaDomain),
                           .code = 0,
                           .description = "The system gave no reason.",
                           .payload = std::nullopt});
  }
  return std::unexpected(platformError(error));
}

class AppService final : public ipc::DaemonService {
 public:
  DaemonRegistration::State state() override {
    return DaemonRegistration::stateOf(service_.status);
  }
  DaemonRegistration::Result registerService() override {
    @autoreleasepool {
      NSError* error = nil;
      const BOOL isDone = [service_ registerAndReturnError:&error];
      return resultOf(isDone, error);
    }
  }
  DaemonRegistration::Result unregisterService() override {
    @autoreleasepool {
      NSError* error = nil;
      const BOOL isDone = [service_ unregisterAndReturnError:&error];
      return resultOf(isDone, error);
    }
  }

 private:
  SMAppService* const service_ =
      [SMAppService daemonServiceWithPlistName:foundationString(DaemonRegistration::plistName)];
};

}  // namespace

std::unique_ptr<ipc::DaemonService> SMAppServices::daemonService() {
  return std::make_unique<AppService>();
}

std::optional<std::string> propertyListText(const std::filesystem::path& path,
                                            std::string_view key) {
  @autoreleasepool {
    NSData* const bytes = [NSData dataWithContentsOfFile:foundationString(path.native())];
    if (bytes == nil) return std::nullopt;
    const id list = [NSPropertyListSerialization propertyListWithData:bytes
                                                              options:NSPropertyListImmutable
                                                               format:nil
                                                                error:nil];
    if (![list isKindOfClass:NSDictionary.class]) return std::nullopt;
    const id text = static_cast<NSDictionary*>(list)[foundationString(key)];
    if (![text isKindOfClass:NSString.class]) return std::nullopt;
    return utf8String(text);
  }
}

std::optional<std::filesystem::path> applicationBundle() {
  @autoreleasepool {
    NSBundle* const bundle = NSBundle.mainBundle;
    // Of an executable that lies in no bundle it is the directory, without an identifier.
    if (bundle.bundleIdentifier == nil) return std::nullopt;
    return std::filesystem::path(utf8String(bundle.bundlePath));
  }
}

}  // namespace stillow::platform
