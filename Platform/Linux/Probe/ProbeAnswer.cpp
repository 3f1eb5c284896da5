#include "PlatformLinuxProbe/ProbeAnswer.hpp"

namespace stillow::platform {

using Outcome = authority::DiagnosticConnectionOutcome;

std::string_view probeAnswer(Outcome outcome) {
  switch (outcome) {
    case Outcome::answered:
      return "answered\n";
    case Outcome::answeredByAnotherHost:
      return "answeredByAnotherHost\n";
    case Outcome::connectionFailed:
      break;
  }
  return "connectionFailed\n";
}

std::optional<Outcome> outcomeOfProbeAnswer(std::string_view answer) {
  for (const auto outcome :
       {Outcome::answered, Outcome::answeredByAnotherHost, Outcome::connectionFailed}) {
    if (answer == probeAnswer(outcome)) return outcome;
  }
  return std::nullopt;
}

}  // namespace stillow::platform
