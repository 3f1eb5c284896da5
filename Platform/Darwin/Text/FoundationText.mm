/// StillowCore's text rules over Foundation.
#import <Foundation/Foundation.h>

#include <string>

#include "StillowCore/Text.hpp"

namespace stillow::core::text::platform {

namespace {

/// Never nil: what comes here is well-formed UTF-8.
NSString* foundationText(std::string_view text) {
  NSString* const converted = [[NSString alloc] initWithBytes:text.data()
                                                       length:text.size()
                                                     encoding:NSUTF8StringEncoding];
  return converted != nil ? converted : @"";
}

std::string utf8(NSString* text) {
  const char* const bytes = text.UTF8String;
  if (bytes == nullptr) return {};
  return {bytes, [text lengthOfBytesUsingEncoding:NSUTF8StringEncoding]};
}

}  // namespace

char32_t lowercased(char32_t codePoint) noexcept {
  @autoreleasepool {
    std::string bytes;
    appendUTF8(bytes, codePoint);
    const std::string lower = utf8(foundationText(bytes).lowercaseString);
    return lower.empty() ? codePoint : codePointAt(lower, 0).value;
  }
}

bool isWhitespace(char32_t codePoint) noexcept {
  // Foundation's set is that of the character property and one more: the zero-width space.
  constexpr char32_t zeroWidthSpace = 0x200B;
  return codePoint != zeroWidthSpace &&
         [NSCharacterSet.whitespaceAndNewlineCharacterSet longCharacterIsMember:codePoint];
}

std::string canonicallyComposed(std::string_view text) {
  @autoreleasepool {
    return utf8(foundationText(text).precomposedStringWithCanonicalMapping);
  }
}

bool areSeparateCharacters(char32_t left, char32_t right) noexcept {
  @autoreleasepool {
    std::string pair;
    appendUTF8(pair, left);
    const std::size_t unitsOfLeft = foundationText(pair).length;
    appendUTF8(pair, right);
    return [foundationText(pair) rangeOfComposedCharacterSequenceAtIndex:0].length == unitsOfLeft;
  }
}

std::optional<std::string> idnaToASCII(std::string_view host) {
  constexpr NSUInteger codeUnitsMax = 2048;
  @autoreleasepool {
    NSString* const name = foundationText(host);
    if (name.length == 0 || name.length > codeUnitsMax) return std::nullopt;
    NSURLComponents* const components =
        [NSURLComponents componentsWithString:[NSString stringWithFormat:@"http://%@/", name]];
    // Not the percent-encoded host, which shows the name as it was typed.
    NSString* const encoded = components.encodedHost;
    if (encoded.length == 0) return std::nullopt;
    std::string ascii = utf8(encoded);
    // Whatever the URL reader could not convert is no host.
    if (!isASCII(ascii) || ascii.find('%') != std::string::npos) return std::nullopt;
    return ascii;
  }
}

}  // namespace stillow::core::text::platform
