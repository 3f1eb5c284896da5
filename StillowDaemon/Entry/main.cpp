#include <cstdlib>
#include <future>
#include <iostream>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/asio/use_future.hpp>

#include "StillowDaemon/CommandModes.hpp"
#include "StillowDaemon/Daemon.hpp"
#include "StillowDaemon/DaemonPlatform.hpp"
#include "StillowDaemon/UninstallMode.hpp"
#include "StillowIPC/CodeSigningRequirement.hpp"
#include "StillowIPC/StillowDaemonService.hpp"
#include "StillowIPC/XPCCommitmentAuthorityClient.hpp"

namespace {

using namespace stillow;

/// Waits for `task` on the calling thread, which runs nothing else.
template <class T>
T waitFor(const concurrency::Executor& executor, concurrency::Task<T> task) {
  return boost::asio::co_spawn(executor, std::move(task), boost::asio::use_future).get();
}

int runCommand(daemon::CommandMode mode, const ipc::CodeSigningRequirement& requirement) {
  const auto platform = daemon::makeDaemonPlatform();
  const auto client = ipc::XPCCommitmentAuthorityClient::make(
      {.executor = platform->executor(),
       .endpoint =
           ipc::Endpoint::machService{std::string(ipc::StillowDaemonService::machServiceName),
                                      platform->daemonServices()},
       .requirement = requirement,
       .deadlines = daemon::deadlines(mode),
       .wait = platform->sleeper()});
  switch (mode) {
    case daemon::CommandMode::reportStatus:
      return waitFor(platform->executor(), daemon::reportStatus(client, std::cout, std::cerr));
    case daemon::CommandMode::uninstall:
      return waitFor(platform->executor(),
                     daemon::uninstall(client, platform->uninstallTools(), std::cout, std::cerr));
    case daemon::CommandMode::validate:
      return waitFor(platform->executor(), daemon::validate(client, std::cout, std::cerr));
  }
  return EXIT_FAILURE;
}

int runDaemon(const ipc::CodeSigningRequirement& requirement) {
  const auto platform = daemon::makeDaemonPlatform();
  const daemon::LogLine log = daemon::writeLogLine;
  auto adapters = platform->becomeDaemon(log);
  if (!adapters) {
    log("Cannot start: " + adapters.error());
    return EXIT_FAILURE;
  }
  adapters->requirement = requirement;
  const auto daemon = daemon::Daemon::build(std::move(*adapters));
  const auto opened = waitFor(platform->executor(), daemon->start());
  if (opened) platform->noteServing(daemon);
  // For the life of the process: nothing ever sets this promise.
  std::promise<void> never;
  never.get_future().wait();
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  const ipc::CodeSigningRequirement& requirement = ipc::CodeSigningRequirement::trustedPeers();
  const std::vector<std::string_view> arguments(argv, argv + argc);
  const auto mode = daemon::commandMode(arguments);
  // By value: the first thread may give its stack up.
  daemon::runProcess([mode, &requirement] {
    return mode ? runCommand(*mode, requirement) : runDaemon(requirement);
  });
}
