#include "Session.hpp"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <utility>

#include <boost/asio/signal_set.hpp>
#include <pwd.h>
#include <unistd.h>

#include "StillowClient/RefusalText.hpp"
#include "StillowClient/TerminalStyle.hpp"
#include "StillowConcurrency/Deadline.hpp"
#include "StillowCore/JSONDocument.hpp"
#include "StillowCore/SystemTime.hpp"

namespace stillow::program {

using client::ExitStatus;

namespace {

std::string userDirectory() {
  const passwd* const user = ::getpwuid(::geteuid());
  const auto directory = client::collectionDirectory(
      std::getenv("XDG_CONFIG_HOME"), std::getenv("HOME"), user == nullptr ? "" : user->pw_dir);
  if (!directory) {
    std::cerr << directory.error() << '\n';
    leave(static_cast<int>(ExitStatus::collection));
  }
  return *directory;
}

}  // namespace

client::Console standardConsole() {
  const bool isTerminal = ::isatty(STDOUT_FILENO) == 1;
  return {.in = std::cin,
          .out = std::cout,
          .err = std::cerr,
          .canAnswer = ::isatty(STDIN_FILENO) == 1,
          .canRewrite = client::canRewrite(isTerminal, std::getenv("TERM")),
          .outStyle = [] { return client::terminalStyle(STDOUT_FILENO); },
          .errStyle = [] { return client::terminalStyle(STDERR_FILENO); }};
}

const core::DomainNormalizer& normalizer() {
  static const core::DomainNormalizer shared{core::PublicSuffixList::fromResource()};
  return shared;
}

UserCollection::UserCollection() : file(fileSystem, userDirectory(), client::lockDirectory) {}

client::Commands Session::commands() const {
  const auto readCollection = [] {
    const UserCollection collection;
    return collection.file.read();
  };
  return {standardConsole(),
          {.daemon = daemon(),
           .clock = core::systemTime,
           .offset = client::localOffset(),
           .normalizer = normalizer,
           .readCollection = readCollection,
           .explainUnreachable = [platform = platform()](const ipc::DaemonError& error) {
             return platform->explainUnreachable(error);
           }}};
}

concurrency::Cancellation Session::endOnSignal() {
  const concurrency::Cancellation enough;
  auto signals = std::make_shared<boost::asio::signal_set>(context(), SIGINT, SIGTERM, SIGHUP);
  signals->async_wait([enough](const boost::system::error_code& error, int) {
    if (!error) enough.cancel();
  });
  endSignals_ = std::move(signals);
  return enough;
}

namespace {

void giveStops(std::weak_ptr<boost::asio::signal_set> weak,
               const concurrency::Channel<client::Suspension>& suspensions) {
  const auto signals = weak.lock();
  if (!signals) return;
  signals->async_wait([weak, suspensions](const boost::system::error_code& error, int) {
    if (error) return;
    // Not the signal that came: this process handles that one now.
    (void)suspensions.give([] { (void)std::raise(SIGSTOP); });
    giveStops(weak, suspensions);
  });
}

}  // namespace

concurrency::Channel<client::Suspension> Session::suspendOnSignal() {
  const concurrency::Channel<client::Suspension> suspensions(1);
  auto signals = std::make_shared<boost::asio::signal_set>(context(), SIGTSTP);
  giveStops(signals, suspensions);
  stopSignals_ = std::move(signals);
  return suspensions;
}

concurrency::Task<ExitStatus> Session::passThrough(std::string method,
                                                   std::optional<std::string> params) {
  const auto limit = ipc::DaemonCallDeadlines::standard().enforcementValidation;
  const std::optional<std::expected<std::string, ipc::PlatformError>> line =
      co_await concurrency::within<std::expected<std::string, ipc::PlatformError>>(
          limit, platform()->sleeper(),
          platform()->passThrough(std::move(method), std::move(params)));
  if (!line) {
    const double seconds = std::chrono::duration<double>(limit).count();
    co_return commands().report(ipc::DaemonError::daemonDidNotAnswer{seconds});
  }
  if (!*line) co_return commands().report(ipc::DaemonError::from(line->error()));
  std::cout << **line << '\n' << std::flush;
  const auto document = core::JSONDocument::parse(**line);
  if (!document) co_return ExitStatus::unreachable;
  const auto& root = document->node(core::JSONDocument::root());
  for (std::uint32_t key = 1; key < root.end; key = document->node(key + 1).end) {
    if (document->node(key).text == "result") co_return ExitStatus::success;
  }
  co_return ExitStatus::refused;
}

void leave(int status) {
  std::cout.flush();
  std::_Exit(status);
}

}  // namespace stillow::program
