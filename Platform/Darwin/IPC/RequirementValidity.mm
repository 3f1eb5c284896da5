/// Whether a requirement compiles, by the compiler that will evaluate it.
#import <Foundation/Foundation.h>
#import <Security/Security.h>

#import "PlatformDarwinIPC/FoundationValues.h"
#include "StillowIPC/CodeSigningRequirement.hpp"

namespace stillow::ipc {

bool CodeSigningRequirement::isValid() const {
  @autoreleasepool {
    SecRequirementRef requirement = nullptr;
    const OSStatus status = SecRequirementCreateWithString(
        (__bridge CFStringRef)platform::foundationString(text), kSecCSDefaultFlags, &requirement);
    if (requirement != nullptr) CFRelease(requirement);
    return status == errSecSuccess;
  }
}

}  // namespace stillow::ipc
