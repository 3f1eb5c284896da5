// See README.md in the folder above.
#pragma once

#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

@protocol OSSystemExtensionRequestDelegate;

typedef NS_ENUM(NSInteger, OSSystemExtensionReplacementAction) {
  OSSystemExtensionReplacementActionCancel,
  OSSystemExtensionReplacementActionReplace,
};
typedef NS_ENUM(NSInteger, OSSystemExtensionRequestResult) {
  OSSystemExtensionRequestCompleted,
  OSSystemExtensionRequestWillCompleteAfterReboot,
};

@interface OSSystemExtensionRequest : NSObject
+ (instancetype)activationRequestForExtension:(NSString*)identifier queue:(dispatch_queue_t)queue;
+ (instancetype)deactivationRequestForExtension:(NSString*)identifier queue:(dispatch_queue_t)queue;
@property(weak, nonatomic) id<OSSystemExtensionRequestDelegate> delegate;
@end

@interface OSSystemExtensionProperties : NSObject
@end

@protocol OSSystemExtensionRequestDelegate <NSObject>
- (OSSystemExtensionReplacementAction)request:(OSSystemExtensionRequest*)request
                  actionForReplacingExtension:(OSSystemExtensionProperties*)existing
                                withExtension:(OSSystemExtensionProperties*)ext;
- (void)requestNeedsUserApproval:(OSSystemExtensionRequest*)request;
- (void)request:(OSSystemExtensionRequest*)request
    didFinishWithResult:(OSSystemExtensionRequestResult)result;
- (void)request:(OSSystemExtensionRequest*)request didFailWithError:(NSError*)error;
@end

@interface OSSystemExtensionManager : NSObject
@property(class, readonly) OSSystemExtensionManager* sharedManager;
- (void)submitRequest:(OSSystemExtensionRequest*)request;
@end

NS_ASSUME_NONNULL_END
