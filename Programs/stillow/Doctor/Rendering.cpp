#include "StillowDoctor/Rendering.hpp"

#include <algorithm>
#include <string_view>

#include "StillowCore/Invariant.hpp"

namespace stillow::doctor {

namespace {

using client::TextStyle;
using client::Tone;

constexpr std::size_t stateWidth = 13;
constexpr std::size_t checkWidth = 17;
constexpr std::size_t indent = stateWidth + checkWidth;
/// A narrower window gets text that runs over rather than a column of syllables.
constexpr std::size_t columnsMin = indent + 30;

std::string_view word(FindingState state) {
  switch (state) {
    case FindingState::ok:
      return "ok";
    case FindingState::warning:
      return "warning";
    case FindingState::failed:
      return "failed";
    case FindingState::notChecked:
      return "not checked";
  }
  return "";
}

Tone tone(const Finding& finding) {
  // What follows from something else is no alarm of its own.
  if (finding.consequenceOf) return Tone::quiet;
  switch (finding.state) {
    case FindingState::ok:
      return Tone::good;
    case FindingState::warning:
      return Tone::uncertain;
    case FindingState::failed:
      return Tone::bad;
    case FindingState::notChecked:
      break;
  }
  return Tone::quiet;
}

std::string blanks(std::size_t width, std::size_t used) {
  return std::string(std::max<std::size_t>(width - std::min(width, used), 1), ' ');
}

/// `text` in a column of its own that begins at `indent`. Some of its words come from other
/// programs, so nothing in it may steer a terminal.
std::string column(std::string_view text, const TextStyle& style) {
  const std::size_t columns = style.columns < columnsMin ? 0 : style.columns - indent;
  std::string lines;
  for (const char byte : client::wrapped(client::printable(text), columns)) {
    lines += byte;
    if (byte == '\n') lines.append(indent, ' ');
  }
  return lines + '\n';
}

std::string findingText(const Finding& finding, const TextStyle& style) {
  const std::string state(word(finding.state));
  std::string text = client::toned(state, tone(finding), style) + blanks(stateWidth, state.size()) +
                     finding.check + blanks(checkWidth, finding.check.size());
  std::string meaning = finding.meaning;
  if (finding.consequenceOf) meaning += " This follows from: " + *finding.consequenceOf + ".";
  text += column(meaning, style);
  if (finding.action && finding.isWrong()) {
    text += std::string(indent, ' ') + column("→ " + *finding.action, style);
  }
  return text;
}

std::string summary(const Report& report) {
  std::string causes;
  std::size_t unchecked = 0;
  bool needsRoot = false;
  for (const Finding& finding : report.findings) {
    if (finding.isWrong() && !finding.consequenceOf) {
      causes += (causes.empty() ? "" : ", ") + finding.check;
    }
    if (finding.state != FindingState::notChecked) continue;
    ++unchecked;
    needsRoot = needsRoot || finding.action.has_value();
  }
  std::string text = report.healthy ? "All is well" : "To be put right: " + causes;
  if (report.healthy && unchecked > 0) text += ", as far as it could be checked";
  text += '.';
  if (needsRoot) text += " The rest needs root: sudo stillow doctor";
  return text;
}

}  // namespace

std::string reportText(const Report& report, const TextStyle& style) {
  std::string text;
  for (const Finding& finding : report.findings) text += findingText(finding, style);
  return text + '\n' + summary(report) + '\n';
}

std::string reportJSON(const Report& report) {
  auto encoded = core::encode(report);
  core::require(encoded.has_value(), "a report holds no number that JSON has no form for");
  return std::move(*encoded);
}

}  // namespace stillow::doctor
