#pragma once

#include "StillowClient/TextLayout.hpp"

namespace stillow::client {

/// How texts are set for what `descriptor` leads to at this moment: by the terminal's size and the
/// environment; plainly where it is no terminal.
[[nodiscard]] TextStyle terminalStyle(int descriptor);

}  // namespace stillow::client
