#include "StillowDoctor/Doctor.hpp"

#include <cstdlib>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>
#include <unistd.h>

#include "StillowClient/DaemonSession.hpp"
#include "StillowClient/TerminalStyle.hpp"
#include "StillowDoctor/Gathering.hpp"
#include "StillowDoctor/Judging.hpp"
#include "StillowDoctor/Rendering.hpp"

namespace stillow::doctor {

int runDoctor(const DoctorOptions& options, std::ostream& out, std::ostream& err) {
  client::DaemonSession session;
  const auto instruments = systemInstruments(
      {.status = [&session] { return session.run(session.daemon()->status()); },
       .validate = [&session] { return session.run(session.daemon()->validateEnforcement()); }},
      [&err](std::string_view next) { err << next << '\n'
                                          << std::flush; });
  const Report report = judge(gather(instruments));
  if (options.asJSON) {
    out << reportJSON(report) << '\n';
  } else {
    out << reportText(report, options.style);
  }
  out.flush();
  return report.healthy ? EXIT_SUCCESS : EXIT_FAILURE;
}

void addDoctorCommand(CLI::App& app, int& status) {
  CLI::App& doctor =
      *app.add_subcommand("doctor", "Find out what is wrong, from the network to the filter");
  doctor.footer(
      "Connects to Stillow’s own two test hosts and to nobody else. As root it sees more. Exit "
      "status: 0 all is well; 1 something is wrong.");
  const auto asJSON = std::make_shared<bool>(false);
  doctor.add_flag("--json", *asJSON, "Print a record; docs/client-json has its form");
  doctor.callback([asJSON, &status] {
    const DoctorOptions options{.asJSON = *asJSON, .style = client::terminalStyle(STDOUT_FILENO)};
    status = runDoctor(options, std::cout, std::cerr);
    std::cerr.flush();
    // Not by returning: a look that hangs may still run on a thread of its own.
    std::_Exit(status);
  });
}

}  // namespace stillow::doctor
