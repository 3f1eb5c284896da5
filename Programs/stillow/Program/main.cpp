#include <CLI/CLI.hpp>

#include "Declarations.hpp"
#include "Session.hpp"
#include "StillowClient/ClientPlatform.hpp"

namespace {

constexpr const char* exitStatusHelp =
    "Exit status: 0 done; 1 refused by the daemon, or its test of the block failed; 2 bad input; "
    "3 the daemon could not be reached; 4 nobody said yes; 5 your sites could not be read or "
    "saved. Of doctor: 0 all is well; 1 something is wrong. Of removal-check: 0 may be removed; 3 "
    "has to stay; 77 not root.";

}  // namespace

int main(int argc, char** argv) {
  using namespace stillow;
  CLI::App app{"Blocks websites for a time that nobody can cut short.", "stillow"};
  app.footer(exitStatusHelp);
  app.require_subcommand(1);
  app.set_version_flag("--version", STILLOW_VERSION);

  int status = 0;
  program::declareCommitmentCommands(app, status);
  program::declareCollectionCommands(app, status);
  program::declareScriptCommands(app, status);
  client::declareSystemCommands(app, status);

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& help) {
    return app.exit(help);
  } catch (const CLI::ParseError& error) {
    (void)app.exit(error);
    return static_cast<int>(client::ExitStatus::usage);
  }
  program::leave(status);
}
