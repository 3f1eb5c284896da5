#pragma once

#include <compare>
#include <expected>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "StillowCore/Coding.hpp"
#include "StillowCore/DomainCoding.hpp"
#include "StillowCore/NonEmptySet.hpp"
#include "StillowCore/UUID.hpp"

namespace stillow::core {

/// A label under which a user files Websites.
struct Group {
  struct ID {
    UUID rawValue;
    friend bool operator==(const ID&, const ID&) = default;
    friend auto operator<=>(const ID&, const ID&) = default;
  };

  ID id;
  std::string name;

  friend bool operator==(const Group&, const Group&) = default;
};

/// The Groups of one Website; may be empty.
class GroupIDSet {
 public:
  using value_type = Group::ID;

  GroupIDSet() = default;
  explicit GroupIDSet(const std::vector<Group::ID>& ids) : ids_(ids.begin(), ids.end()) {}

  [[nodiscard]] bool contains(const Group::ID& id) const { return ids_.contains(id); }
  [[nodiscard]] bool empty() const noexcept { return ids_.empty(); }
  [[nodiscard]] std::size_t size() const noexcept { return ids_.size(); }
  [[nodiscard]] auto begin() const noexcept { return ids_.begin(); }
  [[nodiscard]] auto end() const noexcept { return ids_.end(); }
  void insert(const Group::ID& id) { ids_.insert(id); }
  void remove(const Group::ID& id) { ids_.erase(id); }

  friend bool operator==(const GroupIDSet&, const GroupIDSet&) = default;

 private:
  std::set<Group::ID> ids_;
};

struct Website {
  Domain domain;
  GroupIDSet groups;

  friend bool operator==(const Website&, const Website&) = default;
};

/// What a user picked out of the Website list.
struct CommitmentSelection {
  /// Every Website that belongs to at least one of these Groups.
  struct groups {
    NonEmptySet<Group::ID> ids;
    friend bool operator==(const groups&, const groups&) = default;
  };
  struct allWebsites {
    friend bool operator==(const allWebsites&, const allWebsites&) = default;
  };

  using Cases = std::variant<groups, allWebsites>;
  Cases cases;

  template <CaseOf<Cases> Case>
  CommitmentSelection(Case selected) : cases(std::move(selected)) {}
  friend bool operator==(const CommitmentSelection&, const CommitmentSelection&) = default;
};

template <>
struct Coding<Group::ID> {
  using Underlying = UUID;
  static UUID raw(const Group::ID& id) { return id.rawValue; }
  static std::expected<Group::ID, std::string> refine(UUID uuid) { return Group::ID{uuid}; }
};

template <>
struct Coding<Group> {
  static constexpr auto fields =
      coding::fieldsOf(coding::field("id", &Group::id), coding::field("name", &Group::name));
};

template <>
struct Coding<GroupIDSet> {
  static std::expected<GroupIDSet, std::string> collect(const std::vector<Group::ID>& ids) {
    return GroupIDSet(ids);
  }
};

template <>
struct Coding<Website> {
  static constexpr auto fields = coding::fieldsOf(coding::field("domain", &Website::domain),
                                                  coding::field("groups", &Website::groups));
};

template <>
struct Coding<CommitmentSelection> {
  using Selection = CommitmentSelection;
  static constexpr auto cases = coding::casesOf(
      coding::caseOf<Selection::groups>("groups", coding::field("_0", &Selection::groups::ids)),
      coding::caseOf<Selection::allWebsites>("allWebsites"));
};

}  // namespace stillow::core

template <>
struct std::hash<stillow::core::Group::ID> {
  std::size_t operator()(const stillow::core::Group::ID& id) const noexcept {
    return std::hash<stillow::core::UUID>{}(id.rawValue);
  }
};

template <>
struct std::hash<stillow::core::Group> {
  std::size_t operator()(const stillow::core::Group& group) const noexcept {
    std::size_t seed = std::hash<stillow::core::Group::ID>{}(group.id);
    stillow::core::hashInto(seed, group.name);
    return seed;
  }
};
