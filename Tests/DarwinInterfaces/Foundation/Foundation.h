// See README.md in the folder above.
#pragma once

#import <dispatch/dispatch.h>
#import <objc/NSObject.h>
#include <sys/types.h>

#define NS_ASSUME_NONNULL_BEGIN _Pragma("clang assume_nonnull begin")
#define NS_ASSUME_NONNULL_END _Pragma("clang assume_nonnull end")
#define NS_ENUM(type, name) \
  enum name : type name;    \
  enum name : type

NS_ASSUME_NONNULL_BEGIN

@class NSArray<ObjectType>, NSCharacterSet, NSData, NSDate, NSDictionary<KeyType, ObjectType>,
    NSError, NSFileHandle, NSOperationQueue, NSURL, NSURLCache, NSURLCredentialStorage,
    NSHTTPCookieStorage, NSURLSession, NSURLSessionTask, NSURLSessionDataTask, NSXPCConnection,
    NSXPCListener;

typedef struct __CFString const* CFStringRef;
typedef void const* CFTypeRef;
extern "C" void CFRelease(CFTypeRef object);

typedef double NSTimeInterval;
typedef unsigned int UTF32Char;
typedef struct NSRange {
  NSUInteger location;
  NSUInteger length;
} NSRange;

@protocol NSCopying
@end

// ---- values

typedef NS_ENUM(NSUInteger, NSStringEncoding) { NSUTF8StringEncoding = 4 };

@interface NSString : NSObject <NSCopying>
- (nullable instancetype)initWithBytes:(const void*)bytes
                                length:(NSUInteger)length
                              encoding:(NSStringEncoding)encoding;
+ (instancetype)stringWithFormat:(NSString*)format, ... __attribute__((format(__NSString__, 1, 2)));
@property(readonly) NSUInteger length;
@property(nullable, readonly) const char* UTF8String __attribute__((objc_returns_inner_pointer));
- (NSUInteger)lengthOfBytesUsingEncoding:(NSStringEncoding)encoding;
@property(readonly, copy) NSString* lowercaseString;
@property(readonly, copy) NSString* precomposedStringWithCanonicalMapping;
- (NSRange)rangeOfComposedCharacterSequenceAtIndex:(NSUInteger)index;
- (NSString*)substringWithRange:(NSRange)range;
@end

@interface NSCharacterSet : NSObject
@property(readonly, class, copy) NSCharacterSet* whitespaceAndNewlineCharacterSet;
- (BOOL)longCharacterIsMember:(UTF32Char)theLongChar;
@end

@interface NSData : NSObject <NSCopying>
+ (instancetype)data;
+ (instancetype)dataWithBytes:(nullable const void*)bytes length:(NSUInteger)length;
+ (nullable instancetype)dataWithContentsOfFile:(NSString*)path;
@property(readonly) const void* bytes __attribute__((objc_returns_inner_pointer));
@property(readonly) NSUInteger length;
@end

@interface NSArray<__covariant ObjectType> : NSObject
+ (instancetype)arrayWithObjects:(const ObjectType _Nonnull __unsafe_unretained[])objects
                           count:(NSUInteger)count;
@end

@interface NSMutableArray<ObjectType> : NSArray <ObjectType>
+ (instancetype)array;
- (void)addObject:(ObjectType)anObject;
@end

@interface NSDictionary<__covariant KeyType, __covariant ObjectType> : NSObject
+ (instancetype)dictionaryWithObjects:(const ObjectType _Nonnull __unsafe_unretained[])objects
                              forKeys:(const id<NSCopying> _Nonnull __unsafe_unretained[])keys
                                count:(NSUInteger)count;
- (nullable ObjectType)objectForKeyedSubscript:(KeyType)key;
@end

@interface NSMutableDictionary<KeyType, ObjectType> : NSDictionary <KeyType, ObjectType>
+ (instancetype)dictionary;
- (void)setObject:(nullable ObjectType)object forKeyedSubscript:(KeyType<NSCopying>)key;
@end

@interface NSUUID : NSObject
- (void)getUUIDBytes:(unsigned char[_Nonnull 16])uuid;
@end

typedef NSString* NSErrorDomain;
typedef NSString* NSErrorUserInfoKey;
extern "C" NSErrorUserInfoKey const NSLocalizedDescriptionKey;

