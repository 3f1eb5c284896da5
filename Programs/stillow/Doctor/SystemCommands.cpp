/// What the client has on Linux only.
#include "StillowClient/ClientPlatform.hpp"
#include "StillowDoctor/Doctor.hpp"

namespace stillow::client {

void declareSystemCommands(CLI::App& app, int& status) { doctor::addDoctorCommand(app, status); }

}  // namespace stillow::client
