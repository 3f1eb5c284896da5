#import "PlatformDarwinIPC/FoundationValues.h"

#include <memory>

namespace stillow::platform {

namespace {

NSString* payloadKey() { return foundationString(ipc::PlatformError::daemonErrorPayloadKey); }

}  // namespace

NSString* foundationString(std::string_view text) {
  NSString* const converted = [[NSString alloc] initWithBytes:text.data()
                                                       length:text.size()
                                                     encoding:NSUTF8StringEncoding];
  return converted != nil ? converted : @"";
}

std::string utf8String(NSString* text) {
  const char* const bytes = text.UTF8String;
  if (bytes == nullptr) return {};
  return {bytes, [text lengthOfBytesUsingEncoding:NSUTF8StringEncoding]};
}

NSData* foundationData(std::string_view bytes) {
  return [NSData dataWithBytes:bytes.data() length:bytes.size()];
}

ipc::SharedBytes sharedBytes(NSData* data) {
  if (data == nil) return nullptr;
  return std::make_shared<const std::string>(static_cast<const char*>(data.bytes), data.length);
}

NSError* foundationError(const ipc::PlatformError& error) {
  NSMutableDictionary<NSErrorUserInfoKey, id>* const details = [NSMutableDictionary dictionary];
  details[NSLocalizedDescriptionKey] = foundationString(error.description);
  if (error.payload) details[payloadKey()] = foundationData(*error.payload);
  return [NSError errorWithDomain:foundationString(error.domain)
                             code:static_cast<NSInteger>(error.code)
                         userInfo:details];
}

ipc::PlatformError platformError(NSError* error) {
  ipc::PlatformError converted{.domain = utf8String(error.domain),
                               .code = error.code,
                               .description = utf8String(error.localizedDescription),
                               .payload = std::nullopt};
  const id payload = error.userInfo[payloadKey()];
  if ([payload isKindOfClass:NSData.class]) {
    NSData* const bytes = payload;
    converted.payload.emplace(static_cast<const char*>(bytes.bytes), bytes.length);
  }
  return converted;
}

}  // namespace stillow::platform