@interface NSError : NSObject
+ (instancetype)errorWithDomain:(NSErrorDomain)domain
                           code:(NSInteger)code
                       userInfo:(nullable NSDictionary<NSErrorUserInfoKey, id>*)dict;
@property(readonly, copy) NSErrorDomain domain;
@property(readonly) NSInteger code;
@property(readonly, copy) NSDictionary<NSErrorUserInfoKey, id>* userInfo;
@property(readonly, copy) NSString* localizedDescription;
@end

@interface NSDate : NSObject
+ (instancetype)dateWithTimeIntervalSinceReferenceDate:(NSTimeInterval)seconds;
@end

@interface NSDateFormatter : NSObject
- (void)setLocalizedDateFormatFromTemplate:(NSString*)dateFormatTemplate;
- (NSString*)stringFromDate:(NSDate*)date;
@end

// ---- URLs, bundles, property lists

@interface NSURL : NSObject
+ (nullable instancetype)URLWithString:(NSString*)URLString;
+ (NSURL*)fileURLWithPath:(NSString*)path;
@property(nullable, readonly, copy) NSString* host;
@end

@interface NSURLComponents : NSObject
+ (nullable instancetype)componentsWithString:(NSString*)URLString;
@property(nullable, copy) NSString* encodedHost;
@end

@interface NSBundle : NSObject
@property(class, readonly, strong) NSBundle* mainBundle;
@property(readonly, copy) NSString* bundlePath;
@property(nullable, readonly, copy) NSString* bundleIdentifier;
@end

typedef NS_ENUM(NSUInteger, NSPropertyListMutabilityOptions) { NSPropertyListImmutable = 0 };
typedef NSPropertyListMutabilityOptions NSPropertyListReadOptions;
typedef NS_ENUM(NSUInteger, NSPropertyListFormat) { NSPropertyListXMLFormat_v1_0 = 100 };

@interface NSPropertyListSerialization : NSObject
+ (nullable id)propertyListWithData:(NSData*)data
                            options:(NSPropertyListReadOptions)opt
                             format:(nullable NSPropertyListFormat*)format
                              error:(NSError* _Nullable __autoreleasing* _Nullable)error;
@end

// ---- notifications

typedef NSString* NSNotificationName;
extern "C" NSNotificationName const NSSystemClockDidChangeNotification;
extern "C" NSNotificationName const NSSystemTimeZoneDidChangeNotification;

@interface NSNotification : NSObject
@end

@interface NSNotificationCenter : NSObject
@property(class, readonly, strong) NSNotificationCenter* defaultCenter;
- (id<NSObject>)addObserverForName:(nullable NSNotificationName)name
                            object:(nullable id)obj
                             queue:(nullable NSOperationQueue*)queue
                        usingBlock:(void (^)(NSNotification* notification))block;
- (void)removeObserver:(id)observer;
@end

// ---- processes

@interface NSFileHandle : NSObject
@property(class, readonly, strong) NSFileHandle* fileHandleWithNullDevice;
- (nullable NSData*)readDataToEndOfFileAndReturnError:
    (NSError* _Nullable __autoreleasing* _Nullable)error;
@end

@interface NSPipe : NSObject
+ (NSPipe*)pipe;
@property(readonly, retain) NSFileHandle* fileHandleForReading;
@end

typedef NS_ENUM(NSInteger, NSTaskTerminationReason) {
  NSTaskTerminationReasonExit = 1,
  NSTaskTerminationReasonUncaughtSignal = 2
};

@interface NSTask : NSObject
@property(nullable, copy) NSURL* executableURL;
@property(nullable, copy) NSArray<NSString*>* arguments;
@property(nullable, copy) NSDictionary<NSString*, NSString*>* environment;
@property(nullable, retain) id standardInput;
@property(nullable, retain) id standardOutput;
@property(nullable, retain) id standardError;
@property(readonly) int processIdentifier;
@property(readonly) int terminationStatus;
@property(readonly) NSTaskTerminationReason terminationReason;
@property(nullable, copy) void (^terminationHandler)(NSTask*);
- (BOOL)launchAndReturnError:(NSError* _Nullable __autoreleasing* _Nullable)error;
@end

// ---- URL sessions

typedef NS_ENUM(NSUInteger, NSURLRequestCachePolicy) {
  NSURLRequestReloadIgnoringLocalAndRemoteCacheData = 4
};

