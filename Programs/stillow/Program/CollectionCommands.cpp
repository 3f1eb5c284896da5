#include "StillowClient/CollectionCommands.hpp"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <sys/random.h>
#include <unistd.h>

#include "Declarations.hpp"
#include "Session.hpp"

namespace stillow::program {

using client::CollectionCommands;

namespace {

struct GivenSites {
  std::vector<std::string> sites;
  std::vector<std::string> groups;
  std::string group;
  std::string file;
  bool asJSON = false;
};
using SharedSites = std::shared_ptr<GivenSites>;

core::UUID randomUUID() {
  core::UUID uuid;
  core::require(::getentropy(uuid.bytes.data(), uuid.bytes.size()) == 0, "no random numbers");
  // Version 4, variant 1 (RFC 9562).
  uuid.bytes[6] = static_cast<std::uint8_t>((uuid.bytes[6] & 0x0FU) | 0x40U);
  uuid.bytes[8] = static_cast<std::uint8_t>((uuid.bytes[8] & 0x3FU) | 0x80U);
  return uuid;
}

/// More than a list that the daemon would take as a whole.
constexpr std::size_t inputBytesMax = 128U << 20;

std::expected<std::string, std::string> readInput(const std::string& fileName) {
  const auto failure = [&](const std::string& reason) {
    return std::unexpected(client::quoted(fileName) + " could not be read: " + reason + ".");
  };
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> opened(nullptr, std::fclose);
  if (fileName != "-") {
    opened.reset(std::fopen(fileName.c_str(), "rbe"));
    if (!opened) return failure(std::strerror(errno));
  }
  std::FILE* const file = opened ? opened.get() : stdin;
  std::string content;
  std::array<char, 65'536> block{};
  while (const std::size_t size = std::fread(block.data(), 1, block.size(), file)) {
    content.append(block.data(), size);
    if (content.size() > inputBytesMax) return failure("it is larger than any list of sites");
  }
  if (std::ferror(file) != 0) return failure(std::strerror(errno));
  return content;
}

CLI::App& addEdit(CLI::App& parent, const SharedSites& given, const char* name, const char* what) {
  CLI::App* const command = parent.add_subcommand(name, what);
  command->add_flag("--json", given->asJSON, "Print the collection; docs/client-json has its form");
  return *command;
}

template <class Command>
void onceGiven(CLI::App& declared, int& status, const SharedSites& given, Command command) {
  declared.callback([&status, given, command] {
    UserCollection collection;
    const CollectionCommands commands(standardConsole(),
                                      {.file = &collection.file,
                                       .normalizer = normalizer,
                                       .makeUUID = randomUUID,
                                       .readInput = readInput},
                                      given->asJSON);
    status = static_cast<int>(command(commands));
  });
}

void addGroups(CLI::App& command, const SharedSites& given, const char* what) {
  command.add_option("--group", given->groups, what)->type_name("NAME")->allow_extra_args(false);
}

void declareSites(CLI::App& app, int& status, const SharedSites& given) {
  CLI::App& sites = *app.add_subcommand("sites", "Keep a collection of sites to choose from");
  sites.require_subcommand(1);

  CLI::App& add = addEdit(sites, given, "add", "Add sites to your collection");
  add.add_option("SITE", given->sites, "Sites, as typed or copied from a browser")->required();
  addGroups(add, given, "File them in a group of yours; may be repeated");
  onceGiven(add, status, given, [given](const CollectionCommands& commands) {
    return commands.addSites(given->sites, given->groups);
  });

  CLI::App& remove = addEdit(sites, given, "remove", "Remove sites from your collection");
  remove.add_option("SITE", given->sites, "Sites of your collection")->required();
  onceGiven(remove, status, given, [given](const CollectionCommands& commands) {
    return commands.removeSites(given->sites);
  });

  CLI::App& list = addEdit(sites, given, "list", "Show your collection");
  addGroups(list, given, "Only the sites of a group; may be repeated");
  onceGiven(list, status, given, [given](const CollectionCommands& commands) {
    return commands.listSites(given->groups);
  });

  CLI::App& import = addEdit(sites, given, "import", "Add the sites of a file");
  import.add_option("FILE", given->file, "One site on each line; - is standard input")->required();
  addGroups(import, given, "File them in a group of yours; may be repeated");
  onceGiven(import, status, given, [given](const CollectionCommands& commands) {
    return commands.importSites(given->file, given->groups);
  });
}

void declareGroups(CLI::App& app, int& status, const SharedSites& given) {
  CLI::App& groups = *app.add_subcommand("groups", "Keep groups of sites, to start with --group");
  groups.require_subcommand(1);
  const auto addGroup = [&](CLI::App& command) {
    command.add_option("NAME", given->group, "The group’s name")->required();
  };

  CLI::App& add = addEdit(groups, given, "add", "Make a group, and file sites in it");
  addGroup(add);
  add.add_option("SITE", given->sites, "Sites to file in it; new ones are added");
  onceGiven(add, status, given, [given](const CollectionCommands& commands) {
    return commands.addGroup(given->group, given->sites);
  });

  CLI::App& remove = addEdit(groups, given, "remove", "Remove a group, or take sites out of it");
  addGroup(remove);
  remove.add_option("SITE", given->sites, "Take only these out; they stay in your collection");
  onceGiven(remove, status, given, [given](const CollectionCommands& commands) {
    return commands.removeGroup(given->group, given->sites);
  });

  CLI::App& list = addEdit(groups, given, "list", "Show your groups");
  onceGiven(list, status, given,
            [](const CollectionCommands& commands) { return commands.listGroups(); });

  CLI::App& import = addEdit(groups, given, "import",
                             "Make a group where it is missing, and file the sites "
                             "of a file in it");
  addGroup(import);
  import.add_option("FILE", given->file, "One site on each line; - is standard input")->required();
  onceGiven(import, status, given, [given](const CollectionCommands& commands) {
    return commands.importGroup(given->group, given->file);
  });
}

}  // namespace

void declareCollectionCommands(CLI::App& app, int& status) {
  const auto given = std::make_shared<GivenSites>();
  declareSites(app, status, given);
  declareGroups(app, status, given);
}

}  // namespace stillow::program
