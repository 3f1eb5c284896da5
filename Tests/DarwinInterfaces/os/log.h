// See README.md in the folder above.
#pragma once

#import <objc/NSObject.h>

@protocol OS_os_log <NSObject>
@end
typedef NSObject<OS_os_log>* os_log_t;

extern "C" {
extern const os_log_t stillow_default_log;
void stillow_log(os_log_t log, const char* format, ...) __attribute__((format(os_log, 2, 3)));
}
#define OS_LOG_DEFAULT stillow_default_log
#define os_log(log, format, ...) stillow_log(log, format __VA_OPT__(, ) __VA_ARGS__)
