#include "StillowClient/SiteCollection.hpp"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

#include "StillowClient/TextLayout.hpp"
#include "StillowCore/Text.hpp"

namespace stillow::client {

namespace {

struct VersionOnly {
  std::int64_t version = 0;
};

bool isBefore(const core::Website& left, const core::Website& right) {
  return left.domain < right.domain;
}

/// Sorted, each domain once and in all of its groups.
void normalize(std::vector<core::Website>& websites) {
  std::ranges::sort(websites, isBefore);
  std::vector<core::Website> unique;
  unique.reserve(websites.size());
  for (core::Website& website : websites) {
    if (unique.empty() || unique.back().domain != website.domain) {
      unique.push_back(std::move(website));
    } else {
      for (const core::Group::ID& id : website.groups) unique.back().groups.insert(id);
    }
  }
  websites = std::move(unique);
}

std::size_t codePointCount(std::string_view text) {
  return static_cast<std::size_t>(std::ranges::count_if(
      text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U; }));
}

std::set<core::Domain> setOf(std::span<const core::Domain> domains) {
  return {domains.begin(), domains.end()};
}

}  // namespace

}  // namespace stillow::client

template <>
struct stillow::core::Coding<stillow::client::VersionOnly> {
  static constexpr auto fields =
      coding::fieldsOf(coding::field("version", &client::VersionOnly::version));
};

namespace stillow::client {

std::expected<SiteCollection, std::string> SiteCollection::decoded(std::string_view json) {
  const auto version = core::decode<VersionOnly>(json);
  if (!version) return std::unexpected("it is damaged: " + core::describe(version.error()));
  if (version->version != currentVersion) {
    return std::unexpected("it has the form " + std::to_string(version->version) +
                           ", and this program knows " + std::to_string(currentVersion) + ".");
  }
  auto collection = core::decode<SiteCollection>(json);
  if (!collection) return std::unexpected("it is damaged: " + core::describe(collection.error()));
  for (auto group = collection->groups.begin(); group != collection->groups.end(); ++group) {
    const auto isSame = [&](const core::Group& other) {
      return other.id == group->id || core::text::areCanonicallyEqual(other.name, group->name);
    };
    if (std::find_if(collection->groups.begin(), group, isSame) != group) {
      return std::unexpected("it is damaged: two groups are the same, " +
                             client::quoted(group->name) + ".");
    }
  }
  normalize(collection->websites);
  return std::move(*collection);
}

const core::Group* SiteCollection::groupNamed(std::string_view name) const {
  const auto found = std::ranges::find_if(groups, [&](const core::Group& group) {
    return core::text::areCanonicallyEqual(group.name, name);
  });
  return found == groups.end() ? nullptr : &*found;
}

const core::Website* SiteCollection::websiteOf(const core::Domain& domain) const {
  const auto found = std::ranges::lower_bound(websites, domain, {}, &core::Website::domain);
  return found == websites.end() || found->domain != domain ? nullptr : &*found;
}

std::vector<core::Website> SiteCollection::websitesIn(const core::Group::ID& group) const {
  std::vector<core::Website> found;
  std::ranges::copy_if(websites, std::back_inserter(found), [&](const core::Website& website) {
    return website.groups.contains(group);
  });
  return found;
}

std::vector<std::string> SiteCollection::groupNames(const core::Website& website) const {
  std::vector<std::string> names;
  for (const core::Group& group : groups) {
    if (website.groups.contains(group.id)) names.push_back(group.name);
  }
  return names;
}

SiteCollection::Change SiteCollection::add(std::vector<core::Domain> domains,
                                           const core::GroupIDSet& ids) {
  std::ranges::sort(domains);
  const auto duplicates = std::ranges::unique(domains);
  domains.erase(duplicates.begin(), duplicates.end());
  Change change;
  std::vector<core::Website> missing;
  for (core::Domain& domain : domains) {
    const auto found = std::ranges::lower_bound(websites, domain, {}, &core::Website::domain);
    if (found == websites.end() || found->domain != domain) {
      missing.push_back({std::move(domain), ids});
      continue;
    }
    const std::size_t before = found->groups.size();
    for (const core::Group::ID& id : ids) found->groups.insert(id);
    if (found->groups.size() != before) ++change.changed;
  }
  change.added = missing.size();
  std::ranges::move(missing, std::back_inserter(websites));
  std::ranges::sort(websites, isBefore);
  return change;
}

std::size_t SiteCollection::remove(std::span<const core::Domain> domains) {
  const std::set<core::Domain> unwanted = setOf(domains);
  return std::erase_if(
      websites, [&](const core::Website& website) { return unwanted.contains(website.domain); });
}

std::size_t SiteCollection::removeFromGroup(std::span<const core::Domain> domains,
                                            const core::Group::ID& id) {
  const std::set<core::Domain> unwanted = setOf(domains);
  std::size_t count = 0;
  for (core::Website& website : websites) {
    if (!website.groups.contains(id) || !unwanted.contains(website.domain)) continue;
    website.groups.remove(id);
    ++count;
  }
  return count;
}

void SiteCollection::removeGroup(const core::Group::ID& id) {
  for (core::Website& website : websites) website.groups.remove(id);
  std::erase_if(groups, [&](const core::Group& group) { return group.id == id; });
}

std::expected<std::string, std::string> understandGroupName(std::string_view text) {
  const std::string_view name = core::text::trimmingWhitespaceAndNewlines(text);
  if (name.empty()) return std::unexpected("An empty text names no group; write a word.");
  if (!isPrintable(name)) {
    return std::unexpected(client::quoted(name) +
                           " names no group: it has characters that cannot be shown.");
  }
  if (codePointCount(name) > SiteCollection::groupNameCodePointsMax) {
    return std::unexpected(client::quoted(shortened(name, 40)) +
                           " names no group: a name has at most " +
                           std::to_string(SiteCollection::groupNameCodePointsMax) + " characters.");
  }
  return core::text::canonicallyComposed(name);
}

std::expected<core::Group, std::string> understandGroup(const SiteCollection& collection,
                                                        std::string_view text) {
  const std::string_view name = core::text::trimmingWhitespaceAndNewlines(text);
  if (const core::Group* const group = collection.groupNamed(name)) return *group;
  return std::unexpected(client::quoted(text) +
                         " is none of your groups; see them with: stillow groups list");
}

}  // namespace stillow::client
