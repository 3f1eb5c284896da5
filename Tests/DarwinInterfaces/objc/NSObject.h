// See README.md in the folder above.
#pragma once

#include <cstddef>
#include <cstdint>

#pragma clang assume_nonnull begin

typedef bool BOOL;
#define YES __objc_yes
#define NO __objc_no
#define nil nullptr
#define __unused __attribute__((unused))

typedef long NSInteger;
typedef unsigned long NSUInteger;

@class NSString, Protocol;

@protocol NSObject
- (BOOL)isKindOfClass:(Class)aClass;
- (BOOL)conformsToProtocol:(Protocol*)aProtocol;
@end

__attribute__((objc_root_class))
@interface NSObject<NSObject>
+ (instancetype)alloc;
- (instancetype)init;
+ (Class)class;
- (id)copy;
@end

#pragma clang assume_nonnull end
