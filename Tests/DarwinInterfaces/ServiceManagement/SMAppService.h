// See README.md in the folder above.
#pragma once

#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

typedef NS_ENUM(NSInteger, SMAppServiceStatus) {
  SMAppServiceStatusNotRegistered,
  SMAppServiceStatusEnabled,
  SMAppServiceStatusRequiresApproval,
  SMAppServiceStatusNotFound,
};

@interface SMAppService : NSObject
+ (instancetype)daemonServiceWithPlistName:(NSString*)plistName;
- (BOOL)registerAndReturnError:(NSError* _Nullable __autoreleasing* _Nullable)error;
- (BOOL)unregisterAndReturnError:(NSError* _Nullable __autoreleasing* _Nullable)error;
@property(readonly) SMAppServiceStatus status;
@end

NS_ASSUME_NONNULL_END
