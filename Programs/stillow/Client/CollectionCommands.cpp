#include "StillowClient/CollectionCommands.hpp"

#include <algorithm>
#include <ostream>
#include <utility>

#include "StillowClient/TextLayout.hpp"
#include "StillowCore/Coding.hpp"

namespace stillow::client {

namespace {

using Refusals = std::vector<std::string>;
using Outcome = std::expected<std::string, Refusals>;

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + printable(name);
  return text;
}

std::expected<core::GroupIDSet, Refusals> idsOf(const SiteCollection& collection,
                                                const std::vector<std::string>& names) {
  core::GroupIDSet ids;
  Refusals refusals;
  for (const std::string& name : names) {
    const auto group = understandGroup(collection, name);
    if (group) {
      ids.insert(group->id);
    } else {
      refusals.push_back(group.error());
    }
  }
  if (!refusals.empty()) return std::unexpected(std::move(refusals));
  return ids;
}

/// "Added 2 sites, filed 1 site that was there in work."
std::string changeText(const SiteCollection::Change& change, std::string_view where) {
  const std::string into = where.empty() ? "" : " in " + std::string(where);
  std::string text;
  if (change.added > 0) text = "Added " + counted(change.added, "site") + into + ".";
  if (change.changed > 0) {
    text += (text.empty() ? "" : " ") + std::string("Filed ") + counted(change.changed, "site") +
            " that " + (change.changed == 1 ? "was" : "were") + " there" + into + ".";
  }
  return text.empty() ? "Nothing to do: all of that is there already." : text;
}

}  // namespace

ExitStatus CollectionCommands::refuse(const Refusals& sentences) const {
  tellRefusals(sentences, console_);
  return ExitStatus::usage;
}

ExitStatus CollectionCommands::edit(const Edit& edit) const {
  Refusals refusals;
  std::string outcome;
  const auto collection =
      with_.file->edit([&](SiteCollection& edited) -> std::expected<void, std::string> {
        Outcome made = edit(edited);
        if (!made) {
          refusals = std::move(made.error());
          return std::unexpected(std::string());
        }
        outcome = std::move(*made);
        return {};
      });
  if (!collection) {
    if (collection.error().isRefusal) return refuse(refusals);
    console_.tell(collection.error().sentence);
    return ExitStatus::collection;
  }
  if (asJSON_) {
    console_.printRecord(*collection);
  } else {
    console_.say(outcome);
  }
  return ExitStatus::success;
}

CollectionCommands::Domains CollectionCommands::understand(
    const std::vector<std::string>& sites) const {
  auto typed = understandSites(with_.normalizer(), sites);
  if (!typed) return std::unexpected(std::move(typed.error()));
  std::vector<core::Domain> domains;
  domains.reserve(typed->size());
  for (TypedSite& site : *typed) domains.push_back(std::move(site.domain));
  return domains;
}

CollectionCommands::Domains CollectionCommands::understandInput(const std::string& fileName) const {
  const auto content = with_.readInput(fileName);
  if (!content) return std::unexpected(Refusals{content.error()});
  auto domains = understandFile(with_.normalizer(), *content, fileName);
  if (domains && domains->empty()) {
    return std::unexpected(
        Refusals{client::quoted(fileName) + " names no site: write one on each line."});
  }
  if (!domains)
    domains.error().emplace_back("Nothing was imported. Mend these lines and try again.");
  return domains;
}

ExitStatus CollectionCommands::fileSites(const Domains& domains,
                                         const std::vector<std::string>& groups) const {
  if (!domains) return refuse(domains.error());
  return edit([&](SiteCollection& collection) -> Outcome {
    const auto ids = idsOf(collection, groups);
    if (!ids) return std::unexpected(ids.error());
    return changeText(collection.add(*domains, *ids), joined(groups));
  });
}

ExitStatus CollectionCommands::addSites(const std::vector<std::string>& sites,
                                        const std::vector<std::string>& groups) const {
  return fileSites(understand(sites), groups);
}

ExitStatus CollectionCommands::importSites(const std::string& fileName,
                                           const std::vector<std::string>& groups) const {
  return fileSites(understandInput(fileName), groups);
}

ExitStatus CollectionCommands::removeSites(const std::vector<std::string>& sites) const {
  const Domains domains = understand(sites);
  if (!domains) return refuse(domains.error());
  return edit([&](SiteCollection& collection) -> Outcome {
    Refusals refusals;
    for (const core::Domain& domain : *domains) {
      if (collection.websiteOf(domain) == nullptr) {
        refusals.push_back(client::quoted(domain.name()) +
                           " is none of your sites; see them with: " + "stillow sites list");
      }
    }
    if (!refusals.empty()) return std::unexpected(std::move(refusals));
    return "Removed " + counted(collection.remove(*domains), "site") +
           " from your collection. What is blocked stays blocked.";
  });
}

