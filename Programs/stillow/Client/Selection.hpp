#pragma once

#include <expected>
#include <functional>
#include <string>
#include <vector>

#include "StillowClient/Console.hpp"
#include "StillowClient/SiteCollection.hpp"
#include "StillowClient/SiteList.hpp"
#include "StillowCore/Website.hpp"

/// What a command line says is to be blocked.
namespace stillow::client {

/// The words of the command line: sites as typed, names of groups, everything.
struct SelectionWords {
  std::vector<std::string> sites;
  std::vector<std::string> groups;
  bool isAll = false;
};

/// What the daemon is asked for, and how the user reads it.
struct Selection {
  core::CommitmentSelection selected;
  std::vector<core::Website> collectionSnapshot;
  /// Ascending by domain, each once, and not empty.
  std::vector<TypedSite> sites;
  /// False: nothing but what was typed; it says nothing about the user's collection then.
  bool usesCollection = false;
};

/// The collection is read only where a group, or everything, is asked for.
using CollectionReader = std::function<std::expected<SiteCollection, std::string>()>;

/// One sentence for each part of `words` that selects nothing, or that the collection could not be
/// read.
struct SelectionError {
  std::vector<std::string> sentences;
  ExitStatus status = ExitStatus::usage;
};

[[nodiscard]] std::expected<Selection, SelectionError> understandSelection(
    const SelectionWords& words, const core::DomainNormalizer& normalizer,
    const CollectionReader& readCollection);

}  // namespace stillow::client
