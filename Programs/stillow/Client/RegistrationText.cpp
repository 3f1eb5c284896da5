#include "StillowClient/RegistrationText.hpp"

namespace stillow::client {

std::string registrationAdvice(ipc::DaemonRegistration::State state) {
  using State = ipc::DaemonRegistration::State;
  switch (state) {
    case State::enabled:
      return "The daemon is registered and allowed to run, but does not answer.\n"
             "What it says for itself: log show --last 10m --predicate 'process == "
             "\"StillowDaemon\"'";
    case State::awaitingApproval:
      return "The daemon waits for your approval.\n"
             "Allow Stillow in System Settings ▸ General ▸ Login Items & Extensions.";
    case State::notRegistered:
      return "The daemon is not registered.\nRegister it: stillow setup";
    case State::notFound:
      return "This program does not lie in Stillow.app, or the application is damaged.\n"
             "Run it from where it is installed: "
             "/Applications/Stillow.app/Contents/MacOS/stillow";
  }
  return "";
}

}  // namespace stillow::client
