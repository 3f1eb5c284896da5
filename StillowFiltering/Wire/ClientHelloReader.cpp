#include "StillowFiltering/Wire/ClientHelloReader.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <string_view>

#include "StillowCore/Text.hpp"

namespace stillow::filtering {
namespace {

constexpr std::uint8_t handshakeContentType = 22;
constexpr std::uint8_t clientHelloType = 1;
constexpr std::uint16_t serverNameExtension = 0;
constexpr std::uint16_t encryptedClientHelloExtension = 0xfe0d;
constexpr std::uint8_t hostNameType = 0;
constexpr std::size_t recordHeaderBytes = 5;
constexpr std::size_t handshakeHeaderBytes = 4;
constexpr std::size_t recordFragmentBytesMax = 16'384;
constexpr std::size_t sessionIDBytesMax = 32;

/// What a part of a hello says: a reading, of which the name has not been looked at.
enum class HelloOutcome : std::uint8_t { needMore, none, found };
struct RawReading {
  HelloOutcome outcome = HelloOutcome::none;
  WireBytes name;

  RawReading(HelloOutcome itsOutcome, WireBytes itsName = {}) noexcept
      : outcome(itsOutcome), name(itsName) {}
};

/// Walks through a message of which only the beginning may be there. `end()` is where the message,
/// or the part of it that is being read, ends by its own word. The first read that fails decides
/// the outcome: beyond `end()` the message is broken, beyond what is there more is needed.
class MessageCursor {
 public:
  MessageCursor(WireBytes available, std::size_t end) noexcept : available_(available), end_(end) {}

  [[nodiscard]] std::optional<std::size_t> number(std::size_t byteCount) noexcept {
    const auto field = bytes(byteCount);
    if (!field) return std::nullopt;
    std::size_t value = 0;
    for (const std::uint8_t byte : *field) value = value << 8 | byte;
    return value;
  }

  [[nodiscard]] std::optional<WireBytes> bytes(std::size_t count) noexcept {
    const std::size_t start = at_;
    if (!skip(count)) return std::nullopt;
    if (at_ > available_.size()) {
      outcome_ = HelloOutcome::needMore;
      return std::nullopt;
    }
    return available_.subspan(start, count);
  }

  /// Allowed to go beyond what is there: what is skipped need not have come.
  [[nodiscard]] bool skip(std::size_t count) noexcept {
    if (count > end_ - at_) return false;
    at_ += count;
    return true;
  }

  /// A cursor over the next `count` bytes; this one goes on behind them.
  [[nodiscard]] std::optional<MessageCursor> part(std::size_t count) noexcept {
    MessageCursor inner = *this;
    if (!skip(count)) return std::nullopt;
    inner.end_ = at_;
    return inner;
  }

  [[nodiscard]] bool isAtEnd() const noexcept { return at_ == end_; }
  /// Why a read failed.
  [[nodiscard]] HelloOutcome outcome() const noexcept { return outcome_; }

