/// What the client has on macOS only: what an application there needs to be installed and removed.
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "PlatformDarwinInstallation/SMAppServices.hpp"
#include "PlatformDarwinInstallation/SystemExtensionRequests.hpp"
#include "StillowClient/ClientPlatform.hpp"
#include "StillowClient/RemovalCheck.hpp"
#include "StillowIPC/DaemonRegistration.hpp"
#include "StillowIPC/StillowDaemonService.hpp"

namespace stillow::platform {

namespace {

using ipc::DaemonRegistration;

constexpr int exitDone = 0;
constexpr int exitFailed = 1;
constexpr int exitNoApplication = 2;

void tellOfWaiting() {
  std::cout << "Waiting for you to allow the extension in System Settings ▸ General ▸ Login Items "
               "& Extensions ▸ Network Extensions.\n"
            << std::flush;
}

/// True if it was done; says what became of it either way.
bool tell(const char* what, const std::expected<SystemExtensionAnswer, std::string>& answer) {
  if (!answer) {
    std::cerr << what << ": " << answer.error() << '\n';
    return false;
  }
  std::cout << what
            << (*answer == SystemExtensionAnswer::done ? ": done.\n"
                                                       : ": done, after a restart.\n");
  return true;
}

int setUp() {
  const auto bundle = applicationBundle();
  if (!bundle || !DaemonRegistration::isDaemonProgramUsable(*bundle, propertyListText)) {
    std::cerr << "This program does not lie in a complete Stillow.app.\n";
    return exitNoApplication;
  }
  SMAppServices services;
  // Anew, so that what lies in the application now is what runs.
  const auto registered = DaemonRegistration::reregisterDaemon(services);
  const auto state = DaemonRegistration::state(services);
  if (state == DaemonRegistration::State::awaitingApproval) {
    std::cout << "The daemon is registered. Allow it in System Settings ▸ General ▸ Login Items & "
                 "Extensions.\n"
              << std::flush;
  } else if (!registered) {
    std::cerr << "The daemon could not be registered: " << registered.error().description << '\n';
    return exitFailed;
  } else {
    std::cout << "The daemon is registered.\n" << std::flush;
  }
  const auto activated =
      activateSystemExtension(ipc::StillowDaemonService::filterBundleIdentifier, tellOfWaiting);
  return tell("Activating the filter extension", activated) ? exitDone : exitFailed;
}

/// 0 if no Commitment is in the way; otherwise it was said what is.
int checkRemoval() {
  client::DaemonSession session(ipc::DaemonCallDeadlines::quick());
  // Checkpoints that this user cannot read are a reason to stay: then nobody can tell.
  constexpr bool mayReadWhatThereIs = true;
  const int ruling = client::checkRemoval(session, STILLOW_STATE_DIRECTORY, mayReadWhatThereIs);
  session.daemon()->invalidate();
  return ruling;
}

int removeExtension() {
  // The system would let it go at any time; we do not help to end a Commitment.
  if (const int ruling = checkRemoval(); ruling != exitDone) return ruling;
  const auto removed =
      deactivateSystemExtension(ipc::StillowDaemonService::filterBundleIdentifier, tellOfWaiting);
  return tell("Removing the filter extension", removed) ? exitDone : exitFailed;
}

}  // namespace

}  // namespace stillow::platform

namespace stillow::client {

void declareSystemCommands(CLI::App& app, int& status) {
  app.add_subcommand("setup", "Register the daemon and activate the filter; asks for your approval")
      ->callback([&status] { status = platform::setUp(); });
  app.add_subcommand("remove-extension",
                     "Deactivate the filter; the daemon's --uninstall has to come first")
      ->callback([&status] { status = platform::removeExtension(); });
}

}  // namespace stillow::client
