#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <unistd.h>

#include "PlatformLinuxDaemon/BoottimeSleeper.hpp"
#include "PlatformLinuxIPC/DaemonSocket.hpp"
#include "PlatformLinuxIPC/UnixSocketDaemonConnector.hpp"
#include "PlatformLinuxPeer/RootDaemon.hpp"
#include "PlatformLinuxText/LocalizedDate.hpp"
#include "StillowAuthority/DurableCommitmentStore.hpp"
#include "StillowClient/Commands.hpp"
#include "StillowClient/RemovalCheck.hpp"
#include "StillowClient/SiteList.hpp"
#include "StillowClient/TimeText.hpp"
#include "StillowConcurrency/Deadline.hpp"
#include "StillowCore/DomainNormalizer.hpp"
#include "StillowCore/JSONDocument.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "StillowIPC/CodeSigningRequirement.hpp"
#include "StillowIPC/StillowDaemonService.hpp"
#include "StillowIPC/XPCCommitmentAuthorityClient.hpp"

namespace {

using namespace stillow;
using client::ExitStatus;

core::Date now() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return core::Date::fromUnixSeconds(std::chrono::duration<double>(sinceEpoch).count());
}

/// The daemon as this machine reaches it, and the loop that the calls run on.
struct Session {
  explicit Session(ipc::DaemonCallDeadlines given = ipc::DaemonCallDeadlines::standard())
      : deadlines(given) {}

  ipc::DaemonCallDeadlines deadlines;
  boost::asio::io_context context{1};
  std::shared_ptr<platform::BoottimeSleeper> sleeper =
      std::make_shared<platform::BoottimeSleeper>(context.get_executor());
  std::shared_ptr<platform::UnixSocketDaemonConnector> connector =
      std::make_shared<platform::UnixSocketDaemonConnector>(
          platform::UnixSocketDaemonConnector::Dependencies{
              .executor = context.get_executor(),
              .sleeper = sleeper,
              .socketPath = platform::daemonSocketPath(ipc::StillowDaemonService::machServiceName),
              .requireDaemon = platform::requireRootDaemon});
  std::shared_ptr<ipc::XPCCommitmentAuthorityClient> daemon =
      ipc::XPCCommitmentAuthorityClient::make(
          {.executor = context.get_executor(),
           .endpoint =
               ipc::Endpoint::machService{std::string(ipc::StillowDaemonService::machServiceName),
                                          connector},
           .requirement = ipc::CodeSigningRequirement::trustedPeers(),
           .deadlines = deadlines,
           .wait = sleeper});
  client::Commands commands{{std::cin, std::cout, std::cerr, ::isatty(STDOUT_FILENO) == 1},
                            {daemon, sleeper, now}};

  template <class Status>
  Status run(concurrency::Task<Status> command) {
    Status status{};
    boost::asio::co_spawn(context, std::move(command),
                          [&](const std::exception_ptr& exception, Status result) {
                            core::require(exception == nullptr, "an exception left a command");
                            status = result;
                            context.stop();
                          });
    context.run();
    return status;
  }
};

/// The sites of `texts`; complains and leaves the program if one is none.
std::vector<client::TypedSite> sitesOf(const std::vector<std::string>& texts) {
  const core::DomainNormalizer normalizer{core::PublicSuffixList::fromResource()};
  auto sites = client::understandSites(normalizer, texts);
  if (!sites) {
    for (const std::string& refusal : sites.error()) std::cerr << refusal << '\n';
    std::exit(static_cast<int>(ExitStatus::usage));
  }
  return std::move(*sites);
}

template <class Value>
Value valueOf(std::expected<Value, std::string> parsed) {
  if (!parsed) {
    std::cerr << parsed.error() << '\n';
    std::exit(static_cast<int>(ExitStatus::usage));
  }
  return std::move(*parsed);
}

concurrency::Task<ExitStatus> passThrough(Session& session, std::string method,
                                          std::optional<std::string> params) {
  const std::optional<std::expected<std::string, ipc::PlatformError>> line =
      co_await concurrency::within<std::expected<std::string, ipc::PlatformError>>(
          ipc::DaemonCallDeadlines::standard().enforcementValidation, session.sleeper,
          session.connector->passThrough(std::move(method), std::move(params)));
  if (!line || !*line) {
    std::cerr << (line ? line->error().description : std::string("The daemon did not answer."))
              << '\n';
    co_return ExitStatus::unreachable;
  }
  std::cout << **line << '\n' << std::flush;
  const auto document = core::JSONDocument::parse(**line);
  if (!document) co_return ExitStatus::unreachable;
  const auto& root = document->node(core::JSONDocument::root());
  for (std::uint32_t key = 1; key < root.end; key = document->node(key + 1).end) {
    if (document->node(key).text == "result") co_return ExitStatus::success;
  }
  co_return ExitStatus::refused;
}

