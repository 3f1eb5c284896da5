#include "StillowDaemon/CommandModes.hpp"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "StillowCore/Coding.hpp"
#include "StillowCore/Invariant.hpp"
#include "StillowCore/JSONText.hpp"
#include "StillowIPC/DaemonError.hpp"

namespace stillow::daemon {

using concurrency::Task;

namespace {

constexpr int exitSuccess = 0;
constexpr int exitUnreachable = 1;
constexpr int exitNotValidated = 2;

constexpr std::array modes{
    std::pair{std::string_view("--report-status"), CommandMode::reportStatus},
    std::pair{std::string_view("--uninstall"), CommandMode::uninstall},
    std::pair{std::string_view("--validate"), CommandMode::validate}};

int unreachable(const ipc::DaemonError& error, std::ostream& err) {
  err << "Could not reach the Stillow daemon: " << ipc::description(error) << '\n' << std::flush;
  return exitUnreachable;
}

/// A status that just came out of JSON has a JSON form.
template <class Record>
std::string encoded(const Record& record) {
  auto text = core::encode(record);
  core::require(text.has_value(), "a decoded record can be encoded");
  return std::move(*text);
}

}  // namespace

std::optional<CommandMode> commandMode(std::span<const std::string_view> arguments) {
  for (const auto& [argument, mode] : modes) {
    if (std::ranges::find(arguments, argument) != arguments.end()) return mode;
  }
  return std::nullopt;
}

ipc::DaemonCallDeadlines deadlines(CommandMode mode) noexcept {
  return mode == CommandMode::uninstall ? ipc::DaemonCallDeadlines::quick()
                                        : ipc::DaemonCallDeadlines::standard();
}

Task<int> reportStatus(std::shared_ptr<ipc::CommitmentAuthorityClient> client, std::ostream& out,
                       std::ostream& err) {
  const ipc::CommitmentAuthorityClient::Result status = co_await client->status();
  if (!status) co_return unreachable(status.error(), err);
  out << encoded(*status) << '\n' << std::flush;
  co_return exitSuccess;
}

Task<int> validate(std::shared_ptr<ipc::CommitmentAuthorityClient> client, std::ostream& out,
                   std::ostream& err) {
  const ipc::CommitmentAuthorityClient::Result status = co_await client->validateEnforcement();
  if (!status) co_return unreachable(status.error(), err);
  const ipc::EnforcementReadinessReport& report = status->readiness;
  out << core::json::prettyPrinted(encoded(report)) << '\n' << std::flush;
  const bool isPassed =
      report.validation && core::is<core::EnforcementValidation::passed>(*report.validation);
  co_return isPassed ? exitSuccess : exitNotValidated;
}

}  // namespace stillow::daemon
