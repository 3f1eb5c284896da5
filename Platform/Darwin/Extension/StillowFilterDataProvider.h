// Objective-C.
#pragma once

#import <NetworkExtension/NetworkExtension.h>

NS_ASSUME_NONNULL_BEGIN

/// What the system asks about each flow. The extension's Info.plist names this class.
@interface StillowFilterDataProvider : NEFilterDataProvider
@end

NS_ASSUME_NONNULL_END
