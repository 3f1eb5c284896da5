// The filter extension: the system starts it, asks it about flows and ends it.
#import <NetworkExtension/NetworkExtension.h>

#import "StillowFilterDataProvider.h"

int main() {
  @autoreleasepool {
    // The system finds the class by the name in Info.plist; named here as well, so that the linker
    // keeps it.
    (void)StillowFilterDataProvider.class;
    [NEProvider startSystemExtensionMode];
  }
  dispatch_main();
}
