#include "StillowAuthority/PrivilegedUninstall.hpp"

#include <algorithm>
#include <cstdint>
#include <system_error>

namespace stillow::authority {

namespace {

using Outcome = UninstallStepResult::Outcome;

/// What is at `path`, a directory with everything in it. A link is removed, never followed: also
/// one that leads nowhere is something that would be left behind.
Outcome removing(const std::filesystem::path& path) {
  std::error_code error;
  const auto found = std::filesystem::symlink_status(path, error);
  if (found.type() == std::filesystem::file_type::not_found) return Outcome::notPresent{};
  if (error) return Outcome::failed{error.message()};
  const std::uintmax_t count = std::filesystem::remove_all(path, error);
  if (error) return Outcome::failed{error.message()};
  // None were left to remove: somebody else did between the two looks.
  if (count == 0) return Outcome::notPresent{};
  return Outcome::removed{};
}

Outcome unloading(PrivilegedJobUnloading& jobs, std::string_view label) {
  auto unloaded = jobs.unload(label);
  if (!unloaded) return Outcome::failed{std::move(unloaded.error())};
  return Outcome::removed{};
}

}  // namespace

bool UninstallReport::isEverythingGone() const noexcept {
  return !refusal && std::ranges::none_of(steps, [](const UninstallStepResult& step) {
    return core::is<Outcome::failed>(step.outcome);
  });
}

UninstallReport PrivilegedUninstall::run(const ipc::UninstallRuling& ruling) const {
  if (const auto* const refused = core::getIf<ipc::UninstallRuling::refused>(ruling)) {
    return {.refusal = refused->cause};
  }
  UninstallReport report;
  report.steps.push_back({std::string(jobLabel), unloading(*jobs_, jobLabel)});
  for (const auto* const path :
       {&locations_.stateDirectory, &locations_.developmentLaunchDaemonPlist,
        &locations_.developmentHelperBundle, &locations_.legacyDevelopmentHelperBinary}) {
    report.steps.push_back({path->string(), removing(*path)});
  }
  return report;
}

}  // namespace stillow::authority
