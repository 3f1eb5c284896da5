#pragma once

#include <functional>
#include <ostream>
#include <string>

#include "StillowAuthority/RemovalRuling.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowCore/Date.hpp"

namespace stillow::client {

/// Whether the product may be removed, for whoever is about to: a package's scripts, say. Removes
/// nothing. 0 if it may be; 3 if it has to stay, which is printed in the uninstaller's own words;
/// 77 without root, since the checkpoints are root's to read. `formatted` writes a moment as the
/// caller has it.
[[nodiscard]] concurrency::Task<int> checkRemoval(authority::RemovalRulingSources sources,
                                                  bool isRoot,
                                                  std::function<std::string(core::Date)> formatted,
                                                  std::ostream& out, std::ostream& err);

}  // namespace stillow::client