 private:
  WireBytes available_;
  std::size_t end_;
  std::size_t at_ = 0;
  HelloOutcome outcome_ = HelloOutcome::none;
};

/// What the server_name extension names.
RawReading readServerName(MessageCursor extension) noexcept {
  const auto listBytes = extension.number(2);
  if (!listBytes) return extension.outcome();
  auto list = extension.part(*listBytes);
  if (!list) return extension.outcome();
  while (!list->isAtEnd()) {
    const auto type = list->number(1);
    if (!type) return list->outcome();
    const auto nameBytes = list->number(2);
    if (!nameBytes) return list->outcome();
    const auto name = list->bytes(*nameBytes);
    if (!name) return list->outcome();
    if (*type == hostNameType) return {HelloOutcome::found, *name};
  }
  return HelloOutcome::none;
}

// Kept short on purpose: a name in this list goes unread, so each needs a provider that was seen to
// use it for all its customers. A name that is missing here costs only that its flows are taken for
// visits to the provider itself.
constexpr std::array<std::string_view, 2> publicNames{
    "cloudflare-ech.com",  // every site behind that provider, since 2023
    "encryptedsni.com",    // the same provider's second outer name, seen since 2025
};

RawReading readExtensions(MessageCursor extensions) noexcept {
  // Once found, and it says something unless the hello is encrypted.
  RawReading publicName = HelloOutcome::none;
  bool isEncrypted = false;
  while (!extensions.isAtEnd()) {
    const auto type = extensions.number(2);
    if (!type) return extensions.outcome();
    const auto size = extensions.number(2);
    if (!size) return extensions.outcome();
    const auto extension = extensions.part(*size);
    if (!extension) return extensions.outcome();

    if (*type == encryptedClientHelloExtension) isEncrypted = true;
    if (*type == serverNameExtension && publicName.outcome == HelloOutcome::none) {
      publicName = readServerName(*extension);
      // Only a provider's outer name has to wait for the rest of the hello.
      if (publicName.outcome != HelloOutcome::found ||
          !isPublicNameOfEncryptedHello(publicName.name)) {
        return publicName;
      }
    }
    if (isEncrypted && publicName.outcome == HelloOutcome::found) return HelloOutcome::none;
  }
  return publicName;
}

RawReading readMessage(WireBytes available) noexcept {
  MessageCursor header{available, handshakeHeaderBytes};
  const auto type = header.number(1);
  if (!type) return header.outcome();
  if (*type != clientHelloType) return HelloOutcome::none;
  const auto bodyBytes = header.number(3);
  if (!bodyBytes) return header.outcome();

  MessageCursor hello{available.subspan(handshakeHeaderBytes), *bodyBytes};
  constexpr std::size_t versionAndRandomBytes = 2 + 32;
  if (!hello.skip(versionAndRandomBytes)) return hello.outcome();
  const auto sessionIDBytes = hello.number(1);
  if (!sessionIDBytes) return hello.outcome();
  if (*sessionIDBytes > sessionIDBytesMax || !hello.skip(*sessionIDBytes))
    return HelloOutcome::none;
  for (const std::size_t lengthBytes : {2U, 1U}) {  // cipher suites, compression methods
    const auto listBytes = hello.number(lengthBytes);
    if (!listBytes) return hello.outcome();
    if (!hello.skip(*listBytes)) return HelloOutcome::none;
  }
  if (hello.isAtEnd()) return HelloOutcome::none;  // a hello of old, without extensions
  const auto extensionsBytes = hello.number(2);
  if (!extensionsBytes) return hello.outcome();
  const auto extensions = hello.part(*extensionsBytes);
  if (!extensions) return HelloOutcome::none;
  return readExtensions(*extensions);
}

/// The reading of a message of which `available` is there. More may be needed where it `canGrow`.
NameReading readMessage(WireBytes available, bool canGrow) noexcept {
  const RawReading reading = readMessage(available);
  if (reading.outcome == HelloOutcome::needMore && canGrow) return NameReading::needMore{};
  if (reading.outcome != HelloOutcome::found) return NameReading::none{};
  const auto name = HostName::read(reading.name);
  if (!name) return NameReading::none{};
  return NameReading::found{*name};
}

/// The handshake bytes at the beginning of a stream of records.
struct HandshakePrefix {
  WireBytes bytes;
  /// More records may follow. Not so when what follows is no handshake record.
  bool canGrow = true;
};

enum class RecordHeader : std::uint8_t { valid, incomplete, foreign };

RecordHeader checkRecordHeader(WireBytes bytes) noexcept {
  // Each byte is judged as soon as it is there, so that what is not TLS is known at once.
  if (bytes.empty()) return RecordHeader::incomplete;
  if (bytes[0] != handshakeContentType) return RecordHeader::foreign;
  if (bytes.size() > 1 && bytes[1] != 3) return RecordHeader::foreign;
  if (bytes.size() > 2 && bytes[2] > 4) return RecordHeader::foreign;
  if (bytes.size() < recordHeaderBytes) return RecordHeader::incomplete;
  const std::size_t fragmentBytes = static_cast<std::size_t>(bytes[3]) << 8 | bytes[4];
  // An empty handshake record is forbidden (RFC 8446, 5.1).
  const bool isSizeValid = fragmentBytes > 0 && fragmentBytes <= recordFragmentBytesMax;
  return isSizeValid ? RecordHeader::valid : RecordHeader::foreign;
}

bool holdsWholeMessage(WireBytes handshake) noexcept {
  if (handshake.size() < handshakeHeaderBytes) return false;
  const std::size_t bodyBytes = static_cast<std::size_t>(handshake[1]) << 16 |
                                static_cast<std::size_t>(handshake[2]) << 8 | handshake[3];
  return handshake.size() - handshakeHeaderBytes >= bodyBytes;
}

/// Joins records in `joined` when there is more than one; a single one is read where it lies.
HandshakePrefix handshakeBytes(WireBytes stream,
                               std::array<std::uint8_t, inspectedBytesMax>& joined) noexcept {
  HandshakePrefix handshake;
  bool isJoined = false;
  while (true) {
    const RecordHeader header = checkRecordHeader(stream);
    handshake.canGrow = header != RecordHeader::foreign;
    if (header != RecordHeader::valid) return handshake;

    const std::size_t fragmentBytes = static_cast<std::size_t>(stream[3]) << 8 | stream[4];
    stream = stream.subspan(recordHeaderBytes);
    const WireBytes fragment = stream.first(std::min(fragmentBytes, stream.size()));
    if (handshake.bytes.empty()) {
      handshake.bytes = fragment;
    } else if (!fragment.empty()) {
      if (!isJoined) std::memcpy(joined.data(), handshake.bytes.data(), handshake.bytes.size());
      isJoined = true;
      std::memcpy(&joined[handshake.bytes.size()], fragment.data(), fragment.size());
      handshake.bytes = WireBytes{joined}.first(handshake.bytes.size() + fragment.size());
    }
    if (fragment.size() < fragmentBytes || holdsWholeMessage(handshake.bytes)) return handshake;
    stream = stream.subspan(fragmentBytes);
  }
}

}  // namespace

bool isPublicNameOfEncryptedHello(WireBytes name) noexcept {
  if (!name.empty() && name.back() == '.') name = name.first(name.size() - 1);
  return std::ranges::any_of(publicNames, [name](std::string_view publicName) {
    return std::ranges::equal(name, publicName, {}, [](std::uint8_t byte) {
      return core::text::lowercasedASCII(static_cast<char>(byte));
    });
  });
}

NameReading readClientHelloMessage(WireBytes prefix) noexcept {
  const WireBytes available = prefix.first(std::min(prefix.size(), inspectedBytesMax));
  return readMessage(available, available.size() < inspectedBytesMax);
}

NameReading readClientHello(WireBytes prefix) noexcept {
  const WireBytes available = prefix.first(std::min(prefix.size(), inspectedBytesMax));
  std::array<std::uint8_t, inspectedBytesMax> joined;
  const HandshakePrefix handshake = handshakeBytes(available, joined);
  return readMessage(handshake.bytes, handshake.canGrow && available.size() < inspectedBytesMax);
}

}  // namespace stillow::filtering
