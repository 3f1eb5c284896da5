#include "StillowAuthority/LaunchctlBootout.hpp"

#include "StillowCore/Text.hpp"

namespace stillow::authority {

std::vector<std::string> LaunchctlBootout::arguments(std::string_view label) {
  return {"bootout", "system/" + std::string(label)};
}

std::expected<void, std::string> LaunchctlBootout::result(int exitStatus,
                                                          std::string_view standardError) {
  constexpr int exitNotLoaded = 3;
  if (exitStatus == 0 || exitStatus == exitNotLoaded) return {};
  const auto said = core::text::trimmingWhitespaceAndNewlines(standardError);
  if (!said.empty() && core::text::isValidUTF8(said)) return std::unexpected(std::string(said));
  return std::unexpected("launchctl bootout exited " + std::to_string(exitStatus));
}

}  // namespace stillow::authority
