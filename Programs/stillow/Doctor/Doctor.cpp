#include "StillowDoctor/Doctor.hpp"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>

#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <sys/ioctl.h>
#include <unistd.h>

#include "PlatformLinuxDaemon/BoottimeSleeper.hpp"
#include "PlatformLinuxIPC/DaemonSocket.hpp"
#include "PlatformLinuxIPC/UnixSocketDaemonConnector.hpp"
#include "PlatformLinuxPeer/RootDaemon.hpp"
#include "StillowDoctor/Gathering.hpp"
#include "StillowDoctor/Judging.hpp"
#include "StillowDoctor/Rendering.hpp"
#include "StillowIPC/CodeSigningRequirement.hpp"
#include "StillowIPC/StillowDaemonService.hpp"
#include "StillowIPC/XPCCommitmentAuthorityClient.hpp"

namespace stillow::doctor {

namespace {

using Result = ipc::CommitmentAuthorityClient::Result;
using Service = ipc::StillowDaemonService;

/// The daemon, asked from a thread that waits for the answer.
class WaitingClient {
 public:
  Result status() { return run(daemon_->status()); }
  Result validate() { return run(daemon_->validateEnforcement()); }

 private:
  Result run(concurrency::Task<Result> call) {
    std::optional<Result> answer;
    boost::asio::co_spawn(context_, std::move(call),
                          [&](const std::exception_ptr& exception, Result result) {
                            core::require(exception == nullptr, "an exception left a call");
                            answer = std::move(result);
                            context_.stop();
                          });
    context_.restart();
    context_.run();
    return std::move(*answer);
  }

  boost::asio::io_context context_{1};
  std::shared_ptr<platform::BoottimeSleeper> sleeper_ =
      std::make_shared<platform::BoottimeSleeper>(context_.get_executor());
  std::shared_ptr<platform::UnixSocketDaemonConnector> connector_ =
      std::make_shared<platform::UnixSocketDaemonConnector>(
          platform::UnixSocketDaemonConnector::Dependencies{
              .executor = context_.get_executor(),
              .sleeper = sleeper_,
              .socketPath = platform::daemonSocketPath(Service::machServiceName),
              .requireDaemon = platform::requireRootDaemon});
  std::shared_ptr<ipc::XPCCommitmentAuthorityClient> daemon_ =
      ipc::XPCCommitmentAuthorityClient::make(
          {.executor = context_.get_executor(),
           .endpoint =
               ipc::Endpoint::machService{std::string(Service::machServiceName), connector_},
           .requirement = ipc::CodeSigningRequirement::trustedPeers(),
           .deadlines = ipc::DaemonCallDeadlines::standard(),
           .wait = sleeper_});
};

client::TextStyle styleOfStandardOutput() {
  client::TextStyle style;
  if (::isatty(STDOUT_FILENO) != 1) return style;
  style.hasColour = client::wantsColour(true, std::getenv("NO_COLOR"), std::getenv("TERM"));
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) style.columns = size.ws_col;
  return style;
}

}  // namespace

int runDoctor(const DoctorOptions& options, std::ostream& out, std::ostream& err) {
  WaitingClient daemon;
  const auto instruments =
      systemInstruments({.status = [&daemon] { return daemon.status(); },
                         .validate = [&daemon] { return daemon.validate(); }},
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
    const DoctorOptions options{.asJSON = *asJSON, .style = styleOfStandardOutput()};
    status = runDoctor(options, std::cout, std::cerr);
    std::cerr.flush();
    // Not by returning: a look that hangs may still run on a thread of its own.
    std::_Exit(status);
  });
}

}  // namespace stillow::doctor
