// See README.md in the folder above.
#pragma once

#include <cstdint>

#import <objc/NSObject.h>

#pragma clang assume_nonnull begin

@protocol OS_dispatch_object <NSObject>
@end
@protocol OS_dispatch_queue <OS_dispatch_object>
@end
@protocol OS_dispatch_queue_attr <OS_dispatch_object>
@end
@protocol OS_dispatch_source <OS_dispatch_object>
@end
@protocol OS_dispatch_semaphore <OS_dispatch_object>
@end
typedef NSObject<OS_dispatch_object>* dispatch_object_t;
typedef NSObject<OS_dispatch_queue>* dispatch_queue_t;
typedef NSObject<OS_dispatch_queue>* dispatch_queue_main_t;
typedef NSObject<OS_dispatch_queue_attr>* dispatch_queue_attr_t;
typedef NSObject<OS_dispatch_source>* dispatch_source_t;
typedef NSObject<OS_dispatch_semaphore>* dispatch_semaphore_t;
typedef const struct dispatch_source_type_s* dispatch_source_type_t;
typedef void (^dispatch_block_t)(void);
typedef void (*dispatch_function_t)(void* _Nullable);
typedef std::uint64_t dispatch_time_t;

#define DISPATCH_TIME_NOW (0ull)
#define DISPATCH_QUEUE_SERIAL nil

enum : unsigned long {
  DISPATCH_VNODE_DELETE = 0x1,
  DISPATCH_VNODE_WRITE = 0x2,
  DISPATCH_VNODE_RENAME = 0x20,
};

extern "C" {
extern const struct dispatch_source_type_s stillow_vnode_source_type;
#define DISPATCH_SOURCE_TYPE_VNODE (&stillow_vnode_source_type)

dispatch_queue_t dispatch_queue_create(const char* _Nullable label,
                                       dispatch_queue_attr_t _Nullable attr);
dispatch_queue_main_t dispatch_get_main_queue(void);
void dispatch_async(dispatch_queue_t queue, dispatch_block_t block);
void dispatch_sync(dispatch_queue_t queue, __attribute__((noescape)) dispatch_block_t block);
[[noreturn]] void dispatch_main(void);

void dispatch_queue_set_specific(dispatch_queue_t queue, const void* key, void* _Nullable context,
                                 dispatch_function_t _Nullable destructor);
void* _Nullable dispatch_get_specific(const void* key);

dispatch_source_t dispatch_source_create(dispatch_source_type_t type, std::uintptr_t handle,
                                         std::uintptr_t mask, dispatch_queue_t _Nullable queue);
void dispatch_source_set_event_handler(dispatch_source_t source,
                                       dispatch_block_t _Nullable handler);
void dispatch_source_set_cancel_handler(dispatch_source_t source,
                                        dispatch_block_t _Nullable handler);
void dispatch_source_cancel(dispatch_source_t source);
void dispatch_resume(dispatch_object_t object);

dispatch_semaphore_t dispatch_semaphore_create(std::intptr_t value);
std::intptr_t dispatch_semaphore_signal(dispatch_semaphore_t semaphore);
std::intptr_t dispatch_semaphore_wait(dispatch_semaphore_t semaphore, dispatch_time_t timeout);
dispatch_time_t dispatch_time(dispatch_time_t when, std::int64_t delta);
}

#pragma clang assume_nonnull end
