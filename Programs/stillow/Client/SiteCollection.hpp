#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "StillowCore/Coding.hpp"
#include "StillowCore/Website.hpp"

namespace stillow::client {

/// The sites that a user keeps, each filed under any number of groups.
///
/// Groups are in the order in which they were made, no two of one name or id; websites ascend by
/// their domain, each once. What is read from a file is brought into that form, or refused.
struct SiteCollection {
  /// Of the JSON form. A form that an older program would misread gets another.
  static constexpr std::int64_t currentVersion = 1;
  static constexpr std::size_t groupNameCodePointsMax = 100;

  std::int64_t version = currentVersion;
  std::vector<core::Group> groups;
  std::vector<core::Website> websites;

  /// The error is one sentence without the file's name: why `json` is no collection, or not one of
  /// ours to change.
  [[nodiscard]] static std::expected<SiteCollection, std::string> decoded(std::string_view json);

  /// Null if there is none of that name, under canonical equivalence.
  [[nodiscard]] const core::Group* groupNamed(std::string_view name) const;
  [[nodiscard]] const core::Website* websiteOf(const core::Domain& domain) const;
  /// Those filed under `group`.
  [[nodiscard]] std::vector<core::Website> websitesIn(const core::Group::ID& group) const;
  /// The names of the groups that `website` is filed under, in the order of `groups`.
  [[nodiscard]] std::vector<std::string> groupNames(const core::Website& website) const;

  /// What an edit came to.
  struct Change {
    std::size_t added = 0;    ///< sites that are new
    std::size_t changed = 0;  ///< sites that were there and are in another set of groups now
    friend bool operator==(const Change&, const Change&) = default;
  };
  /// Files each of `domains` under `ids` too; those that are missing are added.
  Change add(std::vector<core::Domain> domains, const core::GroupIDSet& ids);
  /// Removes those of `domains` that are there, and says how many were.
  std::size_t remove(std::span<const core::Domain> domains);
  /// Takes `domains` out of a group, and says how many were in it. The sites stay.
  std::size_t removeFromGroup(std::span<const core::Domain> domains, const core::Group::ID& id);
  /// No site is in it afterwards; the sites stay.
  void removeGroup(const core::Group::ID& id);

  friend bool operator==(const SiteCollection&, const SiteCollection&) = default;
};

/// `text` as a group's name: trimmed, composed. The error is one sentence that names the input and
/// the rule.
[[nodiscard]] std::expected<std::string, std::string> understandGroupName(std::string_view text);

/// The group of that name; the error is one sentence.
[[nodiscard]] std::expected<core::Group, std::string> understandGroup(
    const SiteCollection& collection, std::string_view text);

}  // namespace stillow::client

template <>
struct stillow::core::Coding<stillow::client::SiteCollection> {
  using Collection = client::SiteCollection;
  static constexpr auto fields = coding::fieldsOf(coding::field("version", &Collection::version),
                                                  coding::field("groups", &Collection::groups),
                                                  coding::field("websites", &Collection::websites));
};
