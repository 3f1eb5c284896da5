#include "PlatformDarwinText/LocalizedDate.hpp"

#import <Foundation/Foundation.h>

namespace stillow::platform {

std::string localizedDateAndTime(core::Date date) {
  @autoreleasepool {
    NSDateFormatter* const formatter = [[NSDateFormatter alloc] init];
    // One skeleton for both, not a pair of styles: those write a German date in figures only.
    [formatter setLocalizedDateFormatFromTemplate:@"yMMMdjmm"];
    NSDate* const moment =
        [NSDate dateWithTimeIntervalSinceReferenceDate:date.secondsSinceReferenceDate];
    const char* const text = [formatter stringFromDate:moment].UTF8String;
    // A calendar need not reach as far as a double does.
    return text != nullptr ? text : core::description(date);
  }
}

}  // namespace stillow::platform
