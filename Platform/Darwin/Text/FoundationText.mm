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

std::string lowercased(std::string_view text) {
  @autoreleasepool {
    std::string lower;
    lower.reserve(text.size() + 4);
    for (std::size_t at = 0; at < text.size();) {
      const auto next = codePointAt(text, at);
      if (next.value < 0x80) {
        lower += lowercasedASCII(text[at]);
      } else {
        // One code point at a time: of a whole word Foundation would make the last sigma a final
        // one.
        lower += utf8(foundationText(text.substr(at, next.length)).lowercaseString);
      }
      at += next.length;
    }
    return lower;
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

std::size_t graphemeLength(std::string_view text, std::size_t offset) {
  @autoreleasepool {
    NSString* const rest = foundationText(text.substr(offset));
    if (rest.length == 0) return text.size() - offset;
    const NSRange first = [rest rangeOfComposedCharacterSequenceAtIndex:0];
    return [[rest substringWithRange:first] lengthOfBytesUsingEncoding:NSUTF8StringEncoding];
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
