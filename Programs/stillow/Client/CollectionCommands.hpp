#pragma once

#include <functional>
#include <string>
#include <vector>

#include "StillowClient/Commands.hpp"
#include "StillowClient/Console.hpp"
#include "StillowClient/SiteCollectionFile.hpp"
#include "StillowCore/DomainNormalizer.hpp"
#include "StillowCore/UUID.hpp"

namespace stillow::client {

/// The commands on the user's own collection. Nothing here asks the daemon: what is blocked is not
/// changed by them.
///
/// An edit is done as a whole or not at all; each that succeeds says what it came to and, with
/// `asJSON`, prints the collection instead.
class CollectionCommands {
 public:
  struct Collaborators {
    SiteCollectionFile* file;  ///< outlives this
    std::function<const core::DomainNormalizer&()> normalizer;
    std::function<core::UUID()> makeUUID;
    /// The content of a file that the user names, "-" being standard input; or one sentence.
    std::function<std::expected<std::string, std::string>(const std::string& fileName)> readInput;
  };
  CollectionCommands(Console console, Collaborators collaborators, bool asJSON)
      : console_(std::move(console)), with_(std::move(collaborators)), asJSON_(asJSON) {}

  ExitStatus addSites(const std::vector<std::string>& sites,
                      const std::vector<std::string>& groups) const;
  ExitStatus removeSites(const std::vector<std::string>& sites) const;
  /// Those in any of `groups`; all where there are none.
  ExitStatus listSites(const std::vector<std::string>& groups) const;
  ExitStatus importSites(const std::string& fileName, const std::vector<std::string>& groups) const;

  /// Makes the group where it is missing, and files `sites` in it.
  ExitStatus addGroup(const std::string& group, const std::vector<std::string>& sites) const;
  /// Takes `sites` out of the group; without any, removes the group. Sites stay in the collection.
  ExitStatus removeGroup(const std::string& group, const std::vector<std::string>& sites) const;
  ExitStatus listGroups() const;
  ExitStatus importGroup(const std::string& group, const std::string& fileName) const;

 private:
  using Edit = std::function<std::expected<std::string, std::vector<std::string>>(SiteCollection&)>;
  using Domains = std::expected<std::vector<core::Domain>, std::vector<std::string>>;

  /// `edit` gives what it came to, or sentences that say why not.
  ExitStatus edit(const Edit& edit) const;
  ExitStatus refuse(const std::vector<std::string>& sentences) const;
  Domains understand(const std::vector<std::string>& sites) const;
  Domains understandInput(const std::string& fileName) const;
  ExitStatus fileSites(const Domains& domains, const std::vector<std::string>& groups) const;
  ExitStatus fileInGroup(const std::string& group, const Domains& domains) const;

  Console console_;
  Collaborators with_;
  bool asJSON_;
};

}  // namespace stillow::client
