// See README.md in the folder above.
#pragma once

#import <dispatch/dispatch.h>
#import <objc/NSObject.h>

#pragma clang assume_nonnull begin

@protocol OS_nw_path <NSObject>
@end
@protocol OS_nw_path_monitor <NSObject>
@end
@protocol OS_nw_interface <NSObject>
@end
typedef NSObject<OS_nw_path>* nw_path_t;
typedef NSObject<OS_nw_path_monitor>* nw_path_monitor_t;
typedef NSObject<OS_nw_interface>* nw_interface_t;

typedef enum { nw_interface_type_other = 0 } nw_interface_type_t;
typedef enum { nw_path_status_invalid = 0, nw_path_status_satisfied = 1 } nw_path_status_t;
typedef void (^nw_path_monitor_update_handler_t)(nw_path_t path);
typedef bool (^nw_path_enumerate_interfaces_block_t)(nw_interface_t interface);

extern "C" {
nw_path_monitor_t nw_path_monitor_create(void);
void nw_path_monitor_set_update_handler(nw_path_monitor_t monitor,
                                        nw_path_monitor_update_handler_t update_handler);
void nw_path_monitor_set_queue(nw_path_monitor_t monitor, dispatch_queue_t queue);
void nw_path_monitor_start(nw_path_monitor_t monitor);
void nw_path_monitor_cancel(nw_path_monitor_t monitor);
nw_path_status_t nw_path_get_status(nw_path_t path);
bool nw_path_uses_interface_type(nw_path_t path, nw_interface_type_t interface_type);
void nw_path_enumerate_interfaces(
    nw_path_t path, __attribute__((noescape)) nw_path_enumerate_interfaces_block_t block);
const char* nw_interface_get_name(nw_interface_t interface);
}

#pragma clang assume_nonnull end
