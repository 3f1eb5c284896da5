#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "StillowCore/Coding.hpp"

/// What the doctor says. docs/client-json/doctor.schema.json is the JSON form.
namespace stillow::doctor {

enum class FindingState : std::uint8_t {
  ok,
  warning,     ///< works, but something about it is not as it should be
  failed,      ///< does not work
  notChecked,  ///< could not be looked at; says nothing about whether it works
};

/// The outcome of one check.
struct Finding {
  std::string check;  ///< its name, which scripts may rely on
  FindingState state = FindingState::ok;
  std::string meaning;                ///< one or two sentences
  std::optional<std::string> action;  ///< what to do; absent where there is nothing to do
  /// The check whose finding explains this one. What to do is then said there.
  std::optional<std::string> consequenceOf;

  [[nodiscard]] bool isWrong() const noexcept {
    return state == FindingState::warning || state == FindingState::failed;
  }
  friend bool operator==(const Finding&, const Finding&) = default;
};

/// All findings of one run, causes before what follows from them.
struct Report {
  static constexpr std::int64_t currentVersion = 1;

  std::int64_t version = currentVersion;
  /// Nothing that could be checked is wrong.
  bool healthy = true;
  std::vector<Finding> findings;

  friend bool operator==(const Report&, const Report&) = default;
};

}  // namespace stillow::doctor

template <>
struct stillow::core::Coding<stillow::doctor::FindingState> {
  using State = doctor::FindingState;
  static constexpr std::string_view typeName = "FindingState";
  static constexpr auto names = coding::namesOf<State>({{State::ok, "ok"},
                                                        {State::warning, "warning"},
                                                        {State::failed, "failed"},
                                                        {State::notChecked, "notChecked"}});
};

template <>
struct stillow::core::Coding<stillow::doctor::Finding> {
  using Finding = doctor::Finding;
  static constexpr auto fields = coding::fieldsOf(
      coding::field("check", &Finding::check), coding::field("state", &Finding::state),
      coding::field("meaning", &Finding::meaning), coding::field("action", &Finding::action),
      coding::field("consequenceOf", &Finding::consequenceOf));
};

template <>
struct stillow::core::Coding<stillow::doctor::Report> {
  using Report = doctor::Report;
  static constexpr auto fields = coding::fieldsOf(coding::field("version", &Report::version),
                                                  coding::field("healthy", &Report::healthy),
                                                  coding::field("findings", &Report::findings));
};
