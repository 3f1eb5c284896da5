#include "PlatformDarwinDaemon/LaunchctlJobUnloader.hpp"

#import <Foundation/Foundation.h>

#include <csignal>

#import "PlatformDarwinIPC/FoundationValues.h"
#include "StillowAuthority/LaunchctlBootout.hpp"

namespace stillow::platform {

namespace {

using authority::LaunchctlBootout;

/// What is in the pipe when the command has ended. It says a line or two, which a pipe holds, so
/// nobody has to read while it runs.
std::string contentsOf(NSPipe* pipe) {
  NSData* const data = [pipe.fileHandleForReading readDataToEndOfFileAndReturnError:nil];
  if (data == nil) return {};
  return {static_cast<const char*>(data.bytes), data.length};
}

}  // namespace

std::expected<void, std::string> LaunchctlJobUnloader::unload(std::string_view label) {
  @autoreleasepool {
    NSMutableArray<NSString*>* const arguments = [NSMutableArray array];
    for (const std::string& argument : LaunchctlBootout::arguments(label)) {
      [arguments addObject:foundationString(argument)];
    }
    NSTask* const task = [[NSTask alloc] init];
    NSPipe* const output = [NSPipe pipe];
    NSPipe* const errors = [NSPipe pipe];
    task.executableURL = [NSURL fileURLWithPath:foundationString(LaunchctlBootout::program)];
    task.arguments = arguments;
    // Nothing that the caller's environment says reaches the command.
    task.environment = @{};
    task.standardInput = NSFileHandle.fileHandleWithNullDevice;
    task.standardOutput = output;
    task.standardError = errors;
    const dispatch_semaphore_t ended = dispatch_semaphore_create(0);
    task.terminationHandler = ^(NSTask*) {
      dispatch_semaphore_signal(ended);
    };

    NSError* error = nil;
    if (![task launchAndReturnError:&error]) {
      return std::unexpected(utf8String(error.localizedDescription));
    }
    const auto nanoseconds = std::chrono::nanoseconds(commandMax).count();
    if (dispatch_semaphore_wait(ended, dispatch_time(DISPATCH_TIME_NOW, nanoseconds)) != 0) {
      // The child has not been waited for, so its id is still its own.
      (void)::kill(task.processIdentifier, SIGKILL);
      return std::unexpected("launchctl bootout took too long");
    }
    if (task.terminationReason != NSTaskTerminationReasonExit) {
      return std::unexpected("launchctl bootout was ended by signal " +
                             std::to_string(task.terminationStatus));
    }
    return LaunchctlBootout::result(task.terminationStatus, contentsOf(errors));
  }
}

}  // namespace stillow::platform