ExitStatus CollectionCommands::listSites(const std::vector<std::string>& groups) const {
  auto collection = with_.file->read();
  if (!collection) {
    console_.tell(collection.error());
    return ExitStatus::collection;
  }
  const auto ids = idsOf(*collection, groups);
  if (!ids) return refuse(ids.error());
  if (!groups.empty()) {
    std::erase_if(collection->websites, [&](const core::Website& website) {
      return std::ranges::none_of(
          *ids, [&](const core::Group::ID& id) { return website.groups.contains(id); });
    });
  }
  if (asJSON_) {
    console_.printRecord(*collection);
    return ExitStatus::success;
  }
  if (collection->websites.empty()) {
    console_.tell(groups.empty() ? "Your collection is empty. To add a site: stillow sites add SITE"
                                 : "There is no site in " + joined(groups) + ".");
    return ExitStatus::success;
  }
  const TextStyle style = console_.outStyle();
  std::string text;
  for (const core::Website& website : collection->websites) {
    const std::string names = joined(collection->groupNames(website));
    text += wrapped(printable(website.domain.name()) +
                        (names.empty() ? "" : "  " + toned("(" + names + ")", Tone::quiet, style)),
                    style.columns, 2) +
            "\n";
  }
  console_.out << text << std::flush;
  return ExitStatus::success;
}

ExitStatus CollectionCommands::fileInGroup(const std::string& group, const Domains& domains) const {
  const auto name = understandGroupName(group);
  if (!name) return refuse({name.error()});
  if (!domains) return refuse(domains.error());
  return edit([&](SiteCollection& collection) -> Outcome {
    std::string text;
    if (collection.groupNamed(*name) == nullptr) {
      collection.groups.push_back({core::Group::ID{with_.makeUUID()}, *name});
      text = "Made the group " + client::quoted(*name) + ".";
      if (domains->empty()) return text;
    } else if (domains->empty()) {
      return "Nothing to do: the group " + client::quoted(*name) + " is there already.";
    }
    core::GroupIDSet ids;
    ids.insert(collection.groupNamed(*name)->id);
    return text + (text.empty() ? "" : " ") + changeText(collection.add(*domains, ids), *name);
  });
}

ExitStatus CollectionCommands::addGroup(const std::string& group,
                                        const std::vector<std::string>& sites) const {
  return fileInGroup(group, understand(sites));
}

ExitStatus CollectionCommands::importGroup(const std::string& group,
                                           const std::string& fileName) const {
  return fileInGroup(group, understandInput(fileName));
}

ExitStatus CollectionCommands::removeGroup(const std::string& group,
                                           const std::vector<std::string>& sites) const {
  const Domains domains = understand(sites);
  if (!domains) return refuse(domains.error());
  return edit([&](SiteCollection& collection) -> Outcome {
    const auto found = understandGroup(collection, group);
    if (!found) return std::unexpected(Refusals{found.error()});
    if (domains->empty()) {
      collection.removeGroup(found->id);
      return "Removed the group " + client::quoted(found->name) +
             ". Its sites stay in your collection.";
    }
    Refusals refusals;
    for (const core::Domain& domain : *domains) {
      const core::Website* const website = collection.websiteOf(domain);
      if (website == nullptr || !website->groups.contains(found->id)) {
        refusals.push_back(
            client::quoted(domain.name()) + " is not in the group " + client::quoted(found->name) +
            "; see what is with: stillow sites list --group " + printable(found->name));
      }
    }
    if (!refusals.empty()) return std::unexpected(std::move(refusals));
    return "Took " + counted(collection.removeFromGroup(*domains, found->id), "site") +
           " out of the group " + client::quoted(found->name) + ".";
  });
}

ExitStatus CollectionCommands::listGroups() const {
  const auto collection = with_.file->read();
  if (!collection) {
    console_.tell(collection.error());
    return ExitStatus::collection;
  }
  if (asJSON_) {
    console_.printRecord(*collection);
    return ExitStatus::success;
  }
  if (collection->groups.empty()) {
    console_.tell("You have no groups. To make one: stillow groups add NAME");
    return ExitStatus::success;
  }
  const TextStyle style = console_.outStyle();
  std::string text;
  for (const core::Group& group : collection->groups) {
    text += wrapped(printable(group.name) + "  " +
                        toned("(" + counted(collection->websitesIn(group.id).size(), "site") + ")",
                              Tone::quiet, style),
                    style.columns, 2) +
            "\n";
  }
  console_.out << text << std::flush;
  return ExitStatus::success;
}

}  // namespace stillow::client
