#pragma once

#include "StillowFiltering/Wire/NameReading.hpp"

namespace stillow::filtering {

/// The server name of a TLS ClientHello at the beginning of a stream, through the record layer: the
/// hello may be cut into several records. `prefix` is what has come so far, without a gap; at most
/// `inspectedBytesMax` bytes of it are looked at, and with that many the answer is final.
///
/// `none`: not TLS, not a hello, no server name, no valid host name, or an encrypted hello whose
/// outer name is a provider's (`isPublicNameOfEncryptedHello`). Copies nothing out, any thread.
[[nodiscard]] NameReading readClientHello(WireBytes prefix) noexcept;

/// Likewise for the handshake message alone, as QUIC carries it in its CRYPTO frames.
[[nodiscard]] NameReading readClientHelloMessage(WireBytes prefix) noexcept;

/// True for a name that a provider puts on the outside of every encrypted ClientHello to any of its
/// customers' sites. With that extension it says nothing about the site. Any other name beside the
/// extension is the real one: browsers send a dummy of the extension with ordinary hellos. `name`
/// is as it stands in the hello: letters of either case, perhaps a final dot.
[[nodiscard]] bool isPublicNameOfEncryptedHello(WireBytes name) noexcept;

}  // namespace stillow::filtering
