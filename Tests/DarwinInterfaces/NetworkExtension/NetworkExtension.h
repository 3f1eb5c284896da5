// See README.md in the folder above.
#pragma once

#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

// ---- the configuration

extern "C" NSString* const NEFilterConfigurationDidChangeNotification;

@interface NEFilterProviderConfiguration : NSObject
@property BOOL filterSockets;
@property BOOL filterPackets;
@property(copy, nullable) NSString* filterDataProviderBundleIdentifier;
@end

typedef NS_ENUM(NSInteger, NEFilterManagerGrade) {
  NEFilterManagerGradeFirewall = 1,
  NEFilterManagerGradeInspector = 2
};

@interface NEFilterManager : NSObject
+ (NEFilterManager*)sharedManager;
@property(class, readonly) NEFilterManager* sharedManager;
- (void)loadFromPreferencesWithCompletionHandler:
    (void (^)(NSError* _Nullable error))completionHandler;
- (void)saveToPreferencesWithCompletionHandler:
    (void (^)(NSError* _Nullable error))completionHandler;
- (void)removeFromPreferencesWithCompletionHandler:
    (void (^)(NSError* _Nullable error))completionHandler;
@property(copy, nullable) NSString* localizedDescription;
@property(strong, nullable) NEFilterProviderConfiguration* providerConfiguration;
@property(getter=isEnabled) BOOL enabled;
@property NEFilterManagerGrade grade;
@end

// ---- flows

@interface NWEndpoint : NSObject
@end

@interface NWHostEndpoint : NWEndpoint
@property(nonatomic, readonly) NSString* hostname;
@end

@interface NEFilterFlow : NSObject
@property(readonly, nullable) NSURL* URL;
@property(readonly) NSUUID* identifier;
@end

@interface NEFilterSocketFlow : NEFilterFlow
@property(readonly, nullable) NWEndpoint* remoteEndpoint;
@property(readonly, nullable) NSString* remoteHostname;
@property(readonly) int socketProtocol;
@end

// ---- what to look at

typedef NS_ENUM(NSInteger, NENetworkRuleProtocol) { NENetworkRuleProtocolAny = 0 };
typedef NS_ENUM(NSInteger, NETrafficDirection) { NETrafficDirectionOutbound = 2 };
typedef NS_ENUM(NSInteger, NEFilterAction) {
  NEFilterActionAllow = 1,
  NEFilterActionFilterData = 4
};

@interface NENetworkRule : NSObject
- (instancetype)initWithRemoteNetwork:(nullable NWHostEndpoint*)remoteNetwork
                         remotePrefix:(NSUInteger)remotePrefix
                         localNetwork:(nullable NWHostEndpoint*)localNetwork
                          localPrefix:(NSUInteger)localPrefix
                             protocol:(NENetworkRuleProtocol)protocol
                            direction:(NETrafficDirection)direction;
@end

@interface NEFilterRule : NSObject
- (instancetype)initWithNetworkRule:(NENetworkRule*)networkRule action:(NEFilterAction)action;
@end

@interface NEFilterSettings : NSObject
- (instancetype)initWithRules:(NSArray<NEFilterRule*>*)rules
                defaultAction:(NEFilterAction)defaultAction;
@end

// ---- verdicts

@interface NEFilterVerdict : NSObject
@end

@interface NEFilterNewFlowVerdict : NEFilterVerdict
+ (NEFilterNewFlowVerdict*)allowVerdict;
+ (NEFilterNewFlowVerdict*)dropVerdict;
+ (NEFilterNewFlowVerdict*)filterDataVerdictWithFilterInbound:(BOOL)filterInbound
                                             peekInboundBytes:(NSUInteger)peekInboundBytes
                                               filterOutbound:(BOOL)filterOutbound
                                            peekOutboundBytes:(NSUInteger)peekOutboundBytes;
@end

@interface NEFilterDataVerdict : NEFilterVerdict
+ (NEFilterDataVerdict*)allowVerdict;
+ (NEFilterDataVerdict*)dropVerdict;
+ (NEFilterDataVerdict*)dataVerdictWithPassBytes:(NSUInteger)passBytes
                                       peekBytes:(NSUInteger)peekBytes;
@end

// ---- the provider

typedef NS_ENUM(NSInteger, NEProviderStopReason) { NEProviderStopReasonNone = 0 };

@interface NEProvider : NSObject
+ (void)startSystemExtensionMode;
@end

@interface NEFilterProvider : NEProvider
- (void)startFilterWithCompletionHandler:(void (^)(NSError* _Nullable error))completionHandler;
- (void)stopFilterWithReason:(NEProviderStopReason)reason
           completionHandler:(void (^)(void))completionHandler;
@end

@interface NEFilterDataProvider : NEFilterProvider
- (NEFilterNewFlowVerdict*)handleNewFlow:(NEFilterFlow*)flow;
- (NEFilterDataVerdict*)handleOutboundDataFromFlow:(NEFilterFlow*)flow
                              readBytesStartOffset:(NSUInteger)offset
                                         readBytes:(NSData*)readBytes;
- (NEFilterDataVerdict*)handleOutboundDataCompleteForFlow:(NEFilterFlow*)flow;
- (void)applySettings:(nullable NEFilterSettings*)settings
    completionHandler:(void (^)(NSError* _Nullable error))completionHandler;
@end

NS_ASSUME_NONNULL_END
