#include "StillowClient/Selection.hpp"

#include <algorithm>
#include <compare>
#include <iterator>
#include <utility>

#include "StillowClient/TextLayout.hpp"

namespace stillow::client {

namespace {

using Refusals = std::vector<std::string>;

/// The ids of the groups that `names` name. Those without a site are refused: nothing would come of
/// selecting them.
std::vector<core::Group::ID> groupsOf(const std::vector<std::string>& names,
                                      const SiteCollection& collection, Refusals& refusals) {
  std::vector<core::Group::ID> ids;
  for (const std::string& name : names) {
    const auto group = understandGroup(collection, name);
    if (!group) {
      refusals.push_back(group.error());
      continue;
    }
    const bool hasSite = std::ranges::any_of(
        collection.websites,
        [&](const core::Website& website) { return website.groups.contains(group->id); });
    if (!hasSite) {
      refusals.push_back("The group " + client::quoted(group->name) +
                         " is empty; file a site in it with: stillow groups add " +
                         printable(group->name) + " SITE");
    }
    ids.push_back(group->id);
  }
  return ids;
}

bool isSelected(const core::Website& website, const SelectionWords& words,
                const std::vector<core::Group::ID>& groups) {
  return words.isAll || std::ranges::any_of(groups, [&](const core::Group::ID& id) {
           return website.groups.contains(id);
         });
}

/// Of two that are the same, the one with a note stays: that is what the user should see.
void sortAndUnite(std::vector<TypedSite>& sites) {
  std::ranges::sort(sites, [](const TypedSite& left, const TypedSite& right) {
    const std::weak_ordering order = left.domain <=> right.domain;
    return order == 0 ? !left.note.empty() && right.note.empty() : order < 0;
  });
  const auto duplicates = std::ranges::unique(sites, {}, &TypedSite::domain);
  sites.erase(duplicates.begin(), duplicates.end());
}

}  // namespace

std::expected<Selection, SelectionError> understandSelection(
    const SelectionWords& words, const core::DomainNormalizer& normalizer,
    const CollectionReader& readCollection) {
  if (words.sites.empty() && words.groups.empty() && !words.isAll) {
    return std::unexpected(
        SelectionError{{"Say what to block: sites, --group NAME, or --all for your collection."}});
  }
  Refusals refusals;
  auto typed = understandSites(normalizer, words.sites);
  if (!typed) refusals = std::move(typed.error());

  Selection result{.selected = core::CommitmentSelection::allWebsites{},
                   .collectionSnapshot = {},
                   .sites = {},
                   .usesCollection = words.isAll || !words.groups.empty()};
  std::vector<core::Group::ID> groups;
  if (result.usesCollection) {
    auto collection = readCollection();
    if (!collection) {
      return std::unexpected(
          SelectionError{{std::move(collection.error())}, ExitStatus::collection});
    }
    groups = groupsOf(words.groups, *collection, refusals);
    if (words.isAll && collection->websites.empty()) {
      refusals.emplace_back("Your collection is empty; add a site with: stillow sites add SITE");
    }
    for (const core::Website& website : collection->websites) {
      if (!isSelected(website, words, groups)) continue;
      // The file may have been written by hand.
      if (std::string refusal = domainRefusal(website.domain.name(), website.domain);
          !refusal.empty()) {
        refusals.push_back(std::move(refusal));
      }
      result.sites.push_back({website.domain, ""});
    }
    result.collectionSnapshot = std::move(collection->websites);
  }
  if (!refusals.empty()) return std::unexpected(SelectionError{std::move(refusals)});

  if (!words.isAll) {
    // What was typed beside a group counts as filed under it, this once.
    core::GroupIDSet filed;
    if (!groups.empty()) {
      filed.insert(groups.front());
      auto ids = core::NonEmptySet<core::Group::ID>::make(std::move(groups));
      result.selected = core::CommitmentSelection::groups{std::move(*ids)};
    }
    for (const TypedSite& site : *typed) result.collectionSnapshot.push_back({site.domain, filed});
  } else {
    for (const TypedSite& site : *typed) result.collectionSnapshot.push_back({site.domain, {}});
  }
  std::ranges::move(*typed, std::back_inserter(result.sites));
  sortAndUnite(result.sites);
  return result;
}

}  // namespace stillow::client
