#include "StillowClient/Confirmation.hpp"

#include <algorithm>
#include <istream>
#include <ostream>

#include "StillowClient/TimeText.hpp"
#include "StillowCore/Text.hpp"

namespace stillow::client {

namespace {

/// Lines of the screen that are not sites, roomily.
constexpr std::size_t otherRows = 14;
constexpr std::size_t sitesShownMin = 3;
constexpr std::size_t sitesShownMax = 20;

std::size_t sitesShown(const TextStyle& style) {
  if (style.rows <= otherRows) return style.rows == 0 ? sitesShownMax : sitesShownMin;
  return std::clamp(style.rows - otherRows, sitesShownMin, sitesShownMax);
}

std::string heading(const Promise& promise) {
  const std::string sites = counted(promise.sites.size(), "site");
  switch (promise.step) {
    case Promise::Step::start:
      return "This blocks " + sites + ", and every name below:";
    case Promise::Step::add:
      return "This adds " + sites + " to what is blocked:";
    case Promise::Step::extend:
      return "This goes on blocking " + sites + ":";
  }
  return sites;
}

std::string question(Promise::Step step) {
  switch (step) {
    case Promise::Step::start:
      return "Start it? Type yes: ";
    case Promise::Step::add:
      return "Add them? Type yes: ";
    case Promise::Step::extend:
      return "Extend it? Type yes: ";
  }
  return "Type yes: ";
}

std::string declined(Promise::Step step) {
  switch (step) {
    case Promise::Step::start:
      return "Nothing was started.";
    case Promise::Step::add:
      return "Nothing was added.";
    case Promise::Step::extend:
      return "Nothing was extended.";
  }
  return "Nothing was done.";
}

}  // namespace

std::string promiseText(const Promise& promise, const TextStyle& style) {
  std::string text;
  const auto add = [&](const std::string& line, std::size_t indent = 0) {
    text += wrapped(line, style.columns, indent) + "\n";
  };
  add(heading(promise));
  const std::size_t shown = std::min(promise.sites.size(), sitesShown(style));
  for (std::size_t index = 0; index < shown; ++index) {
    const TypedSite& site = promise.sites[index];
    add("  " + toned(printable(site.domain.name()), Tone::strong, style) +
            (site.note.empty() ? "" : "  (" + site.note + ")"),
        4);
  }
  if (shown < promise.sites.size()) {
    add("  and " + std::to_string(promise.sites.size() - shown) + " more");
  }
  add("Until " + toned(momentText(promise.end, promise.now), Tone::strong, style) +
      " at the latest, " + durationText(promise.end - promise.now) +
      " from now, if this machine is not shut down.");
  add("Time asleep counts. Time shut down does not: the end moves later by as much.");
  add("Nobody can end it early, you included. It can only be extended, until " +
      momentText(promise.latestEnd, promise.now) + " at most, and sites can be added.");
  return text;
}

bool confirm(const Promise& promise, const Console& console) {
  console.err << promiseText(promise, console.errStyle());
  if (!console.canAnswer) {
    console.tell("Standard input is no terminal, so nobody can answer. For a script, add --yes. " +
                 declined(promise.step));
    return false;
  }
  console.err << question(promise.step) << std::flush;
  std::string answer;
  std::getline(console.in, answer);
  if (!console.in) console.err << '\n';
  const std::string word =
      core::text::lowercased(core::text::trimmingWhitespaceAndNewlines(answer));
  if (word == "yes") return true;
  console.tell(declined(promise.step));
  return false;
}

}  // namespace stillow::client
