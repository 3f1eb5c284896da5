#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <unistd.h>

#include "Declarations.hpp"
#include "Session.hpp"
#include "StillowClient/RemovalCheck.hpp"

namespace stillow::program {

void declareScriptCommands(CLI::App& app, int& status) {
  struct Given {
    std::string method;
    std::string params;
    bool asJSON = false;
  };
  const auto given = std::make_shared<Given>();

  CLI::App& rpc =
      *app.add_subcommand("rpc", "Pass one call to the daemon as it is and print its answer");
  rpc.add_option("METHOD", given->method, "Such as status or activate")->required();
  rpc.add_option("PARAMS", given->params,
                 "The request record as JSON; - reads it from standard input");
  rpc.add_flag("--json", given->asJSON, "As always: the answer is JSON");
  rpc.callback([&status, given] {
    if (given->params == "-") given->params.assign(std::istreambuf_iterator<char>(std::cin), {});
    std::optional<std::string> params;
    if (!given->params.empty()) params = given->params;
    Session session;
    status = static_cast<int>(session.run(session.passThrough(given->method, std::move(params))));
    leave(status);
  });

  CLI::App& removalCheck = *app.add_subcommand(
      "removal-check", "Say whether Stillow may be removed now; for root and package scripts");
  removalCheck.add_flag("--json", given->asJSON, "Print a record; docs/client-json has its form");
  removalCheck.callback([&status, given] {
    // The checkpoints are there to turn to.
    Session session(ipc::DaemonCallDeadlines::quick());
    status =
        client::checkRemoval(session, STILLOW_STATE_DIRECTORY, ::geteuid() == 0, given->asJSON);
    leave(status);
  });
}

}  // namespace stillow::program
