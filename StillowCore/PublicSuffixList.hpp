#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace stillow::core {

class ResourceBundle;

/// The rules under which names are registered: "com", "co.uk", "*.ck", "!www.ck".
///
/// Immutable and shared by all copies, so any number of threads may ask. Hosts are compared as they
/// stand: lower-case them before. Rules beyond ASCII are held in their xn-- form as well.
class PublicSuffixList {
 public:
  using RuleSet = std::set<std::string, std::less<>>;

  /// Reads the text of the list, UTF-8. Anything is accepted: a line is a rule, a comment or blank.
  explicit PublicSuffixList(std::string_view contents);

  /// The list that ships with the product, read once per process. The process stops when it is
  /// missing.
  [[nodiscard]] static const PublicSuffixList& fromResource();
  [[nodiscard]] static PublicSuffixList fromResource(const ResourceBundle& bundle);

  /// Plain rules: "com", "co.uk". These three are put together anew for each call, and canonically
  /// composed.
  [[nodiscard]] RuleSet exactRules() const;
  /// What follows "*." in a wildcard rule.
  [[nodiscard]] RuleSet wildcardParents() const;
  /// What follows "!" in an exception rule.
  [[nodiscard]] RuleSet exceptionRules() const;

  /// The longest public suffix of `host`. An unknown last label counts as one; a host of a single
  /// label is its own. Empty labels are dropped.
  [[nodiscard]] std::string publicSuffix(std::string_view host) const;
  /// The public suffix and one label more; none where `host` has no more than its public suffix.
  [[nodiscard]] std::optional<std::string> registrableDomain(std::string_view host) const;

  /// Likewise without allocating, as views into `host`, which has to be ASCII without empty labels:
  /// the `name` of a Domain in its ASCII form is. The registrable domain is empty where there is
  /// none.
  struct Split {
    std::string_view publicSuffix;
    std::string_view registrableDomain;
  };
  /// None where `host` is no such name.
  [[nodiscard]] std::optional<Split> split(std::string_view host) const noexcept;

 private:
  struct Rules;

  std::shared_ptr<const Rules> rules_;
};

}  // namespace stillow::core
