#include <memory>
#include <string>

#include "Declarations.hpp"
#include "Session.hpp"
#include "StillowClient/Watch.hpp"
#include "StillowCore/SystemTime.hpp"

namespace stillow::program {

using client::Commands;
using client::ExitStatus;

namespace {

/// What these commands can be given. One of them runs in a process, so they share it.
struct Given {
  client::SelectionWords words;
  client::EndRequest end;
  client::CommandOptions options;
  std::string site;
  bool isWatching = false;
};
using Shared = std::shared_ptr<Given>;

void addSelection(CLI::App& command, const Shared& given, const char* what) {
  command.add_option("SITE", given->words.sites, what);
  command
      .add_option("--group", given->words.groups, "The sites of a group of yours; may be repeated")
      ->type_name("NAME")
      ->allow_extra_args(false);
  command.add_flag("--all", given->words.isAll, "Your whole collection");
}

void addConfirmation(CLI::App& command, const Shared& given) {
  command.add_flag("--yes", given->options.isConfirmed, "Do not ask; for scripts");
}

CLI::App& addCommand(CLI::App& app, const Shared& given, const char* name, const char* what) {
  CLI::App* const command = app.add_subcommand(name, what);
  command->add_flag("--json", given->options.asJSON,
                    "Print a record; docs/client-json has its form");
  return *command;
}

/// Runs `command` with a session when it was given.
template <class Command>
void onceGiven(CLI::App& declared, int& status, Command command) {
  declared.callback([&status, command] {
    Session session;
    Commands commands = session.commands();
    status = static_cast<int>(session.run(command(commands)));
    leave(status);
  });
}

int watchWith(Session& session, const Commands& commands, bool asJSON) {
  client::WatchCollaborators with{
      .daemon = session.daemon(),
      .sleeper = session.platform()->sleeper(),
      .clock = core::systemTime,
      .enough = session.endOnSignal(),
      .suspensions = session.suspendOnSignal(),
      .report = [&](const ipc::DaemonError& error) { return commands.report(error); }};
  return static_cast<int>(session.run(client::watch(standardConsole(), std::move(with), asJSON)));
}

}  // namespace

void declareCommitmentCommands(CLI::App& app, int& status) {
  const auto given = std::make_shared<Given>();

  CLI::App& start = addCommand(app, given, "start", "Start a Commitment: block sites for a time");
  addSelection(start, given, "Sites to block, as typed or copied from a browser");
  start.add_option("--for", given->end.duration, "How long, such as 2h or 90m; at most 24h")
      ->type_name("LENGTH");
  start
      .add_option("--until", given->end.until,
                  "Until when, such as 18:00, 2026-11-21T18:00 or 2026-11-21T18:00+01:00")
      ->type_name("TIME");
  addConfirmation(start, given);
  onceGiven(start, status, [given](Commands& commands) {
    return commands.start(given->words, given->end, given->options);
  });

  CLI::App& add = addCommand(app, given, "add", "Add sites to the running Commitment");
  addSelection(add, given, "Sites to block as well");
  addConfirmation(add, given);
  onceGiven(add, status,
            [given](Commands& commands) { return commands.add(given->words, given->options); });

  CLI::App& extend = addCommand(app, given, "extend", "Move the end of the Commitment later");
  extend.add_option("--by", given->end.duration, "By how much, such as 30m")->type_name("LENGTH");
  extend.add_option("--until", given->end.until, "Until when, such as 18:00")->type_name("TIME");
  addConfirmation(extend, given);
  onceGiven(extend, status,
            [given](Commands& commands) { return commands.extend(given->end, given->options); });

  CLI::App& show = addCommand(app, given, "status", "Show what is blocked and for how long");
  show.add_flag("--watch", given->isWatching, "Go on, as the command watch does");
  const auto watchOn = [&status, given] {
    Session session;
    status = watchWith(session, session.commands(), given->options.asJSON);
    leave(status);
  };
  show.callback([&status, given, watchOn] {
    if (given->isWatching) watchOn();
    Session session;
    Commands commands = session.commands();
    status = static_cast<int>(session.run(commands.status(given->options)));
    leave(status);
  });

  CLI::App& watch =
      addCommand(app, given, "watch", "Show the time that is left and every change, until Ctrl-C");
  watch.callback(watchOn);

  CLI::App& acknowledge =
      addCommand(app, given, "acknowledge", "Clear the message of a Commitment that has ended");
  onceGiven(acknowledge, status,
            [given](Commands& commands) { return commands.acknowledge(given->options); });

  CLI::App& validate =
      addCommand(app, given, "validate", "Test from end to end that the filter really blocks");
  onceGiven(validate, status,
            [given](Commands& commands) { return commands.validate(given->options); });

  CLI::App& explain = addCommand(
      app, given, "explain", "Say how a text is understood as a site, and whether it is blocked");
  explain.add_option("SITE", given->site, "A site, as typed or copied from a browser")->required();
  onceGiven(explain, status,
            [given](Commands& commands) { return commands.explain(given->site, given->options); });
}

}  // namespace stillow::program