int checkRemoval() {
  // The checkpoints are there to turn to.
  Session session(ipc::DaemonCallDeadlines::quick());
  filtering::PosixFileSystem fileSystem;
  const authority::DurableCommitmentStore checkpoints(fileSystem, STILLOW_STATE_DIRECTORY);
  authority::RemovalRulingSources sources{
      .daemon = session.daemon,
      .recoverCheckpoints = [&checkpoints] { return checkpoints.recover(); },
      .wallClock = now};
  const auto formatted = [](core::Date date) {
    return platform::localizedDateAndTime(date, platform::localeOfCaller());
  };
  return session.run(
      client::checkRemoval(std::move(sources), ::geteuid() == 0, formatted, std::cout, std::cerr));
}

constexpr const char* exitStatusHelp =
    "Exit status: 0 done; 1 refused by the daemon; 2 bad input; 3 the daemon could not be reached; "
    "4 not confirmed. Of removal-check: 0 may be removed; 3 has to stay; 77 not root.";

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Blocks websites for a time that nobody can cut short.", "stillow"};
  app.footer(exitStatusHelp);
  app.require_subcommand(1);
  app.set_version_flag("--version", STILLOW_VERSION);

  std::vector<std::string> sites;
  std::string duration;
  bool isConfirmed = false;
  bool asJSON = false;
  bool watches = false;
  std::string method;
  std::string params;

  CLI::App* const start = app.add_subcommand("start", "Start a Commitment");
  start->add_option("--for", duration, "How long, such as 2h or 90m; at most 24h")->required();
  start->add_flag("--yes", isConfirmed, "Do not ask");
  start->add_option("SITE", sites, "Sites to block, as typed or copied from a browser")->required();
  CLI::App* const add = app.add_subcommand("add", "Add sites to the running Commitment");
  add->add_option("SITE", sites, "Sites to block as well")->required();
  CLI::App* const extend = app.add_subcommand("extend", "Move the end of the Commitment later");
  extend->add_option("--by", duration, "By how much, such as 30m")->required();
  CLI::App* const status = app.add_subcommand("status", "Show what is blocked and for how long");
  status->add_flag("--json", asJSON, "As the daemon's own record");
  status->add_flag("--watch", watches, "Go on showing every change");
  CLI::App* const acknowledge =
      app.add_subcommand("acknowledge", "Clear the message of a Commitment that has ended");
  CLI::App* const rpc =
      app.add_subcommand("rpc", "Pass one call to the daemon as it is and print its answer");
  rpc->add_option("METHOD", method, "Such as status or activate")->required();
  rpc->add_option("PARAMS", params, "The request record as JSON; - reads it from standard input");
  CLI::App* const removalCheck = app.add_subcommand(
      "removal-check", "Say whether Stillow may be removed now; for root and package scripts");

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& help) {
    return app.exit(help);
  } catch (const CLI::ParseError& error) {
    (void)app.exit(error);
    return static_cast<int>(ExitStatus::usage);
  }

  if (removalCheck->parsed()) {
    const int removal = checkRemoval();
    std::cout.flush();
    std::_Exit(removal);
  }
  ExitStatus ended = ExitStatus::success;
  if (start->parsed()) {
    const auto length = valueOf(client::parseDuration(duration));
    auto typed = sitesOf(sites);
    Session session;
    ended = session.run(session.commands.start(std::move(typed), length, isConfirmed));
  } else if (add->parsed()) {
    auto typed = sitesOf(sites);
    Session session;
    ended = session.run(session.commands.add(std::move(typed)));
  } else if (extend->parsed()) {
    const double seconds = valueOf(client::parseSeconds(duration));
    Session session;
    ended = session.run(session.commands.extend(seconds));
  } else if (status->parsed()) {
    Session session;
    ended = session.run(watches ? session.commands.watch(asJSON) : session.commands.status(asJSON));
  } else if (acknowledge->parsed()) {
    Session session;
    ended = session.run(session.commands.acknowledge());
  } else if (rpc->parsed()) {
    if (params == "-") {
      params.assign(std::istreambuf_iterator<char>(std::cin), {});
    }
    Session session;
    ended = session.run(
        passThrough(session, method, params.empty() ? std::nullopt : std::optional(params)));
  }
  std::cout.flush();
  // Not `return`: a stream that is being watched still refers to what would be torn down.
  std::_Exit(static_cast<int>(ended));
}
