#pragma once

#include "StillowFiltering/Wire/NameReading.hpp"

namespace stillow::filtering {

/// The host of an HTTP/1 request at the beginning of a stream: that of an absolute request target,
/// which overrides the header field, else of the first Host field; without its port. `prefix` is
/// what has come so far, without a gap; at most `inspectedBytesMax` bytes of it are looked at, and
/// with that many the answer is final.
///
/// `none`: not HTTP/1, CONNECT (what follows is for a proxy), no Host, no valid host name (an
/// address is none). The name of a field may have any case and its value may be folded over several
/// lines. Copies nothing out, any thread.
[[nodiscard]] NameReading readHTTPHost(WireBytes prefix) noexcept;

}  // namespace stillow::filtering
