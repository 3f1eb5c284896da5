// The protocols that cross the process boundary. Objective-C, for the adapters beside this file.
#pragma once

#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

/// Either bytes or an error; an answer with neither is a fault of whoever gave it.
typedef void (^StillowXPCReply)(NSData* _Nullable bytes, NSError* _Nullable error);

/// What the daemon exports. Requests and answers are the encoded records, as docs/protocol.md has
/// them.
@protocol StillowDaemonXPCProtocol
- (void)statusWithReply:(StillowXPCReply)reply;
- (void)activateWithRequest:(NSData*)request reply:(StillowXPCReply)reply;
- (void)strengthenWithRequest:(NSData*)request reply:(StillowXPCReply)reply;
- (void)extendWithRequest:(NSData*)request reply:(StillowXPCReply)reply;
- (void)subscribeToStatusChangesWithReply:(StillowXPCReply)reply;
- (void)validateEnforcementWithReply:(StillowXPCReply)reply;
- (void)acknowledgeExpiryWithReply:(StillowXPCReply)reply;
- (void)armFilterConfigurationWithReply:(StillowXPCReply)reply;
- (void)announceUserInterfaceWithReply:(StillowXPCReply)reply;
@end

/// What a client exports to the daemon.
@protocol StillowDaemonClientXPCProtocol
- (void)daemonStatusChangedWithStatus:(NSData*)status;
@end

NS_ASSUME_NONNULL_END
