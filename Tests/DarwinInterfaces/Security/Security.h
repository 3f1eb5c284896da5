// See README.md in the folder above.
#pragma once

#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

typedef std::int32_t OSStatus;
typedef struct __SecRequirement* SecRequirementRef;
enum : OSStatus { errSecSuccess = 0 };
typedef std::uint32_t SecCSFlags;
enum : SecCSFlags { kSecCSDefaultFlags = 0 };

extern "C" OSStatus SecRequirementCreateWithString(
    CFStringRef text, SecCSFlags flags, SecRequirementRef _Nullable* _Nonnull requirement);

NS_ASSUME_NONNULL_END
