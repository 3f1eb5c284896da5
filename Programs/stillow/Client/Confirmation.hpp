#pragma once

#include <optional>
#include <string>
#include <vector>

#include "StillowClient/Console.hpp"
#include "StillowClient/SiteList.hpp"
#include "StillowCore/Date.hpp"

/// The one screen before a step that nobody can take back.
namespace stillow::client {

/// What is about to be promised.
struct Promise {
  enum class Step : unsigned char { start, add, extend };

  Step step = Step::start;
  std::vector<TypedSite> sites;  ///< blocked from now on; for an extension those that are already
  core::Date now;
  core::Date end;        ///< if all time from now on counts
  core::Date latestEnd;  ///< past which no extension goes
};

/// What will be blocked, until when at the latest, what time counts, and that there is no way back.
/// As many sites as `style` has rows for; the others are counted. Ends with a line end.
[[nodiscard]] std::string promiseText(const Promise& promise, const TextStyle& style);

/// Shows `promise` and asks. True for a plain "yes" from a person; without one at the other end the
/// answer is no, and says what to do instead.
[[nodiscard]] bool confirm(const Promise& promise, const Console& console);

}  // namespace stillow::client