@interface NSURLRequest : NSObject
+ (instancetype)requestWithURL:(NSURL*)URL
                   cachePolicy:(NSURLRequestCachePolicy)cachePolicy
               timeoutInterval:(NSTimeInterval)timeoutInterval;
@end

@interface NSMutableURLRequest : NSURLRequest
@property(copy) NSString* HTTPMethod;
@end

@interface NSURLResponse : NSObject
@end

@interface NSHTTPURLResponse : NSURLResponse
@property(readonly) NSInteger statusCode;
@end

@interface NSURLSessionConfiguration : NSObject
@property(class, readonly, strong) NSURLSessionConfiguration* ephemeralSessionConfiguration;
@property NSURLRequestCachePolicy requestCachePolicy;
@property NSTimeInterval timeoutIntervalForRequest;
@property NSTimeInterval timeoutIntervalForResource;
@property BOOL HTTPShouldSetCookies;
@property NSInteger HTTPMaximumConnectionsPerHost;
@property(nullable, retain) NSHTTPCookieStorage* HTTPCookieStorage;
@property(nullable, retain) NSURLCredentialStorage* URLCredentialStorage;
@property(nullable, retain) NSURLCache* URLCache;
@end

typedef NS_ENUM(NSInteger, NSURLSessionResponseDisposition) {
  NSURLSessionResponseCancel = 0,
  NSURLSessionResponseAllow = 1
};

@protocol NSURLSessionDelegate <NSObject>
@end

@protocol NSURLSessionTaskDelegate <NSURLSessionDelegate>
@optional
- (void)URLSession:(NSURLSession*)session
                    task:(NSURLSessionTask*)task
    didCompleteWithError:(nullable NSError*)error;
@end

@protocol NSURLSessionDataDelegate <NSURLSessionTaskDelegate>
@optional
- (void)URLSession:(NSURLSession*)session
              dataTask:(NSURLSessionDataTask*)dataTask
    didReceiveResponse:(NSURLResponse*)response
     completionHandler:(void (^)(NSURLSessionResponseDisposition disposition))completionHandler;
- (void)URLSession:(NSURLSession*)session
          dataTask:(NSURLSessionDataTask*)dataTask
    didReceiveData:(NSData*)data;
@end

@interface NSURLSessionTask : NSObject
- (void)resume;
- (void)cancel;
@end

@interface NSURLSessionDataTask : NSURLSessionTask
@end

@interface NSURLSession : NSObject
+ (NSURLSession*)sessionWithConfiguration:(NSURLSessionConfiguration*)configuration
                                 delegate:(nullable id<NSURLSessionDelegate>)delegate
                            delegateQueue:(nullable NSOperationQueue*)queue;
- (NSURLSessionDataTask*)dataTaskWithRequest:(NSURLRequest*)request;
- (void)finishTasksAndInvalidate;
@end

// ---- connections between processes

@interface NSXPCInterface : NSObject
+ (NSXPCInterface*)interfaceWithProtocol:(Protocol*)protocol;
@end

@interface NSXPCListenerEndpoint : NSObject
@end

typedef NS_ENUM(NSUInteger, NSXPCConnectionOptions) { NSXPCConnectionPrivileged = 1UL << 12UL };

@interface NSXPCConnection : NSObject
- (instancetype)initWithMachServiceName:(NSString*)name options:(NSXPCConnectionOptions)options;
- (instancetype)initWithListenerEndpoint:(NSXPCListenerEndpoint*)endpoint;
@property(nullable, retain) NSXPCInterface* exportedInterface;
@property(nullable, retain) id exportedObject;
@property(nullable, retain) NSXPCInterface* remoteObjectInterface;
@property(readonly, retain) id remoteObjectProxy;
- (id)remoteObjectProxyWithErrorHandler:(void (^)(NSError* error))handler;
@property(nullable, copy) void (^interruptionHandler)(void);
@property(nullable, copy) void (^invalidationHandler)(void);
- (void)resume;
- (void)invalidate;
- (void)scheduleSendBarrierBlock:(void (^)(void))block;
- (void)setCodeSigningRequirement:(NSString*)requirement;
@end

@protocol NSXPCListenerDelegate <NSObject>
@optional
- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)newConnection;
@end

@interface NSXPCListener : NSObject
- (instancetype)initWithMachServiceName:(NSString*)name;
@property(nullable, weak) id<NSXPCListenerDelegate> delegate;
- (void)resume;
- (void)invalidate;
@end

NS_ASSUME_NONNULL_END
